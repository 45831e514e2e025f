// The end of a raw CGI answer: the caller has printed its own header lines
// to standard output; these write the content type, the empty line that
// ends the header block and the body. Every writer flushes stdio first.
#pragma once

#include <cstdio>
#include <string>

namespace tparchive {
class ArchiveWriter;
}

class HTTPFileOutputer {
 public:
  // The MIME type for a file name, judged by its extension from the
  // system's mime.types; empty when the extension is unknown.
  static std::string GetMimeType(const std::string& name);
  // The type, the length and the bytes of the file at `path` (opened
  // without following a link; only a regular file is sent). 0, or -1 with
  // errno.
  static int Output(const std::string& path, const std::string& type);
  // The type and everything `stream` yields until its end.
  static int Output(FILE* stream, const std::string& name, const std::string& type);
  // The type and the archive the writer streams.
  static int Output(tparchive::ArchiveWriter& writer, const std::string& type);
};
