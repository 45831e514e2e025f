// The zip archive of a download: the contents of one folder (its entries at
// the top level of the archive, not the folder itself), streamed to a pipe or
// a socket as it is made.
//
// Entries: folders (empty ones too), regular files (stored, not compressed),
// symbolic links as links (never the bytes of what they point to), with their
// Unix modes and modification times. FIFOs, sockets and devices are left out
// with a log line. Each writer is used by one thread.
#pragma once

#include <memory>
#include <string>

namespace tparchive {

struct ArchiveOptions {
  // "unicode" (or empty): names stored as UTF-8 with the zip UTF-8 flag. Anything else names
  // the user's codepage ("big5", "cp1252", "euc-jp", "gbk", ...): names are transcoded to it
  // when the writer can; when it cannot, names stay UTF-8 and one log line says so.
  std::string codepage = "unicode";
};

class ArchiveWriter {
 public:
  virtual ~ArchiveWriter() = default;
  // Readies an archive of the contents of `folder` (an absolute path, opened with no link
  // followed). 0, or -1 with errno set and nothing written anywhere.
  virtual int Start(const std::string& folder) = 0;
  // Writes the whole archive to `out_fd` (a pipe or a socket, not seekable). 0, or -1 with
  // errno (EPIPE when the reader went away; SIGPIPE is held back while writing, whatever
  // the caller's disposition). After a failure nothing keeps running: no child process is
  // left, no thread. May be called again after Start for another copy of the archive;
  // -1/EINVAL before a successful Start.
  virtual int Stream(int out_fd) = 0;
};

// In process, through libarchive; the writer the module uses.
std::unique_ptr<ArchiveWriter> MakeLibarchiveZipWriter(const ArchiveOptions& options);
// /usr/bin/zip run in the folder; the reference the benchmark compares with.
std::unique_ptr<ArchiveWriter> MakeZipProgramWriter(const ArchiveOptions& options);

}  // namespace tparchive
