// entry.cgi: one web-API request per process, as a CGI program of the web
// server (the setup without tidepool-webapi).
#include "serve-request.h"

int main() { return kstxentry::ServeRequestProcess(); }
