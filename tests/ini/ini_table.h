// The grammar of INI files as a plain table of states, one character at a time:
// slow, and sharing nothing with the parser that is held against it.

#pragma once

#include <array>
#include <cstddef>
#include <cwctype>
#include <map>
#include <string>

namespace vrxutil::test {

enum class IniAction {
  nothing,
  eraseSection,
  endSection,
  endKey,
  begin,
  appendToSection,
  appendToKey,
  appendToValue,
  store,
  error,
};

/// What a character means in a state.
struct IniCell {
  IniAction action;
  int next;
  wchar_t const* message = nullptr;  // of an error
};

class IniTable {
public:
  using Map = std::multimap<std::wstring, std::map<std::wstring, std::wstring>>;

  static constexpr std::size_t kSteps = 6;
  static constexpr std::size_t kStates = 5;

  /// How often each cell was met, by step and state.
  using Visits = std::array<std::array<unsigned long, kStates>, kSteps>;

  /// Reads a text, as it is after the conversion from UTF-8.
  explicit IniTable(std::wstring const& text) {
    for (std::size_t i = 0; i < text.size() && state != 5; ++i) dispatch(text[i]);
    if (state != 5) step(endOfFile, L'\0');
    parsed = state == 0;
  }

  bool parsed = false;
  int state = 0;
  int line = 1;
  std::wstring message;  // without the file and the line; empty if there is none
  Map map;               // of what was stored, before an error too
  Visits visits{};

private:
  enum Step : std::size_t {
    leftBracket,
    rightBracket,
    equalSign,
    other,
    endOfLine,
    endOfFile,
  };

  static constexpr wchar_t kLeft[] = L"Unexpected: '[' ";
  static constexpr wchar_t kRight[] = L"Unexpected: ']' ";
  static constexpr wchar_t kEqual[] = L"Unexpected: '=' ";
  static constexpr wchar_t kNewLine[] = L"Unexpected: new line ";

  // One row is one step, in the order above; the columns are the states.
  // clang-format off
  using Row = std::array<IniCell, kStates>;
  using A = IniAction;
  static constexpr std::array<Row, kSteps> kTable{
      // 0 between lines        1 in a section            2 in a key                3 in a value           4 in a comment
      Row{{{A::eraseSection, 1}, {A::error, 5, kLeft},     {A::error, 5, kLeft},     {A::appendToValue, 3}, {A::error, 5, kLeft}}},
      Row{{{A::error, 5, kRight}, {A::endSection, 0},      {A::error, 5, kRight},    {A::appendToValue, 3}, {A::error, 5, kRight}}},
      Row{{{A::error, 5, kEqual}, {A::error, 5, kEqual},   {A::endKey, 3},           {A::appendToValue, 3}, {A::error, 5, kEqual}}},
      Row{{{A::begin, 2},        {A::appendToSection, 1},  {A::appendToKey, 2},      {A::appendToValue, 3}, {A::nothing, 4}}},
      Row{{{A::nothing, 0},      {A::error, 5, kNewLine},  {A::error, 5, kNewLine},  {A::store, 0},         {A::nothing, 0}}},
      Row{{{A::nothing, 0},      {A::nothing, 1},          {A::nothing, 2},          {A::store, 0},         {A::nothing, 4}}},
  };

  // clang-format on

  void dispatch(wchar_t c) {
    if (c == L';') {
      if (state == 0) state = 4;
      step(other, c);
    } else if (c == L'\n' || c == L'\r') {
      step(endOfLine, c);
      if (state != 5) ++line;  // after an error, nobody asks any more
    } else if (c == L'[') {
      step(leftBracket, c);
    } else if (c == L']') {
      step(rightBracket, c);
    } else if (c == L'=') {
      step(equalSign, c);
    } else {
      step(other, c);
    }
  }

  void step(Step row, wchar_t c) {
    auto const column = static_cast<std::size_t>(state);
    ++visits.at(row).at(column);
    IniCell const cell = kTable.at(row).at(column);
    state = cell.next;
    act(cell, c);
  }

  void act(IniCell const& cell, wchar_t c) {
    switch (cell.action) {
      case IniAction::nothing:
        return;
      case IniAction::eraseSection:
        section_ = L"";
        return;
      case IniAction::endSection:
        if (section_.empty()) return fail(L"Unexpected: empty section ");
        section_ = trimmed(section_);
        return;
      case IniAction::endKey:
        value_ = L"";
        key_ = trimmed(key_);
        return;
      case IniAction::begin:
        if (isSpace(c)) {
          state = 0;
        } else {
          key_ = std::wstring(1, c);
        }
        return;
      case IniAction::appendToSection:
        section_ += c;
        return;
      case IniAction::appendToKey:
        key_ += c;
        return;
      case IniAction::appendToValue:
        value_ += c;
        return;
      case IniAction::store:
        store();
        return;
      case IniAction::error:
        return fail(cell.message);
    }
  }

  void fail(wchar_t const* what) {
    message = what;
    state = 5;
  }

  void store() {
    auto found = map.find(section_);
    if (found == map.end()) found = map.insert({section_, {}});
    found->second[key_] = trimmed(value_);
  }

  static bool isSpace(wchar_t c) { return std::iswspace(static_cast<std::wint_t>(c)) != 0; }

  static std::wstring trimmed(std::wstring const& text) {
    std::size_t first = 0;
    while (first < text.size() && isSpace(text[first])) ++first;
    std::size_t last = text.size();
    while (last > first && isSpace(text[last - 1])) --last;
    return text.substr(first, last - first);
  }

  std::wstring section_;
  std::wstring key_;
  std::wstring value_;
};

}  // namespace vrxutil::test
