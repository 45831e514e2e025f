// Natural order of names, as listings show them: every maximal run of ASCII
// digits is filled on the left with "0" to a width of 10 (a longer run stays
// as it is), then the texts are collated by the root locale at secondary
// strength: case is ignored, accents count. There is no tie-break, so "File2"
// and "file2" are equal, and no numeric collation: "a7" sorts before "a10"
// only because it becomes "a0000000007".
//
// The collation library is loaded on the first call of any of these
// functions, not when a program starts, so a process that never sorts never
// pays for it. All functions are safe to call from several threads.
#pragma once

#include <string>

namespace natsort {

// Bytes whose plain byte order (memcmp, std::string's <) equals the natural
// order of the texts. Returns "" when the text is not valid UTF-8, is longer
// than 4095 UTF-16 units once filled, or the collation library cannot be
// loaded; a real key is never empty.
std::string SortKey(const std::string& utf8);

// True when `a` sorts strictly before `b`. When either text cannot be
// converted, or the collation library is missing, the answer is true (the
// same answer as LiteralLess), which is not an order: check Ready() first
// where that matters.
bool Less(const std::string& a, const std::string& b);

// The same order computed the slow, literal way: a fresh collator for every
// comparison. Kept as the reference that Less and SortKey are tested and
// measured against.
bool LiteralLess(const std::string& a, const std::string& b);

// True when the collation library is loaded and its collator was created.
bool Ready();

// The collator's version ("a.b.c.d"), to store next to persisted sort keys
// and rebuild them when it changes; "" when the library cannot be loaded.
std::string CollationVersion();

}  // namespace natsort
