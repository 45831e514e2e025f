// Percent-encoding of UTF-8 texts for headers and cookies: every byte but
// the unreserved characters (A-Z a-z 0-9 - _ . ~) becomes %XX.
#pragma once

#include <string>

std::string UrlEncode(const std::string& text);
