#include <vrxutil/text.h>

#include <algorithm>
#include <cwchar>

namespace {

/// Whether `c`, which is not NUL, is among the characters of `set`.
bool isIn(wchar_t c, wchar_t const* set) { return std::wcschr(set, c) != nullptr; }

wchar_t const* orEmpty(wchar_t const* text) { return text != nullptr ? text : L""; }

void assignUnlessNull(AString* target, std::wstring&& text) {
  if (target != nullptr) target->cpp_str() = std::move(text);
}

}  // namespace

AStringParser::AStringParser() { startAt(L"", L""); }

AStringParser::AStringParser(wchar_t const* text, wchar_t const* defaultDelimiters) {
  startAt(text, defaultDelimiters);
}

void AStringParser::startAt(wchar_t const* text, wchar_t const* defaultDelimiters) {
  work = text;
  cursor = work.cpp_str().data();
  delimiters = defaultDelimiters;
  lastDelimiter = 0;
}

wchar_t* AStringParser::get(wchar_t const* tokenDelimiters) {
  wchar_t const* const ends = orEmpty(tokenDelimiters != nullptr ? tokenDelimiters : delimiters);
  wchar_t* const token = cursor;
  while (*cursor != 0 && !isIn(*cursor, ends)) ++cursor;
  lastDelimiter = *cursor;
  if (*cursor != 0) *cursor++ = 0;
  return token;
}

void AStringParser::skip(wchar_t const* characters) {
  wchar_t const* const skipped = orEmpty(characters);
  while (*cursor != 0 && isIn(*cursor, skipped)) ++cursor;
}

void AStringParser::skip(int count) {
  for (; count > 0 && *cursor != 0; --count) ++cursor;
}

bool AStringParser::atEnd() { return *cursor == 0; }

wchar_t* AStringParser::getRemaining() { return cursor; }

void parseInTwo(wchar_t const* text, AString* left, wchar_t const* delimiters, AString* right) {
  AStringParser parser(text, delimiters);
  wchar_t const* const token = parser.get(nullptr);
  if (left != nullptr) *left = token;
  if (right != nullptr) *right = parser.getRemaining();
}

void parseInTwoFromRight(wchar_t const* text, AString* left, wchar_t const* delimiters,
                         AString* right, bool wholeToLeft) {
  std::wstring whole = std::move(AString(text).cpp_str());  // the outputs may own `text`
  std::size_t const found = whole.find_last_of(orEmpty(delimiters));
  if (found != std::wstring::npos) {
    assignUnlessNull(right, whole.substr(found + 1));
    whole.resize(found);
    assignUnlessNull(left, std::move(whole));
    return;
  }
  assignUnlessNull(wholeToLeft ? right : left, {});
  assignUnlessNull(wholeToLeft ? left : right, std::move(whole));
}
