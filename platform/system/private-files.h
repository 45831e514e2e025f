// The repository (/volumeN/@tidepool: databases, @sync pieces) holds every
// user's history, so it is root's alone: folders 0700, files 0600. Files
// are created with those modes rather than fixed afterwards, and a
// repository left by an older install is fixed once.
#pragma once

#include <sys/types.h>

#include <string>

namespace tpsys {

inline constexpr mode_t kPrivateDirMode = 0700;
inline constexpr mode_t kPrivateFileMode = 0600;

// Makes `dir` and its missing parents as private folders; an existing
// `dir` of ours with a wider mode is narrowed. 0, or -1 with errno set.
int MakePrivateDir(const std::string& dir);

// Readies the SQLite database `path` before it is opened: with `create` a
// missing file is made empty and private, and an existing one of ours is
// narrowed to 0600, so that SQLite, which gives its -wal, -shm and -journal
// files the database's own mode, makes those private too (companions left
// wider by an older install are SecureRepository's). 0, or -1 with errno
// set (ENOENT when missing and not created).
int PreparePrivateDatabase(const std::string& path, bool create);

// Narrows every folder and file of `repository` (not following links)
// once: a mark left in it says the walk was made, so later runs pay one
// look-up. 0, or -1 with errno set.
int SecureRepository(const std::string& repository);

}  // namespace tpsys
