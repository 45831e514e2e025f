// Decoding of query strings and request bodies into parameters. Every input
// is hostile: lengths are checked before anything is copied, and every
// failure is a code, never a crash.
#include "kstx/request-decoder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace KSTX {
namespace {

constexpr std::size_t kMaxPartHeaderBytes = 8192;
constexpr std::size_t kMaxBoundaryBytes = 70;

int Malformed() { return -kDecodeMalformed; }
int TooLarge() { return -kDecodeTooLarge; }

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = Lower(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool UrlDecode(std::string_view in, std::string& out) {
  out.clear();
  out.reserve(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    const char c = in[i];
    if (c == '+') {
      out.push_back(' ');
    } else if (c == '%') {
      if (in.size() - i < 3) return false;
      const int hi = HexDigit(in[i + 1]);
      const int lo = HexDigit(in[i + 2]);
      if (hi < 0 || lo < 0) return false;
      out.push_back(static_cast<char>(hi * 16 + lo));
      i += 2;
    } else {
      out.push_back(c);
    }
  }
  return true;
}

Json::Value FormValue(std::string_view text) {
  Json::Value value;
  if (ParseStrictJson(text, value)) return value;
  return Json::Value(std::string(text));
}

// Collects parameters and holds the count and name limits.
class ParamSink {
 public:
  explicit ParamSink(RequestContext& ctx) : ctx_(ctx) {}

  int Add(const std::string& name, Json::Value value) {
    if (name.empty() || name.find('\0') != std::string::npos) return Malformed();
    if (name.size() > kMaxNameBytes) return TooLarge();
    if (++count_ > kMaxParams) return TooLarge();
    ctx_.params[name] = std::move(value);
    ctx_.form_text.removeMember(name);
    return 0;
  }

  // A form value: JSON when it parses, and its text kept beside it.
  int AddForm(const std::string& name, std::string_view text) {
    Json::Value value = FormValue(text);
    const bool converted = !value.isString();
    if (int rc = Add(name, std::move(value)); rc < 0) return rc;
    if (converted) ctx_.form_text[name] = std::string(text);
    return 0;
  }

 private:
  RequestContext& ctx_;
  std::size_t count_ = 0;
};

int DecodeForm(std::string_view text, ParamSink& sink) {
  std::string name, value;
  while (!text.empty()) {
    const std::size_t amp = text.find('&');
    const std::string_view pair = text.substr(0, amp);
    text = amp == std::string_view::npos ? std::string_view() : text.substr(amp + 1);
    if (pair.empty()) continue;  // "a=1&&b=2"
    const std::size_t eq = pair.find('=');
    const std::string_view raw_value =
        eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1);
    if (!UrlDecode(pair.substr(0, eq), name) || !UrlDecode(raw_value, value)) return Malformed();
    if (int rc = sink.AddForm(name, value); rc < 0) return rc;
  }
  return 0;
}

int DecodeJsonBody(std::string_view body, ParamSink& sink) {
  if (Trim(body).empty()) return 0;
  Json::Value root;
  if (!ParseStrictJson(body, root) || !root.isObject()) return Malformed();
  if (root.size() > kMaxParams) return TooLarge();
  for (auto it = root.begin(); it != root.end(); ++it) {
    if (int rc = sink.Add(it.name(), *it); rc < 0) return rc;
  }
  return 0;
}

// The media type and the value of one of its parameters ("boundary").
std::string_view MediaType(std::string_view content_type) {
  return Trim(content_type.substr(0, content_type.find(';')));
}

// Reads `key` from a "type; a=b; c=\"d\"" header value. Quoted values may
// hold backslash escapes. False when the key is absent or the text broken.
bool HeaderParam(std::string_view header, std::string_view key, std::string& out) {
  std::size_t pos = header.find(';');
  while (pos != std::string_view::npos && pos < header.size()) {
    std::string_view rest = Trim(header.substr(pos + 1));
    const std::size_t eq = rest.find('=');
    if (eq == std::string_view::npos) return false;
    const std::string_view name = Trim(rest.substr(0, eq));
    rest = Trim(rest.substr(eq + 1));
    std::string value;
    std::size_t consumed = 0;
    if (!rest.empty() && rest.front() == '"') {
      std::size_t i = 1;
      for (; i < rest.size() && rest[i] != '"'; ++i) {
        if (rest[i] == '\\' && i + 1 < rest.size()) ++i;
        value.push_back(rest[i]);
      }
      if (i >= rest.size()) return false;  // unterminated quote
      consumed = i + 1;
    } else {
      consumed = std::min(rest.find(';'), rest.size());
      value = std::string(Trim(rest.substr(0, consumed)));
    }
    if (EqualsNoCase(name, key)) {
      out = std::move(value);
      return true;
    }
    const std::size_t next = rest.find(';', consumed);
    if (next == std::string_view::npos) return false;
    pos = static_cast<std::size_t>(rest.data() + next - header.data());
  }
  return false;
}

bool ValidBoundary(std::string_view b) {
  if (b.empty() || b.size() > kMaxBoundaryBytes || b.back() == ' ') return false;
  for (char c : b) {
    const bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                    std::strchr("'()+_,-./:=? ", c) != nullptr;
    if (!ok) return false;
  }
  return true;
}

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

int StoreUpload(std::string_view content, std::string& path) {
  std::string templ = std::string(kUploadDir) + "/kstx-upload-XXXXXX";
  const int fd = mkostemp(templ.data(), O_CLOEXEC);  // mode 0600
  if (fd < 0) return Malformed();
  const bool ok = WriteAll(fd, content);
  if (close(fd) != 0 || !ok) {
    unlink(templ.c_str());
    return Malformed();
  }
  path = std::move(templ);
  return 0;
}

// One part's header block: its field name and, for a file, the file name.
int ParsePartHeaders(std::string_view headers, std::string& name, std::string& filename,
                     bool& is_file) {
  bool has_disposition = false;
  while (!headers.empty()) {
    const std::size_t end = headers.find("\r\n");
    const std::string_view line = headers.substr(0, end);
    headers = end == std::string_view::npos ? std::string_view() : headers.substr(end + 2);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return Malformed();
    if (!EqualsNoCase(Trim(line.substr(0, colon)), "content-disposition")) continue;
    const std::string_view value = Trim(line.substr(colon + 1));
    if (!EqualsNoCase(MediaType(value), "form-data")) return Malformed();
    if (!HeaderParam(value, "name", name)) return Malformed();
    is_file = HeaderParam(value, "filename", filename);
    has_disposition = true;
  }
  return has_disposition ? 0 : Malformed();
}

// The file part of a multipart body, stored only once the request is known.
struct PendingFile {
  bool present = false;
  std::string name;
  std::string filename;
  std::string_view content;
};

int DecodeMultipart(std::string_view body, std::string_view content_type, ParamSink& sink,
                    RequestContext& ctx, PendingFile& file) {
  std::string boundary;
  if (!HeaderParam(content_type, "boundary", boundary) || !ValidBoundary(boundary)) {
    return Malformed();
  }
  const std::string delimiter = "\r\n--" + boundary;
  // The first delimiter may open the body, without the line break before it.
  std::size_t pos;
  if (body.substr(0, delimiter.size() - 2) == std::string_view(delimiter).substr(2)) {
    pos = delimiter.size() - 2;
  } else {
    pos = body.find(delimiter);
    if (pos == std::string_view::npos) return Malformed();
    pos += delimiter.size();
  }
  ctx.is_upload = true;
  for (;;) {
    if (body.substr(pos, 2) == "--") return 0;  // closing delimiter; the epilogue is ignored
    while (pos < body.size() && (body[pos] == ' ' || body[pos] == '\t')) ++pos;
    if (body.substr(pos, 2) != "\r\n") return Malformed();
    pos += 2;
    const std::size_t header_end = body.find("\r\n\r\n", pos);
    if (header_end == std::string_view::npos || header_end - pos > kMaxPartHeaderBytes) {
      return Malformed();
    }
    const std::string_view headers = body.substr(pos, header_end - pos);
    const std::size_t content_start = header_end + 4;
    const std::size_t next = body.find(delimiter, content_start);
    if (next == std::string_view::npos) return Malformed();
    const std::string_view content = body.substr(content_start, next - content_start);
    pos = next + delimiter.size();

    std::string name, filename;
    bool is_file = false;
    if (int rc = ParsePartHeaders(headers, name, filename, is_file); rc < 0) return rc;
    if (!is_file) {
      if (int rc = sink.AddForm(name, content); rc < 0) return rc;
      ctx.upload_fields[name] = ctx.params[name];
      continue;
    }
    if (filename.empty() && content.empty()) continue;  // a file input left empty
    if (file.present) return Malformed();               // one file per request
    file = PendingFile{true, std::move(name), std::move(filename), content};
  }
}

int StorePendingFile(const PendingFile& file, ParamSink& sink, RequestContext& ctx) {
  if (int rc = StoreUpload(file.content, ctx.upload_file_path); rc < 0) return rc;
  for (const std::string& key : {file.name, file.name + "_tmp", std::string("file_tmp")}) {
    const Json::Value value(key == file.name ? file.filename : ctx.upload_file_path);
    if (int rc = sink.Add(key, value); rc < 0) return rc;
    ctx.upload_fields[key] = value;
  }
  return 0;
}

const Json::Value* Member(const Json::Value& object, std::string_view key) {
  return object.find(key.data(), key.data() + key.size());
}

// "api", "method" and "version" out of the parameters.
int ReadTarget(RequestContext& ctx) {
  const Json::Value* api = Member(ctx.params, "api");
  const Json::Value* method = Member(ctx.params, "method");
  if (api == nullptr || !api->isString() || method == nullptr || !method->isString()) {
    return Malformed();
  }
  ctx.api = api->asString();
  ctx.method = method->asString();
  ctx.version = 1;
  const Json::Value* version = Member(ctx.params, "version");
  if (version != nullptr) {
    if (version->type() != Json::intValue && version->type() != Json::uintValue) {
      return Malformed();
    }
    if (!version->isUInt()) return Malformed();
    ctx.version = version->asUInt();
  }
  return 0;
}

int DecodeBody(std::string_view query, std::string_view content_type, std::string_view body,
               ParamSink& sink, RequestContext& ctx, PendingFile& file) {
  const std::string_view media = MediaType(content_type);
  const bool multipart = EqualsNoCase(media, "multipart/form-data");
  if (query.size() > kMaxFormBytes) return TooLarge();
  if (multipart ? body.size() > kMaxUploadBytes : body.size() > kMaxFormBytes - query.size()) {
    return TooLarge();
  }
  if (int rc = DecodeForm(query, sink); rc < 0) return rc;
  if (EqualsNoCase(media, "application/x-www-form-urlencoded")) return DecodeForm(body, sink);
  if (EqualsNoCase(media, "application/json")) return DecodeJsonBody(body, sink);
  if (multipart) return DecodeMultipart(body, content_type, sink, ctx, file);
  return body.empty() ? 0 : Malformed();
}

}  // namespace

int DecodeRequest(std::string_view query, std::string_view content_type, std::string_view body,
                  RequestContext& ctx, const UploadGate& gate) {
  ctx.params = Json::Value(Json::objectValue);
  ctx.upload_fields = Json::Value(Json::objectValue);
  ctx.is_upload = false;
  ctx.form_text = Json::Value(Json::objectValue);
  ctx.upload_file_path.clear();
  ParamSink sink(ctx);
  PendingFile file;
  try {
    int rc = DecodeBody(query, content_type, body, sink, ctx, file);
    if (rc == 0) rc = ReadTarget(ctx);
    if (rc == 0 && file.present && (!gate || gate(ctx))) rc = StorePendingFile(file, sink, ctx);
    if (rc < 0) RemoveUploadFile(ctx);
    return rc;
  } catch (...) {
    RemoveUploadFile(ctx);
    throw;
  }
}

void RemoveUploadFile(RequestContext& ctx) {
  if (!ctx.upload_file_path.empty()) unlink(ctx.upload_file_path.c_str());
  ctx.upload_file_path.clear();
}

int ReadRequestBody(int fd, const char* content_length, std::string_view content_type,
                    std::size_t query_bytes, std::string& body) {
  body.clear();
  if (content_length == nullptr || *content_length == '\0') return 0;
  // Digits only: strtoull would take signs and spaces.
  unsigned long long length = 0;
  for (const char* p = content_length; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return Malformed();
    if (length > kMaxUploadBytes) return TooLarge();
    length = length * 10 + static_cast<unsigned>(*p - '0');
  }
  const bool multipart = EqualsNoCase(MediaType(content_type), "multipart/form-data");
  const std::size_t limit = multipart
                                ? kMaxUploadBytes
                                : (query_bytes >= kMaxFormBytes ? 0 : kMaxFormBytes - query_bytes);
  if (length > limit) return TooLarge();
  body.resize(static_cast<std::size_t>(length));
  std::size_t got = 0;
  while (got < body.size()) {
    const ssize_t n = read(fd, body.data() + got, body.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  if (got < body.size()) {
    body.clear();
    return Malformed();
  }
  return 0;
}

}  // namespace KSTX
