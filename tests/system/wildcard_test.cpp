#include "tests/support/locale_scope.h"
#include "tests/text/made_locale.h"
#include "tests/xml/process_support.h"

#include <vrxutil/system.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

static_assert(std::is_same_v<decltype(MatchWildcard), bool(std::string, std::string)>);

// --- The rules, step by step ------------------------------------------------------------

std::string_view nextGlob(std::string_view pattern, std::size_t position) {
  return pattern.substr(position, pattern.find('*', position) - position);
}

// Both in lower case. `matchRest(p, t)` says whether the rests from there match by the
// same rules.
// NOLINTBEGIN(misc-no-recursion): the rules have it; as deep as the pattern has stars
template <class MatchRest>
bool matchByRules(std::string_view pattern, std::string_view text, MatchRest matchRest) {
  std::size_t t = 0;
  std::size_t p = 0;
  bool matched = false;
  while (!matched && t < text.size() && p < pattern.size()) {
    if (pattern[p] != '*') {
      if (text[t] != pattern[p]) break;
      ++t;
      ++p;
      continue;
    }
    p = pattern.find_first_not_of('*', p);
    if (p == std::string_view::npos) {
      p = pattern.size();
      t = text.size();
      break;
    }
    std::size_t const found = text.find(nextGlob(pattern, p), t);
    if (found != std::string_view::npos) t = found;
    while (t < text.size() && !matched) {
      matched = matchRest(p, t);
      ++t;
    }
  }
  if (matched) return true;
  return p >= pattern.size() && t == text.size();
}

void lowerCase(std::string& text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// The same for two texts as they come; a pair of rests is looked at once.
class ReferenceMatch {
public:
  ReferenceMatch(std::string pattern, std::string text)
      : pattern_(std::move(pattern)), text_(std::move(text)) {
    lowerCase(pattern_);
    lowerCase(text_);
    known_.resize((pattern_.size() + 1) * (text_.size() + 1), kUnknown);
  }

  bool result() { return resultFrom(0, 0); }

private:
  static constexpr signed char kUnknown = -1;

  bool resultFrom(std::size_t p, std::size_t t) {
    signed char& known = known_[p * (text_.size() + 1) + t];
    if (known == kUnknown) {
      known = matchByRules(std::string_view(pattern_).substr(p), std::string_view(text_).substr(t),
                           [&](std::size_t moreP, std::size_t moreT) {
                             return resultFrom(p + moreP, t + moreT);
                           })
                  ? 1
                  : 0;
    }
    return known == 1;
  }

  std::string pattern_;
  std::string text_;
  std::vector<signed char> known_;
};

// NOLINTEND(misc-no-recursion)

// --- Examples ---------------------------------------------------------------------------

struct Match {
  char const* label;
  char const* pattern;
  char const* text;
  bool result;
};

void PrintTo(Match const& row, std::ostream* out) { *out << row.label; }

class MatchWildcardExampleTest : public testing::TestWithParam<Match> {};

TEST_P(MatchWildcardExampleTest, HasThisResult) {
  EXPECT_EQ(MatchWildcard(GetParam().pattern, GetParam().text), GetParam().result);
}

TEST_P(MatchWildcardExampleTest, ReferenceHasThisResult) {
  EXPECT_EQ(ReferenceMatch(GetParam().pattern, GetParam().text).result(), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Examples, MatchWildcardExampleTest,
    testing::Values(
        Match{"CaseOfThePattern", "*.TXT", "readme.txt", true},
        Match{"CaseOfTheText", "read*.txt", "README.TXT", true},
        Match{"RunsInOrder", "a*b*c", "aXbYc", true},
        Match{"TextGoesOnAfterLastRun", "a*b", "aXbY", false},
        Match{"RunsInOtherOrder", "a*c*b", "aXbYc", false},
        Match{"StarAndEmptyText", "*", "", false}, Match{"StarsAndEmptyText", "**", "", false},
        Match{"StarAndText", "*", "abc", true}, Match{"BothEmpty", "", "", true},
        Match{"EmptyPattern", "", "a", false}, Match{"EmptyText", "a", "", false},
        Match{"StarWithNothingLeft", "abc*", "abc", false},
        Match{"StarWithOneLeft", "abc*", "abcd", true},
        Match{"StarsWithOneLeft", "abc***", "abcd", true},
        Match{"StarBeforeAllOfTheText", "*abc", "abc", true},
        Match{"StarForNothingInTheMiddle", "a*bc", "abc", true},
        Match{"StarForNothingAtTheEndAgain", "*c*", "abc", false},
        Match{"LiteralQuestionMark", "a?c", "abc", false},
        Match{"QuestionMarkItself", "a?c", "A?C", true},
        Match{"LiteralBrackets", "[ab]", "a", false},
        Match{"BracketsThemselves", "[ab]", "[ab]", true},
        Match{"LiteralBackslash", "a\\*", "a*", false},
        Match{"BackslashItself", "a\\*", "a\\b", true},
        Match{"ConsecutiveStars", "a**c", "abc", true}, Match{"StarInTheText", "a*c", "a*c", true},
        Match{"StarInTheTextAlone", "ab", "a*", false},
        Match{"WholeTextNeeded", "abc", "abcd", false},
        Match{"WholePatternNeeded", "abcd", "abc", false}, Match{"NoSuchRun", "*x*", "abc", false},
        Match{"LastRunIsTheTextsEnd", "*ab", "abXab", true},
        Match{"RunsMayNotOverlap", "ab*bc", "abc", false},
        Match{"SameRunTwice", "*aa*aa", "aaa", false},
        Match{"SameRunTwiceInFour", "*aa*aa", "aaaa", true},
        Match{"FirstRunMayNotBeSharedWithTheLast", "a*a", "a", false}),
    [](testing::TestParamInfo<Match> const& test) { return test.param.label; });

TEST(MatchWildcardTest, NulIsAnOrdinaryCharacter) {
  using namespace std::string_literals;
  EXPECT_TRUE(MatchWildcard("a\0*c"s, "a\0bc"s));
  EXPECT_TRUE(MatchWildcard("*b\0c*"s, "a\0b\0cd"s));
  EXPECT_FALSE(MatchWildcard("*b\0c*"s, "a\0b\0dd"s));
  EXPECT_FALSE(MatchWildcard("a\0b"s, "a\0c"s));
  EXPECT_FALSE(MatchWildcard("a"s, "a\0"s));
}

TEST(MatchWildcardTest, ArgumentsStayAsTheyAre) {
  std::string const pattern = "A*C";
  std::string const text = "ABC";
  EXPECT_TRUE(MatchWildcard(pattern, text));
  EXPECT_EQ(pattern, "A*C");
  EXPECT_EQ(text, "ABC");
}

// --- All short ones ---------------------------------------------------------------------

// All texts over three letters up to kMostLetters long, by number: shorter ones first,
// those of a length as numbers of base three.
class ShortTexts {
public:
  static constexpr std::size_t kMostLetters = 7;

  ShortTexts() {
    std::size_t countOfLength = 1;
    for (std::size_t length = 0; length <= kMostLetters; ++length, countOfLength *= 3) {
      first_[length] = texts_.size();
      for (std::size_t value = 0; value < countOfLength; ++value) {
        texts_.push_back(spelled(value, length));
      }
    }
  }

  std::vector<std::string> const& all() const { return texts_; }

  /// The number of what is left of text `number` from `position` on.
  std::size_t suffix(std::size_t number, std::size_t position) const {
    std::size_t const length = texts_[number].size();
    std::size_t countOfRest = 1;
    for (std::size_t i = position; i < length; ++i) countOfRest *= 3;
    return first_[length - position] + (number - first_[length]) % countOfRest;
  }

private:
  static std::string spelled(std::size_t value, std::size_t length) {
    std::string text(length, ' ');
    for (std::size_t i = length; i-- > 0; value /= 3) text[i] = "ab*"[value % 3];
    return text;
  }

  std::array<std::size_t, kMostLetters + 1> first_{};
  std::vector<std::string> texts_;
};

TEST(MatchWildcardTest, AllShortPatternsAndTextsAreAsTheRulesSay) {
  ShortTexts const texts;
  std::size_t const count = texts.all().size();
  ASSERT_EQ(count, 3280U);
  ASSERT_EQ(texts.all()[texts.suffix(count - 1, 5)], "**");
  std::vector<char> results(count * count);  // of a pattern, all texts
  std::size_t differences = 0;
  for (std::size_t p = 0; p < count; ++p) {
    std::string const& pattern = texts.all()[p];
    for (std::size_t t = 0; t < count; ++t) {
      std::string const& text = texts.all()[t];
      // The rest of a pattern is shorter, so that its results are known.
      bool const expected = matchByRules(pattern, text, [&](std::size_t moreP, std::size_t moreT) {
        return results[texts.suffix(p, moreP) * count + texts.suffix(t, moreT)] != 0;
      });
      results[p * count + t] = expected ? 1 : 0;
      if (MatchWildcard(pattern, text) == expected) continue;
      if (++differences <= 5) {
        ADD_FAILURE() << "pattern " << pattern << " and text " << text << " are to give "
                      << expected;
      }
    }
  }
  EXPECT_EQ(differences, 0U);
}

// --- Random ones ------------------------------------------------------------------------

// Pairs that match more often than chance would have it: most texts come from their
// pattern, with letters for the stars, in another case, and with an error now and then.
class RandomPairs {
public:
  explicit RandomPairs(std::string letters) : letters_(std::move(letters)) {}

  std::pair<std::string, std::string> next(std::size_t mostCharacters) {
    std::string const pattern = letters(1 + below(mostCharacters), /*starsInTen=*/below(5));
    if (below(5) == 0) return {pattern, letters(below(mostCharacters), 0)};
    std::string text;
    for (char const c : pattern) {
      if (c == '*') {
        text += letters(below(6), 0);
      } else {
        text += otherCase(c);
      }
    }
    if (!text.empty() && below(3) == 0) text[below(text.size())] = letter();
    return {pattern, text};
  }

private:
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }

  char letter() { return letters_[below(letters_.size())]; }

  std::string letters(std::size_t count, std::size_t starsInTen) {
    std::string text;
    while (text.size() < count) text += below(10) < starsInTen ? '*' : letter();
    return text;
  }

  char otherCase(char c) {
    auto const byte = static_cast<unsigned char>(c);
    return static_cast<char>(below(2) == 0 ? std::toupper(byte) : std::tolower(byte));
  }

  std::string letters_;
  std::mt19937_64 random_{84};
};

// Some ASCII, of which "I" has a case of its own in one locale, and bytes beyond.
constexpr char kFewLetters[] = "aAb";
constexpr char kMoreLetters[] = "aAbBiI?[\\\xC0\xE0\xC9\xE9\xDD\xFD\x80\xFF\xC3\xA4";

// ASCII, and some of the bytes beyond. The greatest has a case, too: as a char it is EOF.
constexpr char kLatin1Case[] =
    "upper <U0041>..<U005A>;<U00C0>;<U00C9>;<U00FF>\n"
    "lower <U0061>..<U007A>;<U00E0>;<U00E9>;<U00FE>\n"
    "toupper "
    "(<U0061>,<U0041>);(<U0062>,<U0042>);(<U0063>,<U0043>);(<U0064>,<U0044>);"
    "(<U0065>,<U0045>);(<U0066>,<U0046>);(<U0067>,<U0047>);(<U0068>,<U0048>);"
    "(<U0069>,<U0049>);(<U006A>,<U004A>);(<U006B>,<U004B>);(<U006C>,<U004C>);"
    "(<U006D>,<U004D>);(<U006E>,<U004E>);(<U006F>,<U004F>);(<U0070>,<U0050>);"
    "(<U0071>,<U0051>);(<U0072>,<U0052>);(<U0073>,<U0053>);(<U0074>,<U0054>);"
    "(<U0075>,<U0055>);(<U0076>,<U0056>);(<U0077>,<U0057>);(<U0078>,<U0058>);"
    "(<U0079>,<U0059>);(<U007A>,<U005A>);"
    "(<U00E0>,<U00C0>);(<U00E9>,<U00C9>);(<U00FE>,<U00FF>)\n"
    "tolower "
    "(<U0041>,<U0061>);(<U0042>,<U0062>);(<U0043>,<U0063>);(<U0044>,<U0064>);"
    "(<U0045>,<U0065>);(<U0046>,<U0066>);(<U0047>,<U0067>);(<U0048>,<U0068>);"
    "(<U0049>,<U0069>);(<U004A>,<U006A>);(<U004B>,<U006B>);(<U004C>,<U006C>);"
    "(<U004D>,<U006D>);(<U004E>,<U006E>);(<U004F>,<U006F>);(<U0050>,<U0070>);"
    "(<U0051>,<U0071>);(<U0052>,<U0072>);(<U0053>,<U0073>);(<U0054>,<U0074>);"
    "(<U0055>,<U0075>);(<U0056>,<U0076>);(<U0057>,<U0077>);(<U0058>,<U0078>);"
    "(<U0059>,<U0079>);(<U005A>,<U007A>);"
    "(<U00C0>,<U00E0>);(<U00C9>,<U00E9>);(<U00FF>,<U00FE>)\n";

constexpr LocaleChoice kLatin1WithCase{"Latin1WithCase", nullptr, "ISO-8859-1", kLatin1Case};

class MatchWildcardLocaleTest : public testing::TestWithParam<LocaleChoice> {};

TEST_P(MatchWildcardLocaleTest, RandomPairsAreAsTheRulesSay) {
  ChosenLocale const locale(GetParam());
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  std::size_t matches = 0;
  for (char const* const letters : {kFewLetters, kMoreLetters}) {
    RandomPairs pairs(letters);
    for (int i = 0; i < 10'000; ++i) {
      auto const [pattern, text] = pairs.next(i % 10 == 0 ? 120 : 20);
      bool const expected = ReferenceMatch(pattern, text).result();
      matches += expected ? 1U : 0U;
      ASSERT_EQ(MatchWildcard(pattern, text), expected)
          << testing::PrintToString(pattern) << " and " << testing::PrintToString(text);
    }
  }
  EXPECT_GT(matches, 4'000U);
  EXPECT_LT(matches, 16'000U);
}

// In short texts and in long ones.
TEST_P(MatchWildcardLocaleTest, AllPairsOfBytesAreAsTolowerSays) {
  ChosenLocale const locale(GetParam());
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  for (std::size_t const length : {1U, 1500U}) {
    std::string pattern(length, 'x');
    std::string text(length, static_cast<char>(std::toupper('x')));  // not everywhere an X
    for (int p = 0; p < 256; ++p) {
      if (p == '*') continue;
      for (int t = 0; t < 256; ++t) {
        pattern.back() = static_cast<char>(p);
        text.back() = static_cast<char>(t);
        ASSERT_EQ(MatchWildcard(pattern, text), std::tolower(p) == std::tolower(t))
            << p << " and " << t << " at the end of " << length;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Locales, MatchWildcardLocaleTest,
                         testing::Values(kPlainC, kUtf8, kLatin1WithCase, kTurkish),
                         [](testing::TestParamInfo<LocaleChoice> const& test) {
                           return test.param.label;
                         });

TEST(MatchWildcardTest, NonAsciiBytesHaveNoCaseInCLocale) {
  LocaleScope const locale("C");
  EXPECT_FALSE(MatchWildcard("\xC0*", "\xE0x"));
  EXPECT_TRUE(MatchWildcard("*\xC0\xFF", "x\xC0\xFF"));
}

TEST(MatchWildcardTest, CharactersOfManyBytesHaveNoCaseInUtf8Locale) {
  LocaleScope const locale("C.UTF-8");
  EXPECT_FALSE(MatchWildcard("\u00C4*", "\u00E4x"));
  EXPECT_TRUE(MatchWildcard("\u00E4*", "\u00E4x"));
}

TEST(MatchWildcardTest, BytesHaveTheCaseOfASingleByteLocale) {
  ChosenLocale const locale(kLatin1WithCase);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  EXPECT_TRUE(MatchWildcard("\xC0*", "\xE0x"));
  EXPECT_TRUE(MatchWildcard("*\xE9", "x\xC9"));
  EXPECT_TRUE(MatchWildcard("*\xFF", "x\xFE"));
}

TEST(MatchWildcardTest, TurkishDotMakesAnotherLetter) {
  ChosenLocale const locale(kTurkish);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  EXPECT_FALSE(MatchWildcard("*.I", "agent.i"));
  EXPECT_TRUE(MatchWildcard("*.\xDD", "agent.i"));
}

// --- Long ones --------------------------------------------------------------------------

constexpr std::size_t kLong = 65'536;

std::string repeated(std::string_view part, std::size_t count) {
  std::string text;
  text.reserve(part.size() * count);
  while (count-- > 0) text += part;
  return text;
}

struct LongMatch {
  char const* label;
  std::function<std::string()> pattern;
  std::function<std::string()> text;
  bool result;
};

void PrintTo(LongMatch const& row, std::ostream* out) { *out << row.label; }

class MatchWildcardLongTest : public testing::TestWithParam<LongMatch> {};

// A frame for each star or each retry would be too much for the stack, and a retry of
// each star at each place would not end.
TEST_P(MatchWildcardLongTest, EndsOnASmallStack) {
  std::string const pattern = GetParam().pattern();
  std::string const text = GetParam().text();
  runOnSmallStack([&] { EXPECT_EQ(MatchWildcard(pattern, text), GetParam().result); });
}

std::function<std::string()> fixed(char const* text) {
  return [text] { return std::string(text); };
}

std::function<std::string()> times(std::size_t count, char const* part, char const* end = "") {
  return [=] { return repeated(part, count) + end; };
}

// NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the functions free what they hold
INSTANTIATE_TEST_SUITE_P(
    Long, MatchWildcardLongTest,
    testing::Values(
        LongMatch{"NoLastLetter", fixed("*a*a*a*a*b"), times(kLong, "a"), false},
        LongMatch{"LastLetterAtTheEnd", fixed("*a*a*a*a*b"), times(kLong - 1, "a", "b"), true},
        LongMatch{"LastLetterInside", fixed("*a*a*a*a*b"),
                  [] { return repeated("a", kLong / 2) + 'b' + repeated("a", kLong / 2); }, false},
        LongMatch{"LastLetterInsideAndStar", fixed("*a*a*a*a*b*"),
                  [] { return repeated("a", kLong / 2) + 'b' + repeated("a", kLong / 2); }, true},
        LongMatch{"StarsAlone", times(kLong, "*"), times(kLong, "a"), true},
        LongMatch{"StarsAndEmptyText", times(kLong, "*"), fixed(""), false},
        LongMatch{"StarsBeforeALetter", times(kLong, "*", "b"), times(kLong, "a"), false},
        LongMatch{"StarForEachLetter", times(kLong / 2, "*a"), times(kLong, "a"), true},
        LongMatch{"OneStarTooMany", times(kLong, "*a"), times(kLong - 1, "a"), false},
        LongMatch{"StarForEachLetterAndNoEnd", times(kLong / 2, "*a", "*b"), times(kLong, "a"),
                  false},
        LongMatch{"NothingLeftForTheLastStar", times(kLong, "a*"), times(kLong, "a"), false},
        LongMatch{"LettersAlone", times(kLong, "A"), times(kLong, "a"), true},
        LongMatch{"LastLetterDiffers", times(kLong - 1, "a", "b"), times(kLong, "a"), false},
        LongMatch{"LongRun", times(kLong / 2, "a", "b*"), times(kLong / 2, "a", "bc"), true},
        LongMatch{
            "LongRunNowhere",
            [] { return '*' + repeated("a", kLong / 4) + 'b' + repeated("a", kLong / 4) + '*'; },
            times(kLong, "a"), false},
        LongMatch{"RunOfTwoHundredNowhere",
                  [] { return '*' + repeated("a", 100) + 'b' + repeated("a", 100) + '*'; },
                  times(kLong, "a"), false}),
    [](testing::TestParamInfo<LongMatch> const& test) { return test.param.label; });

}  // namespace
}  // namespace vrxutil::test
