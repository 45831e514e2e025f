// The ICU half of natural sorting, built as its own shared object so that
// only processes that really sort load ICU (about a millisecond per process).
#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/ustring.h>

#include <cstring>
#include <memory>
#include <string>

#include "natsort-plugin.h"

namespace {

constexpr std::size_t kFillWidth = 10;
// Names are converted into fixed buffers of 4096 UTF-16 units; longer ones
// (far beyond any file name) count as unconvertible in every form of the order.
constexpr int32_t kMaxUnits = 4096;

// "a7b" -> "a0000000007b": the numeric part of the order.
std::string FillDigits(const char* text, std::size_t len) {
  std::string out;
  out.reserve(len + kFillWidth);
  std::size_t i = 0;
  while (i < len) {
    if (text[i] < '0' || text[i] > '9') {
      out.push_back(text[i++]);
      continue;
    }
    std::size_t end = i;
    while (end < len && text[end] >= '0' && text[end] <= '9') ++end;
    if (end - i < kFillWidth) out.append(kFillWidth - (end - i), '0');
    out.append(text + i, end - i);
    i = end;
  }
  return out;
}

// The filled text as NUL-terminated UTF-16 in `buf`; false when it is not
// valid UTF-8 or does not fit. Like a C string, it ends at an embedded NUL.
bool ToUnits(const char* text, std::size_t len, UChar (&buf)[kMaxUnits], int32_t* units) {
  std::string filled = FillDigits(text, len);
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(buf, kMaxUnits, units, filled.c_str(), -1, &status);
  return U_SUCCESS(status) && status != U_STRING_NOT_TERMINATED_WARNING && *units < kMaxUnits;
}

std::unique_ptr<icu::Collator> MakeCollator() {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Collator> c(icu::Collator::createInstance(icu::Locale(""), status));
  if (U_FAILURE(status) || !c) return nullptr;
  c->setStrength(icu::Collator::SECONDARY);
  return c;
}

// One collator per process, built on first use. Its const operations are
// safe from several threads at once.
const icu::Collator* Shared() {
  static const std::unique_ptr<icu::Collator> collator = MakeCollator();
  return collator.get();
}

int Sign(UCollationResult r) { return r == UCOL_LESS ? -1 : (r == UCOL_GREATER ? 1 : 0); }

int SortKey(const char* text, std::size_t len, std::string* out) {
  const icu::Collator* c = Shared();
  UChar buf[kMaxUnits];
  int32_t units = 0;
  if (c == nullptr || !ToUnits(text, len, buf, &units)) return -1;
  uint8_t local[512];
  int32_t need = c->getSortKey(buf, units, local, sizeof(local));
  if (need <= 0) return -1;
  // ICU counts the terminating zero byte; keys are compared without it.
  if (need <= static_cast<int32_t>(sizeof(local))) {
    out->assign(reinterpret_cast<const char*>(local), static_cast<std::size_t>(need - 1));
    return 0;
  }
  std::string big(static_cast<std::size_t>(need), '\0');
  c->getSortKey(buf, units, reinterpret_cast<uint8_t*>(big.data()), need);
  big.resize(static_cast<std::size_t>(need - 1));
  *out = std::move(big);
  return 0;
}

int CompareWith(const icu::Collator& c, const char* a, std::size_t alen, const char* b,
                std::size_t blen) {
  UChar ua[kMaxUnits];
  UChar ub[kMaxUnits];
  int32_t na = 0;
  int32_t nb = 0;
  if (!ToUnits(a, alen, ua, &na) || !ToUnits(b, blen, ub, &nb)) return -2;
  UErrorCode status = U_ZERO_ERROR;
  UCollationResult r = c.compare(ua, na, ub, nb, status);
  return U_FAILURE(status) ? -2 : Sign(r);
}

int Compare(const char* a, std::size_t alen, const char* b, std::size_t blen) {
  const icu::Collator* c = Shared();
  return c == nullptr ? -3 : CompareWith(*c, a, alen, b, blen);
}

int LiteralCompare(const char* a, std::size_t alen, const char* b, std::size_t blen) {
  std::unique_ptr<icu::Collator> c = MakeCollator();
  return c == nullptr ? -3 : CompareWith(*c, a, alen, b, blen);
}

int CollationVersion(std::string* out) {
  const icu::Collator* c = Shared();
  if (c == nullptr) return -1;
  UVersionInfo v;
  c->getVersion(v);
  char text[U_MAX_VERSION_STRING_LENGTH];
  u_versionToString(v, text);
  out->assign(text);
  return 0;
}

const natsort::PluginApi kApi = {natsort::kPluginApiVersion, SortKey, Compare, LiteralCompare,
                                 CollationVersion};

}  // namespace

extern "C" __attribute__((visibility("default"))) const natsort::PluginApi*
tp_natsort_plugin_api() {
  return &kApi;
}
