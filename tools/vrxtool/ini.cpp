// vrxtool ini: INI files. Whole files are read by AnIni2, single values by the profile
// functions, which leave everything else as it is.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/json.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/file.h>
#include <vrxutil/ini.h>
#include <zulral/zulral.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cwctype>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace vrxtool {

namespace {

struct Arguments {
  std::string file;
  std::string section;
  std::string key;
  std::string value;
  bool json = false;
  bool force = false;
};

// ---- whole files

/// Where a file breaks the syntax, as an editor counts lines, and why.
struct Problem {
  std::size_t line;
  std::string reason;
};

bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

/// The line after so many line ends as AnIni2 counts them: CR and LF are one each to it,
/// and CR LF is two.
std::size_t lineAfter(std::string_view bytes, std::size_t lineEnds) {
  std::size_t line = 1;
  for (std::size_t i = 0; i < bytes.size() && lineEnds > 0; ++i) {
    if (!isLineEnd(bytes[i])) continue;
    --lineEnds;
    bool const isPartOfPair = bytes[i] == '\n' && i > 0 && bytes[i - 1] == '\r';
    line += isPartOfPair ? 0 : 1;
  }
  return line;
}

/// The number behind the last `mark` in a text; 0 where there is none.
std::size_t numberAfter(std::string_view text, std::string_view mark) {
  std::size_t const place = text.rfind(mark);
  std::size_t number = 0;
  if (place == std::string_view::npos) return number;
  std::from_chars(text.data() + place + mark.size(), text.data() + text.size(), number);
  return number;
}

bool isParsed(std::string const& bytes) {
  return AnIni2(MemoryFile(bytes).path().c_str()).parsed();
}

/// Why a text is not parsed that breaks no rule before its end: what could follow tells.
std::string unfinishedPart(std::string const& bytes) {
  if (isParsed(bytes + "\n")) return "the comment has no line end";
  return isParsed(bytes + "x]") ? "the section's name has no ]" : "the key has no =";
}

/// The reason from the records of the parser, which knew the file by the name `path`.
Problem problemOf(Tool& tool, std::string bytes, std::string const& path) {
  bytes.resize(std::min(bytes.find('\0'), bytes.size()));  // the text ends there
  for (std::string const& error : tool.records.errors()) {
    if (std::size_t const name = error.find(" " + path + " line "); name != std::string::npos) {
      return {lineAfter(bytes, numberAfter(error, " line ") - 1), error.substr(0, name)};
    }
    if (std::size_t const place = error.find(", line "); place != std::string::npos) {
      return {numberAfter(error, ", line "), error.substr(0, place)};
    }
  }
  return {lineAfter(bytes, bytes.size()), unfinishedPart(bytes)};
}

/// A file's bytes and, unless there is a problem, what they say.
struct Contents {
  std::string bytes;
  AnIni2::SectionMap sections;
  std::optional<Problem> problem;
};

Contents read(Tool& tool, std::string const& file) {
  Contents contents{.bytes = Input(file).readAll(), .sections{}, .problem{}};
  MemoryFile const copy(contents.bytes);
  tool.records.clear();
  AnIni2 ini(copy.path().c_str());
  if (ini.parsed()) {
    ini.getIniMap(contents.sections);
  } else {
    contents.problem = problemOf(tool, contents.bytes, copy.path());
  }
  return contents;
}

std::string describe(std::string const& file, Problem const& problem) {
  return titleOf(file) + ":" + std::to_string(problem.line) + ": " + problem.reason;
}

Contents readParsed(Tool& tool, std::string const& file) {
  Contents contents = read(tool, file);
  if (contents.problem) throw Failure(describe(file, *contents.problem));
  return contents;
}

int check(Tool& tool, Arguments const& arguments) {
  Contents const contents = read(tool, arguments.file);
  return contents.problem ? sayNo(describe(arguments.file, *contents.problem)) : yes;
}

void listAsJson(Tool& tool, AnIni2::SectionMap const& sections) {
  Json list = Json::object();
  for (auto const& [name, pairs] : sections) {
    Json& section = list[utf8(name)] = Json::object();
    for (auto const& [key, value] : pairs) section[utf8(key)] = utf8(value);
  }
  writeJson(tool.output, list);
}

/// For people: nothing in a file commands their terminal.
std::string shown(std::wstring const& text) { return printable(utf8(text), Backslash::asItIs); }

int list(Tool& tool, Arguments const& arguments) {
  Contents const contents = readParsed(tool, arguments.file);
  if (arguments.json) {
    listAsJson(tool, contents.sections);
    return yes;
  }
  for (auto const& [name, pairs] : contents.sections) {
    tool.output.line(std::string("[").append(shown(name)).append("]"));
    for (auto const& [key, value] : pairs) tool.output.line(shown(key) + "=" + shown(value));
  }
  return yes;
}

// ---- single values

/// A value of the profile file at `path`, however long; nothing where there is none.
std::optional<std::wstring> profileValue(std::string const& path, std::wstring const& section,
                                         std::wstring const& key) {
  std::wstring const name = wide(path, "the name");
  auto const read = [&](wchar_t const* otherwise) {
    std::wstring value(1024, L'\0');
    while (true) {
      unsigned long const count = ZuDB_GetPrivateProfileStringW(
          section.c_str(), key.c_str(), otherwise, value.data(), value.size(), name.c_str());
      bool const isWhole = count + 1 < value.size();
      value.resize(isWhole ? count : 2 * value.size());
      if (isWhole) return value;
    }
  };
  std::wstring value = read(L"0");
  // Only what is missing reads as whatever it is to read as.
  if (value == L"0" && read(L"1") == L"1") return std::nullopt;
  return value;
}

int get(Tool& tool, Arguments const& arguments) {
  std::wstring const section = wide(arguments.section, "SECTION");
  std::wstring const key = wide(arguments.key, "KEY");
  MemoryFile const copy(Input(arguments.file).readAll());
  std::optional<std::wstring> const value = profileValue(copy.path(), section, key);
  if (!value) {
    return sayNo(titleOf(arguments.file) + ": no key " + arguments.key + " in section " +
                 arguments.section);
  }
  tool.output.line(utf8(*value));
  return yes;
}

Failure cannotChange(std::string const& file, int errorNumber) {
  if (errorNumber != EINVAL) return cannot("change", titleOf(file), errorNumber);
  std::string const text = "cannot change " + titleOf(file);
  return Failure{text + ": INI files have no place for such a section, key or value"};
}

/// Programs that read whole files would not take a header without a name.
void refuseBlankSection(std::wstring const& section) {
  if (section.find_first_not_of(L" \t\v\f\r") == std::wstring::npos) {
    throw Failure("SECTION is blank");
  }
}

int set(Tool& tool, Arguments const& arguments) {
  std::wstring const section = wide(arguments.section, "SECTION");
  std::wstring const key = wide(arguments.key, "KEY");
  std::wstring const value = wide(arguments.value, "VALUE");
  refuseBlankSection(section);
  refuseIrregular(arguments.file);
  std::string const before = Input(arguments.file).readAll();
  std::optional<ScratchFile> scratch;
  if (isStandardStream(arguments.file)) scratch.emplace(before);
  std::string const path = scratch ? scratch->path() : arguments.file;
  if (ZuDB_WritePrivateProfileStringW(section.c_str(), key.c_str(), value.c_str(),
                                      wide(path, "the name").c_str()) == 0) {
    throw cannotChange(arguments.file, errno);
  }
  std::string const after = Input(path).readAll();
  if (scratch) {
    scratch.reset();
    tool.output.write(after);
  }
  tellChange(tool, arguments.file, before != after);
  return yes;
}

// ---- the library's own layout

/// Wide text that `bytes`, a file that is parsed, stand for.
std::wstring textOf(std::string const& bytes) {
  std::wstring text = wide(bytes, "the file");
  if (text.starts_with(kByteOrderMark)) text.erase(0, 1);
  return text;
}

std::wstring_view withoutWhiteSpace(std::wstring_view text) {
  while (!text.empty() && std::iswspace(static_cast<std::wint_t>(text.front())) != 0) {
    text.remove_prefix(1);
  }
  return text;
}

/// Whether a line of a file that is parsed ends in a comment: that begins with ";", also
/// behind headers.
bool hasComment(std::wstring_view line) {
  line = withoutWhiteSpace(line);
  while (line.starts_with(L'[')) {
    line = withoutWhiteSpace(line.substr(std::min(line.find(L']'), line.size() - 1) + 1));
  }
  return line.starts_with(L';');
}

bool hasComments(std::string const& bytes) {
  std::wstring const text = textOf(bytes);
  std::wstring_view rest = text;
  while (true) {
    std::size_t const end = rest.find_first_of(L"\r\n");
    if (hasComment(rest.substr(0, end))) return true;
    if (end == std::wstring_view::npos) return false;
    rest.remove_prefix(end + 1);
  }
}

/// Makes `file` what AnIni2 writes of the sections; whether they read back from it.
bool writeSections(Tool& tool, ScratchFile const& file, AnIni2::SectionMap const& sections) {
  AnIni2 sorted(file.path().c_str());
  for (auto const& [name, pairs] : sections) {
    for (auto const& [key, value] : pairs) sorted.insert(name, key, value);
  }
  tool.records.clear();
  sorted.write();
  if (!tool.records.errors().empty()) {
    throw Failure("cannot write " + file.path() + ": " + tool.records.reason(""));
  }
  AnIni2 copy(file.path().c_str());
  AnIni2::SectionMap readBack;
  return copy.getIniMap(readBack) && readBack == sections;
}

void refuseLosses(Arguments const& arguments, Contents const& contents) {
  std::string const title = titleOf(arguments.file);
  if (contents.bytes.find('\0') != std::string::npos) {
    throw Failure(title + ": what follows the NUL would be lost");
  }
  if (!arguments.force && hasComments(contents.bytes)) {
    throw Failure(title + ": its comments would be lost; --force sorts it all the same");
  }
}

/// Puts what `scratch` holds in the place of `file`, which keeps its mode.
void replace(std::string const& file, ScratchFile const& scratch) {
  std::error_code error;
  std::filesystem::perms const mode = std::filesystem::status(file, error).permissions();
  if (!error) std::filesystem::permissions(scratch.path(), mode, error);
  if (error) throw cannot("change", file, error.value());
  int const isCopied = zulCopyFile(scratch.path().c_str(), file.c_str(), /*refuseReplacing=*/0);
  if (isCopied == 0) throw cannot("change", file, errno);
}

int sort(Tool& tool, Arguments const& arguments) {
  refuseIrregular(arguments.file);
  Contents const contents = readParsed(tool, arguments.file);
  refuseLosses(arguments, contents);
  std::optional<ScratchFile> scratch;
  scratch.emplace("");
  if (!writeSections(tool, *scratch, contents.sections)) {
    throw Failure(titleOf(arguments.file) +
                  (contents.sections.contains(L"")
                       ? ": the pairs before the first section would not read back"
                       : ": it would not read back"));
  }
  std::string const sorted = scratch->bytes();
  bool const isChanged = sorted != contents.bytes;
  if (isStandardStream(arguments.file)) {
    scratch.reset();
    tool.output.write(sorted);
  } else if (isChanged) {
    replace(arguments.file, *scratch);
  }
  tellChange(tool, arguments.file, isChanged);
  return yes;
}

constexpr CommandText kList{
    "list", "List all sections with their keys and values",
    "The file is read as the library's own programs read it: names are exact in case,\n"
    "sections of one name are one, and of a repeated key the last value counts.",
    "vrxtool ini list /var/lib/vornix/oxa/etc/agent.ini --json"};

constexpr char kProfileText[] =
    "Names are compared without regard to case; of several sections or keys of one\n"
    "name the first counts.";

constexpr CommandText kGet{"get", "Show a value", kProfileText,
                           "vrxtool ini get agent.ini work folder"};

constexpr CommandText kSet{
    "set", "Set a value, and keep every other byte of the file",
    "A section or key that is missing is added; FILE must be there. Says whether\n"
    "anything changed. Names are compared without regard to case; of several sections\n"
    "or keys of one name the first counts. A value that is to keep blanks or quotation\n"
    "marks around it is given in quotation marks of its own.",
    "vrxtool ini set agent.ini work folder /srv/agent"};

constexpr CommandText kCheck{"check", "Say whether a file keeps to the syntax",
                             "If not, a line on standard error has file, line and reason.",
                             "vrxtool ini check agent.ini"};

constexpr CommandText kSort{
    "sort", "Rewrite a file in the library's own layout, sorted",
    "Sections and keys come in ascending order; of a repeated key the last value\n"
    "stays. Says whether anything changed. A file that would not read back is refused,\n"
    "as one with pairs before the first section, and so is one with comments, which\n"
    "would be lost.",
    "vrxtool ini sort agent.ini"};

}  // namespace

void addIniCommands(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  Family family = line.family("ini", "INI files");
  family.command(kList)
      .argument("FILE", a.file, "The file")
      .flag("--json", a.json, "An object of sections, each an object of values")
      .action(does(list));
  family.command(kGet)
      .argument("FILE", a.file, "The file")
      .argument("SECTION", a.section, "The section")
      .argument("KEY", a.key, "The key")
      .action(does(get));
  family.command(kSet)
      .argument("FILE", a.file, "The file")
      .argument("SECTION", a.section, "The section")
      .argument("KEY", a.key, "The key")
      .argument("VALUE", a.value, "The new value")
      .action(does(set));
  family.command(kCheck).argument("FILE", a.file, "The file").action(does(check));
  family.command(kSort)
      .argument("FILE", a.file, "The file")
      .flag("--force", a.force, "Sort a file with comments, too, which are lost")
      .action(does(sort));
}

}  // namespace vrxtool
