// The name rule: equality by lower-cased NFC key, French order on the keys,
// and the ASCII short cuts agreeing with the Unicode path.
#include "kavrel/platform/names.h"

#include <gtest/gtest.h>
#include <unicode/ucol.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace kavrel::names {
namespace {

TEST(NameRule, EqualityFoldsCaseOfEveryLetterButKeepsAccentsAndBlanks) {
  struct Case {
    const char* a;
    const char* b;
    bool same;
  };
  for (const Case& c : std::vector<Case>{
           {"Lecture", "LECTURE", true},
           {"É", "é", true},
           {"ÉCART DE RICHESSE", "écart de richesse", true},
           {"ÉTAT BATTERIE", "état batterie", true},
           {"Œil", "œIL", true},
           {"ΑΒΓ", "αβγ", true},
           {"e\xCC\x81tat", "état", true},  // decomposed é is the same name
           {"e", "é", false},
           {"Eclairage", "Éclairage", false},
           {"Moteur", "Moteur\t", false},
           {"Moteur", "Moteur ", false},
           {"STRASSE", "straße", false},  // lower-casing, not folding
           {"", "", true},
           {"A\xFF", "a\xFF", true},  // invalid UTF-8: bytes kept, ASCII lowered
           {"\xFF", "\xFE", false},
       }) {
    EXPECT_EQ(equal(c.a, c.b), c.same) << c.a << " / " << c.b;
    EXPECT_EQ(key(c.a) == key(c.b), c.same) << c.a << " / " << c.b;
    EXPECT_EQ(compare(c.a, c.b) == 0, c.same) << c.a << " / " << c.b;
    EXPECT_EQ(compare(c.b, c.a) == 0, c.same) << c.a << " / " << c.b;
  }
  EXPECT_EQ(key("Moteur ABS"), "moteur abs");
  EXPECT_EQ(key("ÉCLAIRAGE"), "éclairage");
  EXPECT_EQ(key("\xC4\xB0"), "i\xCC\x87");  // full mapping of dotted capital I
}

TEST(NameRule, OrderIsFrenchAndCaseInsensitiveAndTotal) {
  const std::vector<std::string> expected = {
      "abs", "ABS 2", "Capteur", "Eclairage", "Éclairage", "éclairage arrière",
      "Moteur", "Moteur ", "Œil", "vitesse", "Vitesse véhicule", "Zone"};
  std::vector<std::string> sorted(expected.rbegin(), expected.rend());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const std::string& a, const std::string& b) { return compare(a, b) < 0; });
  EXPECT_EQ(sorted, expected);

  // Antisymmetric and consistent with equal() over every pair, including
  // names that differ only in case (the key bytes decide nothing there).
  std::vector<std::string> all = expected;
  for (const char* extra : {"ABS", "ÉCLAIRAGE", "e\xCC\x81" "clairage", "\xFF", "a\x01" "b", "ab"}) all.push_back(extra);
  for (const auto& a : all)
    for (const auto& b : all) {
      EXPECT_EQ(compare(a, b), -compare(b, a)) << a << " / " << b;
      EXPECT_EQ(compare(a, b) == 0, equal(a, b)) << a << " / " << b;
      EXPECT_EQ(compareKeys(key(a), key(b)), compare(a, b)) << a << " / " << b;
    }
}

// The printable-ASCII short cut must give the collator's own answer.
TEST(NameRule, AsciiShortCutAgreesWithTheCollator) {
  UErrorCode status = U_ZERO_ERROR;
  UCollator* fr = ucol_open("fr", &status);
  ASSERT_TRUE(U_SUCCESS(status));
  std::string alphabet;
  for (int c = 0x20; c <= 0x7E; ++c) alphabet += static_cast<char>(c);
  std::mt19937 rng(12);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
  std::uniform_int_distribution<int> length(0, 6);
  auto randomName = [&] {
    std::string s;
    for (int n = length(rng); n > 0; --n) s += alphabet[pick(rng)];
    return s;
  };
  for (int i = 0; i < 20000; ++i) {
    std::string a = randomName();
    std::string b = i % 3 ? randomName() : a.substr(0, a.size() / 2) + randomName();
    const std::string ka = key(a), kb = key(b);
    UErrorCode st = U_ZERO_ERROR;
    int expected = ucol_strcollUTF8(fr, ka.data(), static_cast<int32_t>(ka.size()), kb.data(),
                                    static_cast<int32_t>(kb.size()), &st);
    if (expected == 0) expected = (ka > kb) - (ka < kb);
    ASSERT_EQ(compare(a, b), expected) << "'" << a << "' / '" << b << "'";
  }
  ucol_close(fr);
}

}  // namespace
}  // namespace kavrel::names
