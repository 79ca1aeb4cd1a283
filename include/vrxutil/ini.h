// INI files: single values through the profile functions (AnIni), and whole
// files in memory (AnIni2).
//
//   ; a comment           only where a line begins so
//   [section]
//   key = value           the key ends at the first "="; outer blanks go
//
// Files are UTF-8. Paths reach the system in the encoding of the C locale.
// Errors are logged under "ini"; only std::bad_alloc is thrown, where nothing
// else is said.
// Threads: an object belongs to one thread at a time. AnIni2 calls
// setlocale(LC_ALL, "") when it parses and when it writes, which changes the
// locale of the whole process: let main() do the same first. Else a name beyond
// ASCII reads as "?" at first, and the next write goes to the file of the real name.

#pragma once

#include <vrxutil/export.h>
#include <vrxutil/text.h>

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <string_view>

/// Single values of an INI file, one access to the file for each.
///
/// The profile functions (zulral/zulral.h) do the work: sections and keys
/// without regard to case, comments and order kept, atomic writes.
class VRXUTIL_EXPORT AnIni {
public:
  /// Takes the file's name; no file is touched.
  explicit AnIni(AString const& name);
  AnIni(AnIni const&) = delete;
  AnIni& operator=(AnIni const&) = delete;

  /// Reads a value of up to 4094 characters; a longer one is cut. Where there is
  /// none: false, with `value` empty, and if `required` the error
  /// `Couldn't read required section "S", setting "K" of file "F"`. Without a
  /// file name: false, an internal error, `value` untouched. The value "`~`~"
  /// reads as missing.
  virtual bool get(bool required, AString const& section, AString const& key, AString& value);

  /// close().
  virtual ~AnIni();

  /// Takes another file's name; no file is touched. Always true here.
  virtual bool open(AString const& name);

  /// Forgets the file's name.
  virtual void close();

  /// get() of a value that may be missing.
  virtual bool tryGet(AString const& section, AString const& key, AString& value);

  /// get() of a value that must be there.
  virtual bool getExisting(AString const& section, AString const& key, AString& value);

  /// Writes a value. Without a file name: an internal error. A failure of the
  /// write is not reported.
  virtual void set(AString const& section, AString const& key, AString const& value);

protected:
  /// Empty where there is none.
  AString fileName;
};

namespace vornix_com::file::ini {

/// Where the parser of AnIni2 stands in a file.
enum class State : int {
  betweenLines = 0,
  inSection = 1,
  inKey = 2,
  inValue = 3,
  inComment = 4,
  error = 5,
};

}  // namespace vornix_com::file::ini

namespace vrxutil::detail {

class PairIndex;
class ParsedPairs;

}  // namespace vrxutil::detail

/// A whole INI file in memory, written back when it is closed, if it changed.
///
/// Sections and keys are looked up exactly and written in ascending order;
/// sections of one name are one, and of a repeated key the last value counts.
/// Comments are not kept. Pairs before the first header are in the section named
/// "", which is written as "[]" and cannot be read back.
///
/// A file that cannot be opened, a folder and a FIFO without a writer are an
/// empty store that counts as parsed: the first change then replaces whatever
/// could not be read, as soon as it can be written. Where that must not happen,
/// ask AFiler::getFileAccessibility() first. A FIFO that has a writer is
/// read until that one closes it. The text ends at its first NUL, and so does what a
/// later write keeps. A file that is not UTF-8, breaks the
/// syntax or fails while it is read is not parsed: get() and set() then go
/// through the profile functions, as AnIni's do.
///
/// What the syntax does not allow, in the words of the log (internal errors,
/// each with " line " and the line; a CR LF counts as two line ends):
///
///   Unexpected: '['             in a section's name, a key or a comment
///   Unexpected: ']'             the same, and where a line begins
///   Unexpected: empty section   "[]"
///   Unexpected: '='             where a line begins, in a section's name or a
///                               comment
///   Unexpected: new line        in a section's name, and after a key without "="
///
/// A file that ends inside a section's name, a key or a comment is not parsed
/// either, without such a record.
class VRXUTIL_EXPORT AnIni2 : public AnIni {
public:
  /// Where the parser stands; no caller needs it.
  using State = vornix_com::file::ini::State;

  /// Section to key to value, each in ascending order; no section occurs twice.
  using SectionMap = std::multimap<std::wstring, std::map<std::wstring, std::wstring>>;

  /// Reads and parses the file; parsed() tells how that went.
  explicit AnIni2(AString const& name);

  /// As AnIni::get() says, but exact in case, of any length, and with the error
  /// `Couldn't read required section "S", setting "K" from file "F"`. The first
  /// call makes an index of all pairs. Not parsed: AnIni::get().
  bool get(bool required, AString const& section, AString const& key, AString& value) override;

  /// close(). Nothing is thrown; a failure to write for lack of memory is logged.
  ~AnIni2() override;

  /// close(), then reads and parses the file `name`. Returns parsed().
  bool open(AString const& name) override;

  /// write(), then forgets contents and name.
  void close() override;

  /// insert(). Not parsed: AnIni::set().
  void set(AString const& section, AString const& key, AString const& value) override;

  /// Whether the last file was parsed; false after close().
  bool parsed() const { return parsed_ != 0; }

  /// Copies the contents. Not parsed: an internal error and false.
  bool getIniMap(SectionMap& out);

  /// Stores a value, in memory. A section alone, with empty key and value, makes
  /// the section. Anything else without a key is refused with an internal error
  /// and false. True also when the value was there already. Works on what was not
  /// parsed, too: write() then replaces that file by what was inserted alone, and by
  /// nothing after getIniMap(), which empties the store but leaves the change.
  bool insert(std::wstring const& section, std::wstring const& key, std::wstring const& value);

  /// Writes everything back, if anything changed since it was read or written.
  ///
  /// A regular file with one link, or a new one, is replaced through a neighbour,
  /// with its mode, owner and group kept but not an access list, so that a crash
  /// leaves the old file or the new one. Anything else, and a file whose folder,
  /// owner or group does not allow that, is cut and written in place. Text that has
  /// no UTF-8 form leaves the file as it is. Written text ends at the first NUL. A
  /// file that cannot be opened loses the changes without a record; other failures
  /// are logged.
  ///
  /// Takes no lock, nor that of the profile functions: what others have written to
  /// the file since it was read is lost.
  void write();

private:
  using KeyMap = SectionMap::mapped_type;

  // Reading: ini/ini2_parser.cpp.
  void initialize();
  bool parse();
  bool readFile();
  void logReadError(int number);
  bool parseText(std::string_view utf8);
  void processLeftBracket(State& state, std::string_view& section, std::string_view& value,
                          std::string_view c, int line);
  void processRightBracket(State& state, std::string_view& section, std::string_view& value,
                           std::string_view c, int line);
  void processEqualSign(State& state, std::string_view& key, std::string_view& value,
                        std::string_view c, int line);
  void processDefault(State& state, std::string_view& section, std::string_view& key,
                      std::string_view& value, std::string_view c);
  void processEOL(State& state, std::string_view& section, std::string_view& key,
                  std::string_view& value, int line);
  void processEOF(State& state, std::string_view& section, std::string_view& key,
                  std::string_view& value);
  void removeLeadingWhiteSpace(std::string_view& text);
  void removeTrailingWhiteSpace(std::string_view& text);
  void trim(std::string_view& text);
  void fail(wchar_t const* what, int line);

  // The store and writing: ini/ini2.cpp.
  bool findSection(std::wstring const& name);
  void store(std::wstring const& section, std::wstring const& key, std::wstring const& value);
  std::wstring const* find(std::wstring const& section, std::wstring const& key);
  bool makeIndex();
  void addToIndex(KeyMap::value_type const& pair);
  void clear();
  void logLostChanges(std::exception const& exception) noexcept;

  SectionMap sections_;
  std::uint32_t dirty_ = 0;
  std::uint32_t parsed_ = 0;
  /// The section used last, or the end.
  SectionMap::iterator recent_ = sections_.end();
  /// The file's text, and pairs on their way into the map; none but while parsing.
  std::unique_ptr<vrxutil::detail::ParsedPairs> pairs_;
  /// All pairs, from the first get() on.
  std::unique_ptr<vrxutil::detail::PairIndex> index_;
};
