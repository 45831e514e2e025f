// The table the ICU-backed shared object exports to the thin loader of
// tp_natsort. Both sides are built from this tree by the same compiler, so
// std::string crosses the boundary; the symbol itself is unmangled so that
// dlsym finds it by name.
#pragma once

#include <cstddef>
#include <string>

namespace natsort {

struct PluginApi {
  int version;  // kPluginApiVersion of the object that filled it
  // 0 and the key in *out, -1 when the text cannot be converted.
  int (*sort_key)(const char* text, std::size_t len, std::string* out);
  // -1, 0 or 1 by the shared collator; -2 when a text cannot be converted.
  int (*compare)(const char* a, std::size_t alen, const char* b, std::size_t blen);
  // The same, with a collator created and destroyed for this call; -3 when
  // the collator cannot be created.
  int (*literal_compare)(const char* a, std::size_t alen, const char* b, std::size_t blen);
  // 0 and "a.b.c.d" in *out.
  int (*collation_version)(std::string* out);
};

inline constexpr int kPluginApiVersion = 1;
inline constexpr char kPluginSymbol[] = "tp_natsort_plugin_api";

}  // namespace natsort
