// A change to a profile file of arbitrary bytes, against a plain editor of lines:
// the file is then exactly what that makes of it, so that all other lines stay, and
// what was written reads back. Every value and list of the file before and after,
// against a plain reader.
//
// An input is a line that says what is done, "k" to remove the key, "x" the section,
// anything else to set the value, then lines with section, key and value, then the
// file.

#include "fuzz/support.h"
#include "platform/common/utf8.h"

#include <zulral/zulral.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <wctype.h>

namespace {

using vrxutil::detail::lossyUtf8;
using vrxutil::detail::lossyWide;
using vrxutil::fuzz::require;

constexpr std::string_view kBlanks = " \t\v\f\r";
constexpr std::string_view kMark = "\xEF\xBB\xBF";

/// The path of a file in a folder of its own, for as long as the process runs.
class File {
public:
  File() : folder_(std::filesystem::temp_directory_path() / "vrxutil-fuzz-XXXXXX") {
    require(::mkdtemp(folder_.data()) != nullptr, "the folder is made");
  }

  ~File() {
    std::error_code ignored;  // nobody is left to hear of it
    std::filesystem::remove_all(folder_, ignored);
  }

  File(File const&) = delete;
  File& operator=(File const&) = delete;

  std::wstring name() const { return lossyWide(folder_ + "/file.ini"); }

  void store(std::string const& bytes) const {
    std::ofstream out(folder_ + "/file.ini", std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    require(out.good(), "the file is stored");
  }

  std::string bytes() const {
    std::ifstream in(folder_ + "/file.ini", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  bool isAlone() const {
    std::filesystem::directory_iterator const entries(folder_);
    return std::distance(begin(entries), end(entries)) == 1;
  }

private:
  std::string folder_;
};

std::string trim(std::string const& text) {
  std::size_t const begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

std::string upToNul(std::string const& text) { return text.substr(0, text.find('\0')); }

std::wstring fold(std::string const& name) {
  std::wstring text = lossyWide(name);
  for (wchar_t& c : text) c = static_cast<wchar_t>(::towupper(static_cast<wint_t>(c)));
  return text;
}

std::string readValue(std::string const& rest) {
  std::string const value = trim(upToNul(rest));
  bool const isQuoted = value.size() >= 2 && value.front() == value.back() &&
                        (value.front() == '"' || value.front() == '\'');
  return isQuoted ? value.substr(1, value.size() - 2) : value;
}

/// A line and what it says.
struct Line {
  std::string text;  // without its end
  std::string end;   // LF, CR LF or nothing
  std::optional<std::string> header{};
  std::optional<std::string> key{};
  std::string value{};
};

void parse(Line& line) {
  std::string const text = trim(line.text);
  if (text.empty() || text[0] == ';') return;
  std::size_t const bracket = text.find(']');
  if (text[0] == '[') {
    if (bracket != std::string::npos) line.header = trim(upToNul(text.substr(1, bracket - 1)));
    return;
  }
  std::size_t const equals = line.text.find('=');
  if (equals == std::string::npos) return;
  std::string const key = trim(upToNul(line.text.substr(0, equals)));
  if (key.empty()) return;
  line.key = key;
  line.value = readValue(line.text.substr(equals + 1));
}

/// A file as its mark and its lines.
struct Lines {
  std::string mark;
  std::vector<Line> lines;

  explicit Lines(std::string_view bytes) {
    if (bytes.starts_with(kMark)) {
      mark = kMark;
      bytes.remove_prefix(kMark.size());
    }
    while (!bytes.empty()) {
      std::size_t const length = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
      std::string text(bytes.substr(0, length));
      bytes.remove_prefix(length);
      std::string end;
      if (text.ends_with('\n')) end = text.ends_with("\r\n") ? "\r\n" : "\n";
      text.resize(text.size() - end.size());
      lines.push_back({text, end});
      parse(lines.back());
    }
  }

  std::string join() const {
    std::string bytes = mark;
    for (Line const& line : lines) bytes.append(line.text).append(line.end);
    return bytes;
  }
};

bool isHeaderOf(Line const& line, std::string const& section) {
  return line.header && fold(*line.header) == fold(section);
}

bool isPairOf(Line const& line, std::string const& key) {
  return line.key && fold(*line.key) == fold(key);
}

/// The lines from the first header of a section, that one included, to the next
/// header; empty where there is none.
struct Range {
  std::size_t begin, end;
};

Range rangeOf(std::vector<Line> const& lines, std::string const& section) {
  std::size_t begin = 0;
  while (begin < lines.size() && !isHeaderOf(lines[begin], section)) ++begin;
  std::size_t end = std::min(begin + 1, lines.size());
  while (end < lines.size() && !lines[end].header) ++end;
  return {begin, end};
}

/// What is to be done; blanks around the names are gone.
struct Change {
  std::string kind, section, key, value;

  bool isValid() const {
    bool const hasLineEnd = section.find('\r') != std::string::npos ||
                            key.find('\r') != std::string::npos ||
                            value.find('\r') != std::string::npos;
    if (section.find_first_of("\r]") != std::string::npos) return false;
    if (kind == "x") return true;
    if (key.empty() || key[0] == ';' || key[0] == '[') return false;
    if (key.find_first_of("=\r") != std::string::npos) return false;
    return kind == "k" || !hasLineEnd;
  }
};

void removeSection(Lines& file, std::string const& section) {
  while (true) {
    auto const [begin, end] = rangeOf(file.lines, section);
    if (begin == end) return;
    auto const first = file.lines.begin();
    file.lines.erase(first + static_cast<long>(begin), first + static_cast<long>(end));
  }
}

void removeKey(Lines& file, std::string const& section, std::string const& key) {
  Range const range = rangeOf(file.lines, section);
  for (std::size_t i = range.end; i > range.begin; --i) {
    if (!isPairOf(file.lines[i - 1], key)) continue;
    file.lines.erase(file.lines.begin() + static_cast<long>(i - 1));
  }
}

void setInPlace(Line& line, std::string const& value) {
  std::size_t begin = line.text.find('=') + 1;
  bool const hasBlank = !value.empty() && kBlanks.find(value.front()) != std::string_view::npos;
  if (!hasBlank) begin = std::min(line.text.find_first_not_of(kBlanks, begin), line.text.size());
  line.text.resize(begin);
  line.text += value;
}

void set(Lines& file, Change const& change) {
  Range const range = rangeOf(file.lines, change.section);
  for (std::size_t i = range.begin; i < range.end; ++i) {
    if (isPairOf(file.lines[i], change.key)) return setInPlace(file.lines[i], change.value);
  }
  std::string const end =
      file.lines.empty() || file.lines[0].end.empty() ? "\n" : file.lines[0].end;
  std::size_t position = range.end;
  std::vector<Line> added{{change.key + "=" + change.value, end}};
  if (range.begin == range.end) {
    position = file.lines.size();
    added.insert(added.begin(), {"[" + change.section + "]", end});
  } else {
    while (trim(file.lines[position - 1].text).empty()) --position;
  }
  if (position > 0 && file.lines[position - 1].end.empty()) file.lines[position - 1].end = end;
  file.lines.insert(file.lines.begin() + static_cast<long>(position), added.begin(), added.end());
}

std::string expected(std::string const& bytes, Change const& change) {
  Lines file(bytes);
  if (change.kind == "x") {
    removeSection(file, change.section);
  } else if (change.kind == "k") {
    removeKey(file, change.section, change.key);
  } else {
    set(file, change);
  }
  return file.join();
}

/// What a read of a value, or with null names of a list, gives.
std::wstring get(File const& file, wchar_t const* section, wchar_t const* key) {
  bool const isList = section == nullptr || key == nullptr;
  std::wstring buffer(file.bytes().size() + 4, L'#');  // no text is longer than the file
  unsigned long const length = ZuDB_GetPrivateProfileStringW(section, key, L"\n", buffer.data(),
                                                             buffer.size(), file.name().c_str());
  std::size_t const terminators = isList && length == 0 ? 2 : 1;
  require(buffer.find_first_not_of(L'\0', length) == length + terminators, "the text ends there");
  buffer.resize(length);
  return buffer;
}

/// Whether the profile functions read the file as the plain reader does.
void checkReading(File const& file, std::string const& bytes) {
  std::vector<Line> const lines = Lines(bytes).lines;
  std::wstring names;
  for (Line const& line : lines) {
    if (line.header) names.append(lossyWide(*line.header)) += L'\0';
  }
  require(get(file, nullptr, nullptr) == names, "the names of the sections");
  int checks = 20;  // a value costs a walk through the file
  for (Line const& header : lines) {
    if (!header.header || --checks < 0) continue;
    std::wstring const section = lossyWide(*header.header);
    Range const range = rangeOf(lines, *header.header);
    std::wstring keys;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      if (!lines[i].key) continue;
      keys.append(lossyWide(*lines[i].key)) += L'\0';
      std::size_t first = range.begin;
      while (!isPairOf(lines[first], *lines[i].key)) ++first;
      if (--checks < 0) continue;
      require(get(file, section.c_str(), lossyWide(*lines[i].key).c_str()) ==
                  lossyWide(lines[first].value),
              "the value of a key");
    }
    require(get(file, section.c_str(), nullptr) == keys, "the names of the keys");
  }
}

/// Takes a line, without its LF.
std::string takeLine(std::string_view& input) {
  std::string_view const line = input.substr(0, input.find('\n'));
  input.remove_prefix(std::min(line.size() + 1, input.size()));
  return std::string(line);
}

/// Takes the text that an argument is made of, as it is in UTF-8.
std::string takeText(std::string_view& input) {
  return lossyUtf8(lossyWide(upToNul(takeLine(input))));
}

void checkChange(File const& file, std::string const& bytes, Change const& given) {
  Change change = given;
  change.section = trim(given.section);
  change.key = trim(given.key);
  bool const isSet = change.kind != "x" && change.kind != "k";
  std::wstring const section = lossyWide(given.section);
  std::wstring const key = lossyWide(given.key);
  std::wstring const value = lossyWide(given.value);
  errno = 0;
  bool const isWritten =
      ZuDB_WritePrivateProfileStringW(section.c_str(), change.kind == "x" ? nullptr : key.c_str(),
                                      isSet ? value.c_str() : nullptr, file.name().c_str()) != 0;
  require(isWritten == change.isValid(), "what a file can hold is written");
  require(isWritten || errno == EINVAL, "what it cannot hold is an error");
  require(file.isAlone(), "no file is left beside it");
  std::string const after = isWritten ? expected(bytes, change) : bytes;
  require(file.bytes() == after, "that line is changed and no other");
  checkReading(file, after);
  if (!isWritten || change.kind == "x") return;
  require(get(file, section.c_str(), key.c_str()) ==
              (isSet ? lossyWide(readValue(change.value)) : L"\n"),
          "what was written reads back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static char const* const locale = std::setlocale(LC_ALL, "C.UTF-8");
  require(locale != nullptr, "the host has UTF-8");
  static File const file;
  std::string const all(data, data + size);
  std::string_view input = all;
  Change change;
  for (std::string* const text : {&change.kind, &change.section, &change.key, &change.value}) {
    *text = takeText(input);
  }
  std::string const bytes(input);
  file.store(bytes);
  checkReading(file, bytes);
  checkChange(file, bytes, change);
  return 0;
}
