// libcurl, loaded the first time a request needs it. Linked into the module,
// it and the libraries it pulls in (TLS, HTTP/2, LDAP, SSH, ...) would be
// mapped and relocated by every request, though only the client link uses
// it.
#pragma once

#include <curl/curl.h>

namespace lazy_curl {

struct Api {
  CURLcode (*global_init)(long flags);
  void (*global_cleanup)();
  CURL* (*easy_init)();
  CURLcode (*easy_setopt)(CURL* curl, CURLoption option, ...);
  CURLcode (*easy_perform)(CURL* curl);
  void (*easy_cleanup)(CURL* curl);
  const char* (*easy_strerror)(CURLcode code);
};

// The loaded library, or nullptr when it cannot be loaded.
const Api* Get();

}  // namespace lazy_curl
