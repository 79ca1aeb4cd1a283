// A file of any bytes: read as the table of states says, changed, written as the
// maps say, and read again.
//
// An input is a file. Its text is also the changes: cut at each "|", three pieces
// are a section, a key and a value.

#include "fuzz/support.h"
#include "tests/ini/ini_table.h"

#include <vrxutil/ini.h>
#include <vrxutil/xml.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace {

using vrxutil::fuzz::QuietLogger;
using vrxutil::fuzz::require;
using vrxutil::test::IniTable;

using Map = AnIni2::SectionMap;

/// A lone surrogate, which no input has.
constexpr wchar_t kNoKey[] = L"\xD800";

QuietLogger& logger() {
  static QuietLogger quiet;
  return quiet;
}

/// A file with two names, which is written in place: to replace and flush one for
/// each input would take most of the time.
class IniFile {
public:
  IniFile() : folder_(std::filesystem::temp_directory_path() / "vrxutil-fuzz-XXXXXX") {
    require(::mkdtemp(folder_.data()) != nullptr, "a folder is made");
    write("");
    std::filesystem::create_hard_link(path(), folder_ + "/second");
  }

  ~IniFile() {
    std::error_code ignored;  // nobody is left to hear of it
    std::filesystem::remove_all(folder_, ignored);
  }

  IniFile(IniFile const&) = delete;
  IniFile& operator=(IniFile const&) = delete;

  std::string path() const { return folder_ + "/file.ini"; }

  AString name() const { return {path().c_str()}; }

  void write(std::string const& bytes) const {
    std::ofstream file(path(), std::ios::binary);
    file << bytes << std::flush;
    require(file.good(), "the file is written");
  }

  std::string read() const {
    std::ifstream file(path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

private:
  std::string folder_;
};

/// What the store is to hold.
std::optional<Map> expectedMap(std::string const& bytes, AString& text) {
  if (!AnXml::convertUtf8ToUnicode(bytes.c_str(), text)) return std::nullopt;
  IniTable const table(text.const_cpp_str());
  return table.parsed ? std::optional(table.map) : std::nullopt;
}

std::vector<std::wstring> piecesOf(std::wstring const& text) {
  std::vector<std::wstring> pieces{L""};
  for (wchar_t const c : text) {
    if (c == L'|') {
      pieces.emplace_back();
    } else {
      pieces.back() += c;
    }
  }
  return pieces;
}

/// The same change to both; returns whether there was one.
bool change(AnIni2& ini, Map& map, std::wstring const& section, std::wstring const& key,
            std::wstring const& value) {
  bool const isAccepted = !key.empty() || (value.empty() && !section.empty());
  require(ini.insert(section, key, value) == isAccepted, "what is accepted");
  if (!isAccepted) return false;
  auto found = map.find(section);
  if (found == map.end()) found = map.insert({section, {}});
  auto const pair = found->second.find(key);
  if (pair != found->second.end() && pair->second == value) return false;
  found->second[key] = value;
  return true;
}

void requireSame(AnIni2& ini, Map const& map) {
  Map held;
  require(ini.getIniMap(held) && held == map, "the store is as expected");
  AString value;
  for (auto const& [section, pairs] : map) {
    for (auto const& [key, text] : pairs) {
      require(ini.tryGet(AString(section), AString(key), value), "every key is found");
      require(value.const_cpp_str() == text, "with its value");
    }
    require(!ini.tryGet(AString(section), AString(kNoKey), value), "and no other");
  }
}

std::wstring textOf(Map const& map) {
  std::wstring text;
  for (auto const& [section, pairs] : map) {
    text += L"[" + section + L"]\n";
    for (auto const& [key, value] : pairs) {
      text.append(key).append(L"=").append(value).append(L"\n");
    }
    text += L"\n";
  }
  return text;
}

/// Whether a file is read as the table says.
void checkReading(IniFile const& file, std::string const& bytes) {
  AString text;
  std::optional<Map> const map = expectedMap(bytes, text);
  AnIni2 ini(file.name());
  require(ini.parsed() == map.has_value(), "parsed as the table says");
  if (map) requireSame(ini, *map);
}

void checkWriting(IniFile const& file, std::string const& bytes) {
  AString text;
  std::optional<Map> map = expectedMap(bytes, text);
  if (!map) return;
  bool isChanged = false;
  {
    AnIni2 ini(file.name());
    std::vector<std::wstring> const pieces = piecesOf(text.const_cpp_str());
    for (std::size_t i = 0; i + 2 < pieces.size(); i += 3) {
      // Half of the inputs have an index from the first change on.
      if (pieces.size() % 2 == 0) requireSame(ini, *map);
      if (change(ini, *map, pieces[i], pieces[i + 1], pieces[i + 2])) isChanged = true;
    }
    requireSame(ini, *map);
  }
  std::string const written = file.read();
  if (!isChanged) return require(written == bytes, "nothing is written without a change");
  AString writtenText;
  require(AnXml::convertUtf8ToUnicode(written.c_str(), writtenText), "what is written is UTF-8");
  require(writtenText.const_cpp_str() == textOf(*map), "what is written");
  checkReading(file, written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static bool const hasLocale =
      ::setenv("LC_ALL", "C.UTF-8", /*overwrite=*/1) == 0 && std::setlocale(LC_ALL, "") != nullptr;
  require(hasLocale, "there is a locale C.UTF-8");
  logger();

  static IniFile const file;
  std::string const bytes(data, data + size);
  file.write(bytes);
  checkReading(file, bytes);
  checkWriting(file, bytes);
  return 0;
}
