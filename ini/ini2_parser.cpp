// The reader of AnIni2: a file's contents, and the grammar as a table of states.

#include "ini/unsorted_pairs.h"
#include "linux/call_text.h"
#include "platform/common/file_io.h"
#include "platform/common/utf8.h"

#include <vrxutil/ini.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cwctype>
#include <exception>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using vornix_com::file::ini::State;
using vrxutil::detail::Descriptor;

constexpr wchar_t kGroup[] = L"ini";

/// Enough for nearly all files, and for the NUL in what is no text at all.
constexpr std::size_t kFirstBlock = 65536;

/// Bytes that are widened at a time; a large file as wide text would take four
/// times its size.
constexpr std::size_t kPiece = 16384;

/// The byte-order mark, which AnXml::convertUtf8ToUnicode() drops.
constexpr std::string_view kMark = "\xEF\xBB\xBF";

/// Reads what is left of `file`, up to the block with its first NUL, where the
/// text ends: so does a device that gives zeros for ever. `expected` bytes are
/// likely to come. False with errno set and the bytes before the failure.
bool readToNul(Descriptor const& file, std::size_t expected, std::string& bytes) {
  bytes.resize(kFirstBlock);
  std::size_t count = 0;
  while (true) {
    char* const block = bytes.data() + count;
    ssize_t const size = ::read(file.get(), block, bytes.size() - count);
    if (size < 0 && errno == EINTR) continue;
    auto const added = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    bool const isEnd = added == 0 || std::char_traits<char>::find(block, added, '\0') != nullptr;
    count += added;
    if (isEnd) {
      bytes.resize(count);  // keeps errno: nothing is allocated
      return size >= 0;
    }
    // One byte more than expected: the end shows without growing once more.
    if (count == bytes.size()) bytes.resize(std::max(2 * count, expected + 1));
  }
}

/// What AnXml::convertUtf8ToUnicode() returns and logs, without the wide text.
bool isUtf8(std::string const& text) {
  if (vrxutil::detail::validUtf8Size(text) != text.size()) {
    AString nothing;
    return AnXml::convertUtf8ToUnicode(text.c_str(), nothing);
  }
  AString const size(static_cast<unsigned long>(text.size()));
  ADetailTrace const scope(L"Xml", vrxutil::detail::callText(L"ConvertBufferToUnicode", size));
  return true;
}

/// Characters that end a run in a section's name, a key, a value or a comment.
constexpr auto kSpecial = [] {
  std::array<bool, 128> special{};
  for (char const c : std::string_view("\n\r[]=")) special[static_cast<unsigned char>(c)] = true;
  return special;
}();

/// Number of characters at the start of `text` that processDefault() takes in
/// states other than betweenLines.
std::size_t ordinaryPrefix(std::wstring_view text) {
  auto const isSpecial = [](wchar_t c) {
    auto const u = static_cast<char32_t>(c);
    return u < kSpecial.size() && kSpecial[u];
  };
  return static_cast<std::size_t>(std::find_if(text.begin(), text.end(), isSpecial) - text.begin());
}

/// iswspace. No locale counts the visible characters of ASCII as white space
/// (POSIX XBD 7.3.1: class space has none of class graph).
bool isWhiteSpace(wchar_t c) {
  bool const isVisibleAscii = c > L' ' && c < 0x7F;
  return !isVisibleAscii && std::iswspace(static_cast<std::wint_t>(c)) != 0;
}

}  // namespace

// Whatever happens, a part of a file is not left to be written over the whole.
void AnIni2::initialize() {
  parsed_ = 0;
  try {
    parsed_ = parse() ? 1 : 0;
  } catch (...) {  // of a record that could not be made
    unsorted_.reset();
    clear();
    dirty_ = 0;
    throw;
  }
  unsorted_.reset();
  dirty_ = 0;
  if (parsed()) return;
  clear();
  logInternalError(kGroup, L"Ini file not parsed in AnIni2");
}

bool AnIni2::parse() {
  try {
    std::string utf8;
    if (!readFile(utf8)) return false;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): documented in the header
    std::setlocale(LC_ALL, "");
    return parseText(utf8);
  } catch (std::exception const& exception) {
    logInternalError(kGroup, AString(L"Exception ")
                                 << exception.what() << L" trying to parse " << fileName);
    return false;
  }
}

// What cannot be opened, or not read at all, is an empty text. What can be read in
// part only would be cut by the next write, and is not parsed.
bool AnIni2::readFile(std::string& utf8) {
  std::string const path = ACharString(fileName).operator char const*();
  Descriptor const file = vrxutil::detail::openWithoutWaiting(path, O_RDONLY);

  struct stat status {};

  if (!file || ::fstat(file.get(), &status) != 0) return true;

  bool const isRegular = S_ISREG(status.st_mode);
  auto const size = isRegular ? static_cast<std::size_t>(status.st_size) : 0;
  bool const isComplete = readToNul(file, size, utf8);
  if (!isComplete && isRegular && !utf8.empty()) {
    logReadError(errno);
    return false;
  }
  if (utf8.empty()) return true;
  utf8.resize(std::min(utf8.size(), utf8.find('\0')));
  return isUtf8(utf8);
}

void AnIni2::logReadError(int number) {
  ATrace const scope(kGroup, vrxutil::detail::callText(L"read", fileName), /*detail=*/true,
                     /*logNow=*/false);
  errno = number;
  logErrno(kGroup);
}

bool AnIni2::parseText(std::string_view utf8) {
  State state = State::betweenLines;
  std::wstring section;
  std::wstring key;
  std::wstring value;
  int line = 1;

  if (utf8.starts_with(kMark)) utf8.remove_prefix(kMark.size());
  std::wstring piece(kPiece, L'\0');
  while (!utf8.empty() && state != State::error) {
    // A character that the end of the piece cuts is the start of the next piece.
    auto const [read, written] = vrxutil::detail::decodeUtf8(utf8.substr(0, kPiece), piece.data());
    parsePiece(std::wstring_view(piece.data(), written), state, section, key, value, line);
    utf8.remove_prefix(read);
  }
  processEOF(state, section, key, value);
  storeUnsorted();
  return state == State::betweenLines;
}

void AnIni2::parsePiece(std::wstring_view text, State& state, std::wstring& section,
                        std::wstring& key, std::wstring& value, int& line) {
  while (!text.empty() && state != State::error) {
    wchar_t const c = text.front();
    text.remove_prefix(1);
    switch (c) {
      case L'\n':
      case L'\r':
        processEOL(state, section, key, value, line);
        if (line < INT_MAX) ++line;
        break;
      case L'[':
        processLeftBracket(state, section, value, c, line);
        break;
      case L']':
        processRightBracket(state, section, value, c, line);
        break;
      case L'=':
        processEqualSign(state, key, value, c, line);
        break;
      case L';':
        if (state == State::betweenLines) state = State::inComment;
        [[fallthrough]];
      default:
        processDefault(state, section, key, value, c);
        text.remove_prefix(processRun(state, section, key, value, text));
    }
  }
}

// The characters after one that processDefault() has taken, up to the next that
// it does not take, meet the same cell of the table: they are taken at once.
unsigned long AnIni2::processRun(State state, std::wstring& section, std::wstring& key,
                                 std::wstring& value, std::wstring_view text) {
  if (state == State::betweenLines) return 0;
  std::wstring_view const run = text.substr(0, ordinaryPrefix(text));
  if (state == State::inSection) section += run;
  if (state == State::inKey) key += run;
  if (state == State::inValue) value += run;
  return run.size();
}

// The grammar. One function is one row: what a character means in each state, and
// the state after it.
// clang-format off

void AnIni2::processLeftBracket(State& state, std::wstring& section, std::wstring& value,
                                wchar_t c, int line) {
  wchar_t const* const unexpected = L"Unexpected: '[' ";
  switch (state) {
    case State::betweenLines: section.clear();               state = State::inSection;    break;
    case State::inSection:    fail(unexpected, line);        state = State::error;        break;
    case State::inKey:        fail(unexpected, line);        state = State::error;        break;
    case State::inValue:      value += c;                    state = State::inValue;      break;
    case State::inComment:    fail(unexpected, line);        state = State::error;        break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processRightBracket(State& state, std::wstring& section, std::wstring& value,
                                 wchar_t c, int line) {
  wchar_t const* const unexpected = L"Unexpected: ']' ";
  wchar_t const* const empty = L"Unexpected: empty section ";
  switch (state) {
    case State::betweenLines: fail(unexpected, line);        state = State::error;        break;
    case State::inSection:
      if (section.empty())  { fail(empty, line);             state = State::error; }
      else                  { trim(section);                 state = State::betweenLines; }
                                                                                          break;
    case State::inKey:        fail(unexpected, line);        state = State::error;        break;
    case State::inValue:      value += c;                    state = State::inValue;      break;
    case State::inComment:    fail(unexpected, line);        state = State::error;        break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processEqualSign(State& state, std::wstring& key, std::wstring& value,
                              wchar_t c, int line) {
  wchar_t const* const unexpected = L"Unexpected: '=' ";
  switch (state) {
    case State::betweenLines: fail(unexpected, line);        state = State::error;        break;
    case State::inSection:    fail(unexpected, line);        state = State::error;        break;
    case State::inKey:        value.clear(); trim(key);      state = State::inValue;      break;
    case State::inValue:      value += c;                    state = State::inValue;      break;
    case State::inComment:    fail(unexpected, line);        state = State::error;        break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processDefault(State& state, std::wstring& section, std::wstring& key,
                            std::wstring& value, wchar_t c) {
  switch (state) {
    case State::betweenLines:
      if (isWhiteSpace(c))  {                                state = State::betweenLines; }
      else                  { key.assign(1, c);              state = State::inKey; }
                                                                                          break;
    case State::inSection:    section += c;                  state = State::inSection;    break;
    case State::inKey:        key += c;                      state = State::inKey;        break;
    case State::inValue:      value += c;                    state = State::inValue;      break;
    case State::inComment:                                   state = State::inComment;    break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processEOL(State& state, std::wstring& section, std::wstring& key,
                        std::wstring& value, int line) {
  wchar_t const* const unexpected = L"Unexpected: new line ";
  switch (state) {
    case State::betweenLines:                                state = State::betweenLines; break;
    case State::inSection:    fail(unexpected, line);        state = State::error;        break;
    case State::inKey:        fail(unexpected, line);        state = State::error;        break;
    case State::inValue:      trim(value);
                              storeParsed(section, key, value);
                                                             state = State::betweenLines; break;
    case State::inComment:                                   state = State::betweenLines; break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processEOF(State& state, std::wstring& section, std::wstring& key,
                        std::wstring& value) {
  switch (state) {
    case State::betweenLines:                                state = State::betweenLines; break;
    case State::inSection:                                   state = State::inSection;    break;
    case State::inKey:                                       state = State::inKey;        break;
    case State::inValue:      trim(value);
                              storeParsed(section, key, value);
                                                             state = State::betweenLines; break;
    case State::inComment:                                   state = State::inComment;    break;
    case State::error:                                                                    break;
  }
}

// clang-format on

void AnIni2::removeLeadingWhiteSpace(std::wstring& text) {
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isWhiteSpace));
}

void AnIni2::removeTrailingWhiteSpace(std::wstring& text) {
  while (!text.empty() && isWhiteSpace(text.back())) text.pop_back();
}

void AnIni2::trim(std::wstring& text) {
  removeLeadingWhiteSpace(text);
  removeTrailingWhiteSpace(text);
}

// Pairs that do not come in ascending order wait until the section's other pairs
// are known. What the map has by then is older: its last key only ever rises.
void AnIni2::storeParsed(std::wstring const& section, std::wstring const& key,
                         std::wstring const& value) {
  bool const isSameSection = recent_ != sections_.end() && recent_->first == section;
  if (!isSameSection) storeUnsorted();
  if (!findSection(section) || recent_->second.rbegin()->first < key) {
    return store(section, key, value);
  }
  if (!unsorted_) unsorted_ = std::make_unique<vrxutil::detail::UnsortedPairs>();
  unsorted_->add(key, value);
}

void AnIni2::storeUnsorted() {
  if (unsorted_) unsorted_->moveTo(recent_->second);
}

void AnIni2::fail(wchar_t const* what, int line) {
  logInternalError(kGroup, AString(what) << fileName << L" line " << line);
}
