// The zip of a download: the contents of a folder, streamed to a pipe or a
// socket, never built on disk. Two writers stand behind this interface so
// that they can be measured against each other.
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
  // errno (EPIPE when the reader went away). After a failure nothing keeps running: no
  // child process is left, no thread.
  virtual int Stream(int out_fd) = 0;
};

std::unique_ptr<ArchiveWriter> MakeLibarchiveZipWriter(const ArchiveOptions& options);
std::unique_ptr<ArchiveWriter> MakeZipProgramWriter(const ArchiveOptions& options);

}  // namespace tparchive
