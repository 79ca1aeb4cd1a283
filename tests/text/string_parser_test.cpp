#include <vrxutil/text.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

static_assert(!std::is_polymorphic_v<AStringParser>);
static_assert(!std::is_copy_constructible_v<AStringParser>);
static_assert(!std::is_copy_assignable_v<AStringParser>);
static_assert(std::is_same_v<decltype(std::declval<AStringParser&>().get(nullptr)), wchar_t*>);
static_assert(std::is_same_v<decltype(std::declval<AStringParser&>().getRemaining()), wchar_t*>);
static_assert(std::is_same_v<decltype(std::declval<AStringParser&>().atEnd()), bool>);
static_assert(std::is_same_v<decltype(AStringParser::lastDelimiter), wchar_t>);

TEST(AStringParserTest, CutsAtEachDelimiter) {
  AStringParser parser(L"key=value=x", L"=");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_FALSE(parser.atEnd());
  EXPECT_STREQ(parser.get(nullptr), L"key");
  EXPECT_EQ(parser.lastDelimiter, L'=');
  EXPECT_STREQ(parser.getRemaining(), L"value=x");
  EXPECT_STREQ(parser.get(nullptr), L"value");
  EXPECT_EQ(parser.lastDelimiter, L'=');
  EXPECT_FALSE(parser.atEnd());
  EXPECT_STREQ(parser.get(nullptr), L"x");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_TRUE(parser.atEnd());
  EXPECT_STREQ(parser.get(nullptr), L"");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_STREQ(parser.get(nullptr), L"");
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, AdjacentDelimitersGiveEmptyTokens) {
  AStringParser parser(L",a,,b,", L",");
  EXPECT_STREQ(parser.get(nullptr), L"");
  EXPECT_EQ(parser.lastDelimiter, L',');
  EXPECT_STREQ(parser.get(nullptr), L"a");
  EXPECT_STREQ(parser.get(nullptr), L"");
  EXPECT_EQ(parser.lastDelimiter, L',');
  EXPECT_STREQ(parser.get(nullptr), L"b");
  EXPECT_EQ(parser.lastDelimiter, L',');
  EXPECT_TRUE(parser.atEnd());
  EXPECT_STREQ(parser.get(nullptr), L"");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
}

TEST(AStringParserTest, TextWithoutDelimiterIsOneToken) {
  AStringParser parser(L"abc", L",");
  EXPECT_STREQ(parser.get(nullptr), L"abc");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_TRUE(parser.atEnd());
  EXPECT_STREQ(parser.getRemaining(), L"");
}

TEST(AStringParserTest, LastDelimiterTellsWhichOneItWas) {
  AStringParser parser(L"a;b,c\u20acd", L",;\u20ac");
  EXPECT_STREQ(parser.get(nullptr), L"a");
  EXPECT_EQ(parser.lastDelimiter, L';');
  EXPECT_STREQ(parser.get(nullptr), L"b");
  EXPECT_EQ(parser.lastDelimiter, L',');
  EXPECT_STREQ(parser.get(nullptr), L"c");
  EXPECT_EQ(parser.lastDelimiter, L'\u20ac');
  EXPECT_STREQ(parser.get(nullptr), L"d");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
}

TEST(AStringParserTest, LastDelimiterFollowsTextCursorAndDelimiters) {
  AStringParser const parser;
  auto const* const start = reinterpret_cast<char const*>(&parser);
  auto const* const member = reinterpret_cast<char const*>(&parser.lastDelimiter);
  EXPECT_EQ(static_cast<std::size_t>(member - start), sizeof(AString) + 2 * sizeof(void*));
}

TEST(AStringParserTest, EachCallMayHaveDelimitersOfItsOwn) {
  AStringParser parser(L"a=b,c=d,e", L",");
  EXPECT_STREQ(parser.get(L"="), L"a");
  EXPECT_EQ(parser.lastDelimiter, L'=');
  EXPECT_STREQ(parser.get(nullptr), L"b");
  EXPECT_STREQ(parser.get(L"="), L"c");
  EXPECT_STREQ(parser.get(L""), L"d,e");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, DefaultIsEmpty) {
  AStringParser parser;
  EXPECT_TRUE(parser.atEnd());
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_STREQ(parser.getRemaining(), L"");
  EXPECT_STREQ(parser.get(nullptr), L"");
  EXPECT_STREQ(parser.get(L","), L"");
  parser.skip(L" ");
  parser.skip(3);
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, DefaultHasNoDelimiters) {
  AStringParser parser;
  parser.startAt(L"a,b", L"");
  EXPECT_STREQ(parser.get(nullptr), L"a,b");
}

TEST(AStringParserTest, NullTextReadsAsNullText) {
  AStringParser parser(nullptr, L",");
  EXPECT_STREQ(parser.getRemaining(), L"(null)");
  EXPECT_STREQ(parser.get(nullptr), L"(null)");
  parser.startAt(nullptr, L"u");
  EXPECT_STREQ(parser.get(nullptr), L"(n");
}

TEST(AStringParserTest, NullSetsAreEmpty) {
  AStringParser parser(L"a,b", nullptr);
  parser.skip(static_cast<wchar_t const*>(nullptr));
  EXPECT_STREQ(parser.get(nullptr), L"a,b");
  EXPECT_TRUE(parser.atEnd());
  parser.skip(static_cast<wchar_t const*>(nullptr));
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, TextIsCopied) {
  wchar_t text[] = L"a,b";
  AStringParser parser(text, L",");
  text[0] = L'x';
  text[1] = L'x';
  EXPECT_STREQ(parser.get(nullptr), L"a");
  EXPECT_STREQ(parser.get(nullptr), L"b");
  EXPECT_STREQ(text, L"xxb");
}

TEST(AStringParserTest, DelimitersAreNotCopied) {
  wchar_t delimiters[] = L",";
  AStringParser parser(L"a,b;c", delimiters);
  delimiters[0] = L';';
  EXPECT_STREQ(parser.get(nullptr), L"a,b");
}

TEST(AStringParserTest, TokensStayValidWhileParsingGoesOn) {
  AStringParser parser(L"one,two,three,and a last one that is rather long", L",");
  std::vector<wchar_t*> tokens;
  while (!parser.atEnd()) tokens.push_back(parser.get(nullptr));
  ASSERT_EQ(tokens.size(), 4U);
  EXPECT_STREQ(tokens[0], L"one");
  EXPECT_STREQ(tokens[1], L"two");
  EXPECT_STREQ(tokens[2], L"three");
  EXPECT_STREQ(tokens[3], L"and a last one that is rather long");
  EXPECT_EQ(tokens[1], tokens[0] + 4);
}

TEST(AStringParserTest, TokensAndTheRestMayBeChangedInPlace) {
  AStringParser parser(L"a,b,c", L",");
  wchar_t* const token = parser.get(nullptr);
  token[0] = L'x';
  EXPECT_STREQ(token, L"x");
  parser.getRemaining()[1] = L';';
  EXPECT_STREQ(parser.get(L";"), L"b");
  EXPECT_STREQ(token, L"x");
}

TEST(AStringParserTest, StartAtBeginsAfresh) {
  AStringParser parser(L"a,b", L",");
  parser.get(nullptr);
  EXPECT_EQ(parser.lastDelimiter, L',');
  parser.startAt(L"c;d,e", L";");
  EXPECT_EQ(parser.lastDelimiter, L'\0');
  EXPECT_STREQ(parser.getRemaining(), L"c;d,e");
  EXPECT_STREQ(parser.get(nullptr), L"c");
  EXPECT_STREQ(parser.get(nullptr), L"d,e");
}

TEST(AStringParserTest, StartAtTakesTheParsersOwnText) {
  AStringParser parser(L"skipped,a;b;c and some more text for the free store", L",");
  parser.get(nullptr);
  parser.startAt(parser.getRemaining(), L";");
  EXPECT_STREQ(parser.get(nullptr), L"a");
  wchar_t* const token = parser.get(nullptr);
  parser.startAt(token, L";");
  EXPECT_STREQ(parser.get(nullptr), L"b");
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, SkipsARunOfCharacters) {
  AStringParser parser(L" \t  a b", L" ");
  parser.skip(L" \t");
  EXPECT_STREQ(parser.getRemaining(), L"a b");
  parser.skip(L" \t");
  EXPECT_STREQ(parser.getRemaining(), L"a b");
  parser.skip(L"");
  EXPECT_STREQ(parser.getRemaining(), L"a b");
  parser.skip(L"xab ");
  EXPECT_TRUE(parser.atEnd());
  parser.skip(L" ");
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, SkipsACountOfCharacters) {
  AStringParser parser(L"abcdef", L",");
  parser.skip(0);
  EXPECT_STREQ(parser.getRemaining(), L"abcdef");
  parser.skip(-1);
  parser.skip(INT_MIN);
  EXPECT_STREQ(parser.getRemaining(), L"abcdef");
  parser.skip(1);
  EXPECT_STREQ(parser.getRemaining(), L"bcdef");
  parser.skip(2);
  EXPECT_STREQ(parser.getRemaining(), L"def");
  parser.skip(5);
  EXPECT_TRUE(parser.atEnd());
  EXPECT_STREQ(parser.getRemaining(), L"");
  parser.skip(1);
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, SkipsExactlyToTheEnd) {
  AStringParser parser(L"abc", L",");
  parser.skip(3);
  EXPECT_TRUE(parser.atEnd());
  parser.startAt(L"abc", L",");
  parser.skip(INT_MAX);
  EXPECT_TRUE(parser.atEnd());
}

TEST(AStringParserTest, SkippingKeepsTheLastDelimiter) {
  AStringParser parser(L"a,  b;c", L",;");
  parser.get(nullptr);
  parser.skip(L" ");
  parser.skip(1);
  EXPECT_EQ(parser.lastDelimiter, L',');
  EXPECT_STREQ(parser.getRemaining(), L";c");
}

// Every token and delimiter against a split by the standard string's search.
TEST(AStringParserTest, AgreesWithASplitByTheStandardString) {
  std::mt19937 random(11);
  std::wstring const alphabet = L"ab,;=";
  for (int round = 0; round < 20000; ++round) {
    std::wstring text;
    for (std::size_t left = random() % 20; left > 0; --left) {
      text += alphabet[random() % alphabet.size()];
    }
    AStringParser parser(text.c_str(), L",;");
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t const end = text.find_first_of(L",;", start);
      bool const found = end != std::wstring::npos;
      ASSERT_FALSE(parser.atEnd());
      ASSERT_STREQ(parser.getRemaining(), text.c_str() + start);
      ASSERT_EQ(std::wstring(parser.get(nullptr)), text.substr(start, end - start));
      ASSERT_EQ(parser.lastDelimiter, found ? text[end] : L'\0');
      start = found ? end + 1 : text.size();
    }
    ASSERT_TRUE(parser.atEnd());
  }
}

struct SplitCase {
  wchar_t const* text;
  wchar_t const* delimiters;
  wchar_t const* left;
  wchar_t const* right;
};

TEST(ParseInTwoTest, SplitsAtTheFirstDelimiter) {
  SplitCase const cases[] = {{L"a:b:c", L":", L"a", L"b:c"},
                             {L"a:b", L":", L"a", L"b"},
                             {L"abc", L":", L"abc", L""},
                             {L"", L":", L"", L""},
                             {L":", L":", L"", L""},
                             {L":a", L":", L"", L"a"},
                             {L"a:", L":", L"a", L""},
                             {L"a::b", L":", L"a", L":b"},
                             {L"a;b:c", L":;", L"a", L"b:c"},
                             {L"a:b", L"", L"a:b", L""},
                             {L"a\u20acb", L"\u20ac", L"a", L"b"},
                             {nullptr, L"u", L"(n", L"ll)"},
                             {nullptr, L":", L"(null)", L""}};
  for (SplitCase const& row : cases) {
    AString left(L"old");
    AString right(L"old");
    parseInTwo(row.text, &left, row.delimiters, &right);
    EXPECT_EQ(left.const_cpp_str(), row.left) << AString(row.text).const_cpp_str();
    EXPECT_EQ(right.const_cpp_str(), row.right) << AString(row.text).const_cpp_str();
  }
}

TEST(ParseInTwoTest, NullOutputsAreNotWritten) {
  AString left;
  AString right;
  parseInTwo(L"a:b", &left, L":", nullptr);
  EXPECT_EQ(left.const_cpp_str(), L"a");
  parseInTwo(L"a:b", nullptr, L":", &right);
  EXPECT_EQ(right.const_cpp_str(), L"b");
  parseInTwo(L"a:b", nullptr, L":", nullptr);
}

TEST(ParseInTwoTest, OutputMayOwnTheText) {
  AString left(L"first part:second part");
  AString right;
  parseInTwo(left, &left, L":", &right);
  EXPECT_EQ(left.const_cpp_str(), L"first part");
  EXPECT_EQ(right.const_cpp_str(), L"second part");

  right = L"first part:second part";
  parseInTwo(right, &left, L":", &right);
  EXPECT_EQ(left.const_cpp_str(), L"first part");
  EXPECT_EQ(right.const_cpp_str(), L"second part");

  right = L"no delimiter";
  parseInTwo(right, &left, L":", &right);
  EXPECT_EQ(left.const_cpp_str(), L"no delimiter");
  EXPECT_EQ(right.const_cpp_str(), L"");
}

TEST(ParseInTwoFromRightTest, SplitsAtTheLastDelimiter) {
  SplitCase const cases[] = {{L"a:b:c", L":", L"a:b", L"c"},
                             {L"a:b", L":", L"a", L"b"},
                             {L":", L":", L"", L""},
                             {L":a", L":", L"", L"a"},
                             {L"a:", L":", L"a", L""},
                             {L"a::b", L":", L"a:", L"b"},
                             {L"a;b:c", L":;", L"a;b", L"c"},
                             {L"a:b;c", L":;", L"a:b", L"c"},
                             {L"a\u20acb\u20acc", L"\u20ac", L"a\u20acb", L"c"},
                             {nullptr, L"l", L"(nul", L")"}};
  for (SplitCase const& row : cases) {
    for (bool const wholeToLeft : {false, true}) {
      AString left(L"old");
      AString right(L"old");
      parseInTwoFromRight(row.text, &left, row.delimiters, &right, wholeToLeft);
      EXPECT_EQ(left.const_cpp_str(), row.left) << AString(row.text).const_cpp_str();
      EXPECT_EQ(right.const_cpp_str(), row.right) << AString(row.text).const_cpp_str();
    }
  }
}

TEST(ParseInTwoFromRightTest, WithoutADelimiterTheWholeTextGoesToTheChosenSide) {
  SplitCase const cases[] = {{L"abc", L":", L"abc", L""},
                             {L"", L":", L"", L""},
                             {L"a:b", L"", L"a:b", L""},
                             {nullptr, L":", L"(null)", L""}};
  for (SplitCase const& row : cases) {
    AString left(L"old");
    AString right(L"old");
    parseInTwoFromRight(row.text, &left, row.delimiters, &right, /*wholeToLeft=*/true);
    EXPECT_EQ(left.const_cpp_str(), row.left);
    EXPECT_EQ(right.const_cpp_str(), L"");
    left = L"old";
    right = L"old";
    parseInTwoFromRight(row.text, &left, row.delimiters, &right, /*wholeToLeft=*/false);
    EXPECT_EQ(left.const_cpp_str(), L"");
    EXPECT_EQ(right.const_cpp_str(), row.left);
  }
}

TEST(ParseInTwoFromRightTest, NullOutputsAreNotWritten) {
  for (wchar_t const* const text : {L"a:b", L"ab"}) {
    for (bool const wholeToLeft : {false, true}) {
      AString left;
      AString right;
      AString onlyLeft;
      AString onlyRight;
      parseInTwoFromRight(text, &left, L":", &right, wholeToLeft);
      parseInTwoFromRight(text, &onlyLeft, L":", nullptr, wholeToLeft);
      parseInTwoFromRight(text, nullptr, L":", &onlyRight, wholeToLeft);
      parseInTwoFromRight(text, nullptr, L":", nullptr, wholeToLeft);
      EXPECT_EQ(onlyLeft.const_cpp_str(), left.const_cpp_str());
      EXPECT_EQ(onlyRight.const_cpp_str(), right.const_cpp_str());
    }
  }
}

TEST(ParseInTwoFromRightTest, OutputMayOwnTheText) {
  AString left(L"first part:second part:third part");
  AString right;
  parseInTwoFromRight(left, &left, L":", &right, /*wholeToLeft=*/true);
  EXPECT_EQ(left.const_cpp_str(), L"first part:second part");
  EXPECT_EQ(right.const_cpp_str(), L"third part");

  right = L"first part:second part:third part";
  parseInTwoFromRight(right, &left, L":", &right, /*wholeToLeft=*/true);
  EXPECT_EQ(left.const_cpp_str(), L"first part:second part");
  EXPECT_EQ(right.const_cpp_str(), L"third part");

  right = L"text without a delimiter";
  parseInTwoFromRight(right, &left, L":", &right, /*wholeToLeft=*/true);
  EXPECT_EQ(left.const_cpp_str(), L"text without a delimiter");
  EXPECT_EQ(right.const_cpp_str(), L"");

  left = L"text without a delimiter";
  parseInTwoFromRight(left, &left, L":", &right, /*wholeToLeft=*/false);
  EXPECT_EQ(left.const_cpp_str(), L"");
  EXPECT_EQ(right.const_cpp_str(), L"text without a delimiter");
}

}  // namespace
}  // namespace vrxutil::test
