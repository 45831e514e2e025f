// Input: "QUERY_STRING\nCONTENT_TYPE\nBODY". The request is decoded as
// entry.cgi decodes it; when it names a method of the module's check table,
// that check function runs on the decoded parameters.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kstx/request-decoder.h"
#include "kstx/webapi-module.h"
#include "kstx/webapi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t first = input.find('\n');
  if (first == std::string_view::npos) return 0;
  const size_t second = input.find('\n', first + 1);
  if (second == std::string_view::npos) return 0;
  const std::string_view query = input.substr(0, first);
  const std::string_view content_type = input.substr(first + 1, second - first - 1);
  const std::string_view body = input.substr(second + 1);

  KSTX::RequestContext ctx;
  if (KSTX::DecodeRequest(query, content_type, body, ctx) < 0) return 0;
  const std::string upload = ctx.upload_file_path;
  for (const KSTXAPICheckTableRow* row = GetAPICheckTable(); row->api != nullptr; ++row) {
    if (ctx.api != row->api || ctx.method != row->method || row->check == nullptr) continue;
    KSTX::APIRequest request(ctx);
    KSTX::APIResponse response;
    const bool passed = row->check(&request, &response);
    // A refusal always carries its error; a pass never does.
    if (passed == response.IsError()) __builtin_trap();
    if (!passed && response.GetErrorCode() != 120) __builtin_trap();
    break;
  }
  KSTX::RemoveUploadFile(ctx);
  return 0;
}
