// Turning the bytes of a CGI request into the parameters of a RequestContext,
// without a process around it (entry.cgi, the tests and the fuzzer share it).
//
// Sources of parameters, later ones replacing earlier ones of the same name:
//   1. the query string (name=value&..., percent-encoded, "+" is a space);
//   2. the body, by CONTENT_TYPE:
//      application/x-www-form-urlencoded  as the query string;
//      multipart/form-data                form fields are parameters; one file
//                                         part is stored under /tmp (mode 0600),
//                                         once every field is decoded and only
//                                         if the upload gate allows it, and the
//                                         request counts as an upload:
//                                         for a file field F the parameter F is
//                                         the client's file name, F_tmp and
//                                         file_tmp the stored file's path;
//      application/json                   an object whose members are the
//                                         parameters, as JSON values;
//      anything else                      only an empty body is accepted.
// A form value that is a complete strict JSON text ("12", "true", "[1]",
// "\"x\"") is used as that JSON value; any other value as a text.
//
// api, method and version come from the parameters of the same names (which
// stay in the parameter set). A missing version means 1; a version that is not
// a non-negative integer, a missing api or method are malformed requests.
//
// Limits (larger requests answer kDecodeTooLarge, nothing is allocated for
// them beyond the limit):
//   query string + urlencoded or JSON body  kMaxFormBytes    (1 MiB)
//   multipart body                          kMaxUploadBytes  (64 MiB)
//   parameters in all                       kMaxParams       (256)
//   bytes of one parameter name             kMaxNameBytes    (256)
#pragma once

#include <json/value.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "kstx/webapi.h"

namespace KSTX {

constexpr std::size_t kMaxFormBytes = 1u << 20;
constexpr std::size_t kMaxUploadBytes = 64u << 20;
constexpr std::size_t kMaxParams = 256;
constexpr std::size_t kMaxNameBytes = 256;

// Error codes of the envelope for a request that cannot be decoded; the
// decoder's functions return them negated.
constexpr int kDecodeMalformed = 101;  // "malformed request"
constexpr int kDecodeTooLarge = 102;   // "request too large"

// The folder in which uploaded files are stored.
constexpr const char* kUploadDir = "/tmp";

// Called with the decoded parameters before a file part is stored (entry.cgi
// resolves the caller's session there); false leaves the file unstored and
// its parameters unset, so that nobody who may not upload fills the disk.
using UploadGate = std::function<bool(RequestContext&)>;

// Fills ctx.api, method, version, params and, for a multipart body, the
// upload fields and the stored file (without a gate, any file is stored). 0
// on success, -kDecodeMalformed or -kDecodeTooLarge on failure; a file stored
// before a failure or an exception is removed.
int DecodeRequest(std::string_view query, std::string_view content_type, std::string_view body,
                  RequestContext& ctx, const UploadGate& gate = nullptr);

// Reads a request body of CONTENT_LENGTH bytes (`content_length` may be null
// or empty for none) from `fd`, refusing before reading anything when the
// length is over the limit for `content_type` given a query string of
// `query_bytes`. A body shorter than announced is malformed. 0 or the negated
// error code.
int ReadRequestBody(int fd, const char* content_length, std::string_view content_type,
                    std::size_t query_bytes, std::string& body);

// Removes the stored file of an upload, if any.
void RemoveUploadFile(RequestContext& ctx);

// Strict JSON: no comments, no trailing commas or garbage, nesting at most 64.
bool ParseStrictJson(std::string_view text, Json::Value& out);

}  // namespace KSTX
