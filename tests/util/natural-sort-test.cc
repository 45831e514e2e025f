// Natural order: the fast forms (shared collator, sort keys) must give the
// very order of the literal per-comparison form.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "natural-sort.h"

namespace {

int Sign(bool less_ab, bool less_ba) { return less_ab ? -1 : (less_ba ? 1 : 0); }

TEST(NaturalSort, NamedCases) {
  ASSERT_TRUE(natsort::Ready());
  struct Case {
    const char* a;
    const char* b;
    int order;  // -1: a first, 0: equal, 1: b first
  } cases[] = {
      {"file2", "file10", -1},
      {"File2", "file2", 0},
      {"a7", "a10", -1},
      {"a07", "a7", 0},                   // both fill to the same text
      {"12345678901", "9876543210", -1},  // a run past 10 digits is not filled
      {"x1y2", "x1y10", -1},
      {"resume", "résumé", -1},  // accents count
      {"Résumé", "résumé", 0},   // case does not
      {"", "a", -1},
      {"b", "a", 1},
      {"dir 2", "dir 10", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " <> " + c.b);
    EXPECT_EQ(Sign(natsort::LiteralLess(c.a, c.b), natsort::LiteralLess(c.b, c.a)), c.order);
    EXPECT_EQ(Sign(natsort::Less(c.a, c.b), natsort::Less(c.b, c.a)), c.order);
    std::string ka = natsort::SortKey(c.a);
    std::string kb = natsort::SortKey(c.b);
    ASSERT_FALSE(ka.empty());
    EXPECT_EQ(ka < kb ? -1 : (kb < ka ? 1 : 0), c.order);
  }
}

TEST(NaturalSort, UnconvertibleTextsAnswerTrueAndHaveNoKey) {
  const std::string invalid = "bad\xff\xfe";
  const std::string too_long(5000, 'x');
  for (const std::string& s : {invalid, too_long}) {
    EXPECT_TRUE(natsort::LiteralLess(s, "a"));
    EXPECT_TRUE(natsort::LiteralLess("a", s));
    EXPECT_TRUE(natsort::Less(s, "a"));
    EXPECT_TRUE(natsort::Less("a", s));
    EXPECT_EQ(natsort::SortKey(s), "");
  }
}

TEST(NaturalSort, CollationVersionIsDottedNumbers) {
  std::string v = natsort::CollationVersion();
  ASSERT_FALSE(v.empty());
  EXPECT_EQ(v.find_first_not_of("0123456789."), std::string::npos) << v;
}

std::string RandomName(std::mt19937& rng) {
  static const std::vector<std::string> pieces = {"a",
                                                  "B",
                                                  "z",
                                                  "Z",
                                                  "e",
                                                  "é",
                                                  "É",
                                                  "è",
                                                  "ß",
                                                  "ø",
                                                  "Ж",
                                                  "ж",
                                                  "中",
                                                  "文",
                                                  "ア",
                                                  "-",
                                                  "_",
                                                  " ",
                                                  ".",
                                                  "0",
                                                  "1",
                                                  "9",
                                                  "00",
                                                  "007",
                                                  "10",
                                                  "99",
                                                  "123456789",
                                                  "12345678901",
                                                  "0000000000001",
                                                  "\xf0\x9f\x98\x80" /* emoji */,
                                                  "ﬁ",
                                                  "ǅ",
                                                  "İ",
                                                  "ı"};
  std::uniform_int_distribution<std::size_t> count(0, 6);
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  std::string name;
  for (std::size_t n = count(rng); n > 0; --n) name += pieces[pick(rng)];
  return name;
}

TEST(NaturalSort, FastFormsAgreeWithLiteralOnRandomNames) {
  std::mt19937 rng(20240611);
  std::vector<std::string> names;
  for (int i = 0; i < 3000; ++i) names.push_back(RandomName(rng));

  // Pairwise: neighbours in generation order plus random pairs.
  std::uniform_int_distribution<std::size_t> pick(0, names.size() - 1);
  for (std::size_t i = 0; i < 6000; ++i) {
    const std::string& a = names[i % names.size()];
    const std::string& b = names[pick(rng)];
    int literal = Sign(natsort::LiteralLess(a, b), natsort::LiteralLess(b, a));
    ASSERT_EQ(Sign(natsort::Less(a, b), natsort::Less(b, a)), literal) << a << " | " << b;
    std::string ka = natsort::SortKey(a);
    std::string kb = natsort::SortKey(b);
    ASSERT_EQ(ka < kb ? -1 : (kb < ka ? 1 : 0), literal) << a << " | " << b;
  }

  // Whole sequences: each fast sort must be ordered by the literal comparison.
  std::vector<std::string> by_less = names;
  std::stable_sort(by_less.begin(), by_less.end(), natsort::Less);
  std::vector<std::string> by_key = names;
  std::stable_sort(by_key.begin(), by_key.end(), [](const std::string& a, const std::string& b) {
    return natsort::SortKey(a) < natsort::SortKey(b);
  });
  EXPECT_EQ(by_less, by_key);  // stable sorts of one order give one sequence
  for (std::size_t i = 1; i < by_less.size(); ++i) {
    ASSERT_FALSE(natsort::LiteralLess(by_less[i], by_less[i - 1]))
        << by_less[i - 1] << " | " << by_less[i];
  }
}

}  // namespace
