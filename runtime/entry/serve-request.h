// Serving the one web-API request of this process: what entry.cgi does from
// start to end, and what each child of tidepool-webapi does once the request
// is in its environment and on its standard input.
#pragma once

#include <cstdint>

namespace kstxentry {

struct RequestLimits {
  // With a limit, a request that has not answered after this many seconds
  // answers 100 and ends. A raw answer already under way (a download) is
  // paced by its client and let run; it then sets *streaming, when given, for
  // whoever watches the process from outside. 0: no limit.
  unsigned time_limit_seconds = 0;
  volatile std::uint8_t* streaming = nullptr;
};

// Starts clean (umask, working folder "/", descriptors above 2 closed),
// keeps only the CGI variables of the environment, lowers the effective ids
// to the service account, then reads the request from standard input and the
// environment, serves it and writes the answer to standard output. Returns
// the process's exit status.
int ServeRequestProcess(const RequestLimits& limits = {});

}  // namespace kstxentry
