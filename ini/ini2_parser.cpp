// The reader of AnIni2: a file's contents, and the grammar as a table of states.

#include "ini/parsed_pairs.h"
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
using vrxutil::detail::ParsedPairs;

constexpr wchar_t kGroup[] = L"ini";

/// Enough for nearly all files, and for the NUL in what is no text at all.
constexpr std::size_t kFirstBlock = 65536;

/// The byte-order mark, which AnXml::convertUtf8ToUnicode() drops.
constexpr std::string_view kMark = "\xEF\xBB\xBF";

/// Reads what is left of `file`, up to the block with its first NUL, where the
/// text ends: so does a device that gives zeros for ever. `expected` bytes are
/// likely to come. False with errno set and the bytes before the failure.
bool readToNul(Descriptor const& file, std::size_t expected, ParsedPairs::Text& bytes) {
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
bool isUtf8(ParsedPairs::Text const& text) {
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
  std::array<bool, 256> special{};
  for (char const c : std::string_view("\n\r[]=")) special[static_cast<unsigned char>(c)] = true;
  return special;
}();

bool isSpecial(char c) { return kSpecial[static_cast<unsigned char>(c)]; }

/// Whether a byte is none of the first of its character.
bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

/// Where a line begins, the character that `utf8` begins with. Elsewhere as many
/// as meet the same cell of the table: they are taken at once.
std::string_view nextCharacters(std::string_view utf8, State state) {
  std::size_t size = 1;
  if (state == State::betweenLines) {
    while (size < utf8.size() && isContinuation(utf8[size])) ++size;
  } else if (!isSpecial(utf8.front())) {
    while (size < utf8.size() && !isSpecial(utf8[size])) ++size;
  }
  return utf8.substr(0, size);
}

/// Adds `next` to a part of the text: it is the part's beginning, or follows it.
void extend(std::string_view& part, std::string_view next) {
  part = part.empty() ? next : std::string_view(part.data(), part.size() + next.size());
}

/// iswspace of the character at the front. No locale counts the visible characters
/// of ASCII as white space (POSIX XBD 7.3.1: class space has none of class graph).
bool startsWithWhiteSpace(std::string_view utf8) {
  bool const isVisibleAscii = utf8.front() > ' ' && utf8.front() < 0x7F;
  if (isVisibleAscii) return false;
  std::array<wchar_t, vrxutil::detail::kMaxUtf8Size> c;
  vrxutil::detail::decodeUtf8(utf8.substr(0, c.size()), c.data());
  return std::iswspace(static_cast<std::wint_t>(c.front())) != 0;
}

}  // namespace

// Whatever happens, a part of a file is not left to be written over the whole.
void AnIni2::initialize() {
  parsed_ = 0;
  try {
    parsed_ = parse() ? 1 : 0;
  } catch (...) {  // of a record that could not be made
    pairs_.reset();
    clear();
    dirty_ = 0;
    throw;
  }
  pairs_.reset();
  dirty_ = 0;
  if (parsed()) return;
  clear();
  logInternalError(kGroup, L"Ini file not parsed in AnIni2");
}

bool AnIni2::parse() {
  try {
    pairs_ = std::make_unique<ParsedPairs>();
    if (!readFile()) return false;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): documented in the header
    std::setlocale(LC_ALL, "");
    return parseText(pairs_->text());
  } catch (std::exception const& exception) {
    logInternalError(kGroup, AString(L"Exception ")
                                 << exception.what() << L" trying to parse " << fileName);
    return false;
  }
}

// What cannot be opened, or not read at all, is an empty text. What can be read in
// part only would be cut by the next write, and is not parsed.
bool AnIni2::readFile() {
  std::string const path = ACharString(fileName).operator char const*();
  Descriptor const file = vrxutil::detail::openWithoutWaiting(path, O_RDONLY);

  struct stat status {};

  if (!file || ::fstat(file.get(), &status) != 0) return true;

  bool const isRegular = S_ISREG(status.st_mode);
  auto const size = isRegular ? static_cast<std::size_t>(status.st_size) : 0;
  ParsedPairs::Text& utf8 = pairs_->text();
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
  std::string_view section;
  std::string_view key;
  std::string_view value;
  int line = 1;

  if (utf8.starts_with(kMark)) utf8.remove_prefix(kMark.size());
  while (!utf8.empty() && state != State::error) {
    std::string_view const c = nextCharacters(utf8, state);
    utf8.remove_prefix(c.size());
    switch (c.front()) {
      case '\n':
      case '\r':
        processEOL(state, section, key, value, line);
        if (line < INT_MAX) ++line;
        break;
      case '[':
        processLeftBracket(state, section, value, c, line);
        break;
      case ']':
        processRightBracket(state, section, value, c, line);
        break;
      case '=':
        processEqualSign(state, key, value, c, line);
        break;
      case ';':
        if (state == State::betweenLines) state = State::inComment;
        [[fallthrough]];
      default:
        processDefault(state, section, key, value, c);
    }
  }
  processEOF(state, section, key, value);
  if (state != State::betweenLines) return false;
  pairs_->moveTo(sections_);
  return true;
}

// The grammar. One function is one row: what a character means in each state, and
// the state after it.
// clang-format off
// NOLINTBEGIN(bugprone-branch-clone): each cell stands for itself

void AnIni2::processLeftBracket(State& state, std::string_view& section, std::string_view& value,
                                std::string_view c, int line) {
  wchar_t const* const unexpected = L"Unexpected: '[' ";
  switch (state) {
    case State::betweenLines: section = {};                  state = State::inSection;    break;
    case State::inSection:    fail(unexpected, line);        state = State::error;        break;
    case State::inKey:        fail(unexpected, line);        state = State::error;        break;
    case State::inValue:      extend(value, c);              state = State::inValue;      break;
    case State::inComment:    fail(unexpected, line);        state = State::error;        break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processRightBracket(State& state, std::string_view& section, std::string_view& value,
                                 std::string_view c, int line) {
  wchar_t const* const unexpected = L"Unexpected: ']' ";
  wchar_t const* const empty = L"Unexpected: empty section ";
  switch (state) {
    case State::betweenLines: fail(unexpected, line);        state = State::error;        break;
    case State::inSection:
      if (section.empty())  { fail(empty, line);             state = State::error; }
      else                  { trim(section);                 state = State::betweenLines; }
                                                                                          break;
    case State::inKey:        fail(unexpected, line);        state = State::error;        break;
    case State::inValue:      extend(value, c);              state = State::inValue;      break;
    case State::inComment:    fail(unexpected, line);        state = State::error;        break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processEqualSign(State& state, std::string_view& key, std::string_view& value,
                              std::string_view c, int line) {
  wchar_t const* const unexpected = L"Unexpected: '=' ";
  switch (state) {
    case State::betweenLines: fail(unexpected, line);        state = State::error;        break;
    case State::inSection:    fail(unexpected, line);        state = State::error;        break;
    case State::inKey:        value = {};    trim(key);      state = State::inValue;      break;
    case State::inValue:      extend(value, c);              state = State::inValue;      break;
    case State::inComment:    fail(unexpected, line);        state = State::error;        break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processDefault(State& state, std::string_view& section, std::string_view& key,
                            std::string_view& value, std::string_view c) {
  switch (state) {
    case State::betweenLines:
      if (startsWithWhiteSpace(c)) {                         state = State::betweenLines; }
      else                  { key = c;                       state = State::inKey; }
                                                                                          break;
    case State::inSection:    extend(section, c);            state = State::inSection;    break;
    case State::inKey:        extend(key, c);                state = State::inKey;        break;
    case State::inValue:      extend(value, c);              state = State::inValue;      break;
    case State::inComment:                                   state = State::inComment;    break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processEOL(State& state, std::string_view& section, std::string_view& key,
                        std::string_view& value, int line) {
  wchar_t const* const unexpected = L"Unexpected: new line ";
  switch (state) {
    case State::betweenLines:                                state = State::betweenLines; break;
    case State::inSection:    fail(unexpected, line);        state = State::error;        break;
    case State::inKey:        fail(unexpected, line);        state = State::error;        break;
    case State::inValue:      trim(value);
                              pairs_->add(section, key, value);
                                                             state = State::betweenLines; break;
    case State::inComment:                                   state = State::betweenLines; break;
    case State::error:                                                                    break;
  }
}

void AnIni2::processEOF(State& state, std::string_view& section, std::string_view& key,
                        std::string_view& value) {
  switch (state) {
    case State::betweenLines:                                state = State::betweenLines; break;
    case State::inSection:                                   state = State::inSection;    break;
    case State::inKey:                                       state = State::inKey;        break;
    case State::inValue:      trim(value);
                              pairs_->add(section, key, value);
                                                             state = State::betweenLines; break;
    case State::inComment:                                   state = State::inComment;    break;
    case State::error:                                                                    break;
  }
}

// NOLINTEND(bugprone-branch-clone)
// clang-format on

void AnIni2::removeLeadingWhiteSpace(std::string_view& text) {
  while (!text.empty() && startsWithWhiteSpace(text)) {
    text.remove_prefix(nextCharacters(text, State::betweenLines).size());
  }
}

void AnIni2::removeTrailingWhiteSpace(std::string_view& text) {
  while (!text.empty()) {
    std::size_t last = text.size() - 1;
    while (last > 0 && isContinuation(text[last])) --last;
    if (!startsWithWhiteSpace(text.substr(last))) return;
    text = text.substr(0, last);
  }
}

void AnIni2::trim(std::string_view& text) {
  removeLeadingWhiteSpace(text);
  removeTrailingWhiteSpace(text);
}

void AnIni2::fail(wchar_t const* what, int line) {
  logInternalError(kGroup, AString(what) << fileName << L" line " << line);
}
