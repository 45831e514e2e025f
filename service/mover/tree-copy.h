// Copies of folder trees that keep everything a file carries (owner, mode,
// times, POSIX ACLs and other extended attributes), with a SHA-256 of every
// file's bytes taken as they are read, so that the copy can be checked
// against the source without reading the source twice.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace mover {

struct FileSum {
  uint64_t size = 0;
  std::string sha256;  // hex
};

// Relative path ("views/3.sqlite") to its size and digest as copied.
using Sums = std::map<std::string, FileSum>;

// Called after each block written, with the bytes copied so far.
using Progress = std::function<void(uint64_t)>;
// Called after each file copied, with its relative path and sum.
using Copied = std::function<void(const std::string&, const FileSum&)>;

// Copies the entry `name` of the folder `from_fd` into the folder `to_fd`
// (which must not hold it yet), recursively, never following a link.
// Regular files, folders and links are copied; anything else is left out.
// 0, or -errno of the first failure (ENOSPC for a full volume), with
// `error` naming the path.
int CopyTree(int from_fd, int to_fd, const std::string& name, Sums& sums, uint64_t& bytes,
             const Progress& progress, const Copied& copied, std::string& error);

// Reads the file `rel` beneath `root_fd` again and compares its size and
// digest with `sum`. 0, or -1 with `error` saying what differs.
int VerifyFile(int root_fd, const std::string& rel, const FileSum& sum, std::string& error);

// Reads every file of `sums` again beneath `root_fd` and compares its size
// and digest. 0, or -1 with `error` naming the first difference.
int VerifyTree(int root_fd, const Sums& sums, std::string& error);

// Removes `name` beneath `dir_fd` and everything under it, never following a
// link. 0 or -errno (a missing entry is 0).
int RemoveTree(int dir_fd, const std::string& name);

}  // namespace mover
