// Message catalogues and the messages out of them. The catalogues of two
// languages, and their locales, are made with the program.

#include "tests/file/file_support.h"
#include "tests/platform/child_process.h"
#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/variable_scope.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <latch>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <nl_types.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

static_assert(!std::is_copy_constructible_v<AResourceFile>);
static_assert(!std::is_copy_assignable_v<AResourceFile>);
static_assert(std::is_same_v<decltype(&AResourceFile::openExisting),
                             bool (AResourceFile::*)(wchar_t const*, unsigned short)>);
static_assert(std::is_same_v<decltype(&AResourceFile::getString),
                             wchar_t const* (AResourceFile::*)(int, AString*) const>);
static_assert(std::is_convertible_v<ALocalizedString*, AString*>);
static_assert(std::is_same_v<decltype(&ALocalizedString::open),
                             ALocalizedString& (ALocalizedString::*)(int, AResourceFile const&)>);
static_assert(std::is_same_v<decltype(ALocalizedString::DefaultResourceFile), AResourceFile*>);

constexpr wchar_t kGroup[] = L"RcFile";
constexpr wchar_t kNoCatalogue[] = L"Error:  Uninitialized resource file.";

// What is there before anything of the program has run.
AResourceFile* const kDefaultAtStart = ALocalizedString::DefaultResourceFile;

// A locale made with the program, in one category of setlocale(3) or in all.
class MadeLocale {
public:
  explicit MadeLocale(std::string const& language, int category = LC_ALL)
      : before_(std::setlocale(LC_ALL, nullptr)) {
    VariableScope const locales("LOCPATH", VRXUTIL_TEST_LOCALES);
    if (std::setlocale(category, (language + ".UTF-8").c_str()) == nullptr) {
      throw std::runtime_error("no locale " + language);
    }
  }

  ~MadeLocale() { std::setlocale(LC_ALL, before_.c_str()); }

  MadeLocale(MadeLocale const&) = delete;
  MadeLocale& operator=(MadeLocale const&) = delete;

private:
  std::string before_;
};

// The catalogue "messages" of each locale is found by its name.
class CatalogueSearch : VariableScope {
public:
  CatalogueSearch() : VariableScope("NLSPATH", VRXUTIL_TEST_CATALOGUES "/%L/%N.cat") {}
};

std::string const kGerman = VRXUTIL_TEST_CATALOGUES "/de_DE.UTF-8/messages.cat";
std::string const kFrench = VRXUTIL_TEST_CATALOGUES "/fr_FR.UTF-8/messages.cat";

std::wstring wide(std::string const& utf8) {
  AString text;
  EXPECT_TRUE(AnXml::convertUtf8ToUnicode(utf8.c_str(), text));
  return text.const_cpp_str();
}

// A catalogue of messages that only one test needs.
class MadeCatalogue {
public:
  // The lines of set 1, as gencat(1) reads them.
  explicit MadeCatalogue(std::string const& lines, std::string const& codeset = "UTF-8") {
    makeFile(folder_ / "source", "$ codeset=" + codeset + "\n$set 1\n" + lines);
    std::string const command =
        VRXUTIL_TEST_GENCAT " '" + path() + "' '" + folder_ / "source" + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
  }

  std::string path() const { return folder_ / "made.cat"; }

private:
  TemporaryFolder folder_;
};

// An open catalogue; fails the test where it cannot be opened.
class OpenCatalogue : public AResourceFile {
public:
  explicit OpenCatalogue(std::string const& path) {
    EXPECT_TRUE(openExisting(wide(path).c_str(), 0)) << path;
  }
};

// The descriptor, which is the only member, as it is or as a number.
template <class Descriptor>
Descriptor descriptorOf(AResourceFile const& file) {
  static_assert(sizeof(AResourceFile) == sizeof(nl_catd) && sizeof(Descriptor) == sizeof(nl_catd));
  Descriptor descriptor;
  std::memcpy(&descriptor, static_cast<void const*>(&file), sizeof descriptor);
  return descriptor;
}

bool isOpen(AResourceFile const& file) { return descriptorOf<std::intptr_t>(file) != -1; }

// The descriptor as the records have it.
std::wstring digits(AResourceFile const& file) {
  auto const low = static_cast<std::uint32_t>(descriptorOf<std::uintptr_t>(file) & 0xFFFFFFFF);
  std::array<wchar_t, 9> text{};
  std::swprintf(text.data(), text.size(), L"%08x", low);
  return text.data();
}

std::wstring placeholder(int id) { return L"<" + std::to_wstring(id) + L">"; }

std::wstring message(AResourceFile const& file, int id) {
  AString text;
  return file.getString(id, &text);
}

Records const kNothing;

Records nameConversion() { return scopes(L"Xml", {L"ConvertBufferToUtf8"}); }

Records opened(std::wstring const& name, AResourceFile const& file) {
  return nameConversion() + scopes(kGroup, {L"catopen," + name, L"=" + digits(file)});
}

Records notOpened(std::wstring const& name, int error) {
  return nameConversion() + failedCall(kGroup, L"catopen," + name, reason(error));
}

std::wstring lookup(AResourceFile const& file, int id) {
  return L"catgets," + digits(file) + L"," + std::to_wstring(id);
}

Records found(AResourceFile const& file, int id, std::size_t sizeInBytes) {
  return scopes(kGroup, {lookup(file, id)}) +
         scopes(L"Xml", {L"ConvertBufferToUnicode," + std::to_wstring(sizeInBytes)});
}

Records missing(AResourceFile const& file, int id, int error) {
  return failedCall(kGroup, lookup(file, id), reason(error));
}

Records notUtf8(AResourceFile const& file, int id, std::size_t sizeInBytes) {
  Records const open = found(file, id, sizeInBytes);
  return open + errorInside(open, L"Xml", AdvXMLParser::GetLastXmlErrorMessage());
}

// The records of opening a catalogue; fails the test where that fails.
Records recordsOfOpening(AResourceFile& file, std::wstring const& name, unsigned short number = 0) {
  return recordsOf([&] { EXPECT_TRUE(file.openExisting(name.c_str(), number)); });
}

// Opening `name` fails with `error` and leaves a closed object as it is.
void expectNotOpened(std::wstring const& name, int error) {
  AResourceFile file;
  errno = 0;
  Records const records = recordsOf([&] { EXPECT_FALSE(file.openExisting(name.c_str(), 0)); });
  EXPECT_EQ(records, notOpened(name, error));
  EXPECT_FALSE(isOpen(file));
}

void expectNotOpened(std::string const& name, int error) { expectNotOpened(wide(name), error); }

TEST(AResourceFileTest, NewObjectIsNotOpen) {
  LogRecorder const recorder;
  {
    AResourceFile const file;
    EXPECT_FALSE(isOpen(file));
  }
  EXPECT_EQ(recorder.records(), kNothing);
}

TEST(AResourceFileTest, OpeningLogsNameAndDescriptor) {
  AResourceFile file;
  Records const records = recordsOfOpening(file, wide(kGerman));
  EXPECT_TRUE(isOpen(file));
  EXPECT_EQ(records, opened(wide(kGerman), file));
}

TEST(AResourceFileTest, SecondArgumentHasNoMeaning) {
  for (unsigned short const number : std::initializer_list<unsigned short>{0, 1, 2, 0xFFFF}) {
    AResourceFile file;
    Records const records = recordsOfOpening(file, wide(kGerman), number);
    EXPECT_EQ(records, opened(wide(kGerman), file));
    EXPECT_EQ(message(file, 3), L"Kein Platzhalter");
  }
}

TEST(AResourceFileTest, BareNameIsFoundInTheLanguageOfTheLocale) {
  CatalogueSearch const search;
  for (auto const& [language, text] : {std::pair("de_DE", L"Datei %1 in %2 nicht gefunden"),
                                       std::pair("fr_FR", L"Dans %2, il manque le fichier %1")}) {
    MadeLocale const locale(language);
    AResourceFile file;
    Records const records = recordsOfOpening(file, L"messages");
    EXPECT_EQ(records, opened(L"messages", file));
    EXPECT_EQ(message(file, 1), text);
  }
}

TEST(AResourceFileTest, LocaleOfMessagesDecidesNotTheEnvironment) {
  CatalogueSearch const search;
  VariableScope const language("LANG", "fr_FR.UTF-8");
  VariableScope const all("LC_ALL", "fr_FR.UTF-8");
  MadeLocale const french("fr_FR");
  MadeLocale const german("de_DE", LC_MESSAGES);
  EXPECT_EQ(message(OpenCatalogue("messages"), 3), L"Kein Platzhalter");
}

TEST(AResourceFileTest, BareNameHasNoCatalogueInTheLocaleC) {
  CatalogueSearch const search;
  LocaleScope const locale("C");
  expectNotOpened(L"messages", ENOENT);
}

TEST(AResourceFileTest, NameWithSlashIsThePathInAnyLocale) {
  CatalogueSearch const search;
  MadeLocale const locale("fr_FR");
  EXPECT_EQ(message(OpenCatalogue(kGerman), 3), L"Kein Platzhalter");
  std::string const relative = std::filesystem::proximate(kGerman);
  std::string const dotted = relative.find('/') == std::string::npos ? "./" + relative : relative;
  EXPECT_EQ(message(OpenCatalogue(dotted), 3), L"Kein Platzhalter");
  expectNotOpened(L"./messages-that-are-not-there", ENOENT);
}

TEST(AResourceFileTest, SymbolicLinkIsFollowed) {
  TemporaryFolder const folder;
  std::filesystem::create_symlink(std::filesystem::absolute(kGerman), folder / "link.cat");
  EXPECT_EQ(message(OpenCatalogue(folder / "link.cat"), 3), L"Kein Platzhalter");
}

TEST(AResourceFileTest, NameIsUtf8WhateverTheLocale) {
  TemporaryFolder const folder;
  std::wstring const name = folder.wide("") + L"Gr\u00FC\u00DFe-\U0001F600.cat";
  std::filesystem::copy_file(kGerman, folder /
                                          "Gr\xC3\xBC\xC3\x9F"
                                          "e-\xF0\x9F\x98\x80.cat");
  for (char const* const locale : {"C", "C.UTF-8"}) {
    LocaleScope const scope(locale);
    AResourceFile file;
    Records const records = recordsOfOpening(file, name);
    EXPECT_EQ(records, opened(name, file));
  }
}

TEST(AResourceFileTest, NameThatIsNoUnicodeIsAnErrorOfTheConversion) {
  CatalogueSearch const search;
  MadeLocale const locale("de_DE");
  for (wchar_t const character : {L'\xD800', L'\xDFFF', static_cast<wchar_t>(0x110000)}) {
    std::wstring const name = std::wstring(L"messages") + character;
    AResourceFile file;
    Records const records = recordsOf([&] { EXPECT_FALSE(file.openExisting(name.c_str(), 0)); });
    EXPECT_EQ(records,
              failedCall(L"Xml", L"ConvertBufferToUtf8", AdvXMLParser::GetLastXmlErrorMessage()));
    EXPECT_FALSE(isOpen(file));
  }
}

TEST(AResourceFileTest, NullNameReadsAsNullText) {
  AResourceFile file;
  Records const records = recordsOf([&] { EXPECT_FALSE(file.openExisting(nullptr, 0)); });
  EXPECT_EQ(records, notOpened(L"(null)", ENOENT));
}

TEST(AResourceFileTest, MissingCatalogueIsAnError) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "");
  std::filesystem::create_symlink("loop", folder / "loop");
  std::filesystem::create_symlink("nothing", folder / "dangling");
  expectNotOpened(folder / "missing.cat", ENOENT);
  expectNotOpened(folder / "missing/messages.cat", ENOENT);
  expectNotOpened(folder / "dangling", ENOENT);
  expectNotOpened(folder / "file/messages.cat", ENOTDIR);
  expectNotOpened(folder / "loop", ELOOP);
  expectNotOpened(folder / std::string(300, 'n'), ENAMETOOLONG);
  expectNotOpened("no-catalogue-of-this-name", ENOENT);
}

TEST(AResourceFileTest, UnreadableCatalogueIsAnError) {
  std::string const catalogue = fileBytes(kGerman);  // others may not be let in there
  EXPECT_TRUE(holdsUnprivileged([&] {
    TemporaryFolder const folder;
    makeFile(folder / "closed.cat", catalogue);
    ASSERT_EQ(::chmod((folder / "closed.cat").c_str(), 0), 0);
    expectNotOpened(folder / "closed.cat", EACCES);
  }));
}

// Neither is opened, which would hang, nor taken for a catalogue.
TEST(AResourceFileTest, WhatIsNoRegularFileIsAnError) {
  EXPECT_EQ(runInChild([] {
              TemporaryFolder const folder;
              ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
              expectNotOpened(folder / "fifo", EINVAL);
              expectNotOpened(folder.path(), EINVAL);
              expectNotOpened(folder / "", EINVAL);
              expectNotOpened("/dev/null", EINVAL);
              expectNotOpened("/dev/zero", EINVAL);
            }).status,
            0);
}

TEST(AResourceFileTest, FileThatIsNoCatalogueIsAnError) {
  TemporaryFolder const folder;
  for (std::string const& bytes :
       {std::string(), std::string(1, '\0'), std::string(4096, '\0'), std::string(4096, '\xFF'),
        std::string("$set 1\n1 text\n"), std::string(70000, 'x')}) {
    makeFile(folder / "file", bytes);
    expectNotOpened(folder / "file", EINVAL);
  }
}

TEST(AResourceFileTest, BareNameOfAFileThatIsNoCatalogueIsAnError) {
  TemporaryFolder const folder;
  VariableScope const search("NLSPATH", folder / "%N");
  makeFile(folder / "file", "$set 1\n1 text\n");
  std::filesystem::create_directory(folder / "folder");
  expectNotOpened(L"file", EINVAL);
  expectNotOpened(L"folder", EINVAL);
}

// A small catalogue that ends where a page ends: what reads behind it is likely
// to fail.
std::string catalogueOfOnePage() {
  constexpr std::size_t kPage = 4096;
  auto const bytesWith = [](std::size_t filling) {
    return fileBytes(
        MadeCatalogue("1 one %1\n2 two\n7 seven\n9 " + std::string(filling, 'n') + "\n").path());
  };
  std::size_t const withoutFilling = bytesWith(1).size() - 1;
  std::string const bytes = bytesWith(kPage - withoutFilling);
  EXPECT_EQ(bytes.size(), kPage);
  return bytes;
}

TEST(AResourceFileTest, CutCatalogueIsAnError) {
  std::string const whole = fileBytes(kGerman);
  TemporaryFolder const folder;
  EXPECT_EQ(runInChild([&] {
              for (std::size_t size = 0; size < whole.size(); ++size) {
                SCOPED_TRACE(size);
                makeFile(folder / "cut.cat", whole.substr(0, size));
                ASSERT_NO_FATAL_FAILURE(expectNotOpened(folder / "cut.cat", EINVAL));
              }
            }).status,
            0);
}

TEST(AResourceFileTest, LargeCatalogueCutAtAPageIsAnError) {
  std::string lines;
  for (int id = 1; id <= 1000; ++id) {
    lines +=
        std::to_string(id) + " a text of forty characters, number " + std::to_string(id) + "\n";
  }
  std::string const whole = fileBytes(MadeCatalogue(lines).path());
  TemporaryFolder const folder;
  EXPECT_EQ(runInChild([&] {
              for (std::size_t size = 4096; size < whole.size(); size += 4096) {
                SCOPED_TRACE(size);
                makeFile(folder / "cut.cat", whole.substr(0, size));
                expectNotOpened(folder / "cut.cat", EINVAL);
              }
            }).status,
            0);
}

// The C library would read on behind the file.
TEST(AResourceFileTest, CatalogueWhoseLastTextDoesNotEndIsAnError) {
  std::string bytes = catalogueOfOnePage();
  bytes.back() = 'n';
  TemporaryFolder const folder;
  makeFile(folder / "endless.cat", bytes);
  expectNotOpened(folder / "endless.cat", EINVAL);
}

// What a catalogue gives is in its file, with the NUL that ends it.
void expectTextsOfFile(std::string const& path, std::string const& bytes) {
  LogRecorder const quiet;
  AResourceFile file;
  if (!file.openExisting(wide(path).c_str(), 0)) return;
  for (int const id : {0, 1, 2, 3, 7, 9, INT_MAX}) {
    std::wstring const text = message(file, id);
    bool const isMissing = text == placeholder(id);
    std::string const narrow(text.begin(), text.end());
    std::string const withEnd(narrow.c_str(), narrow.size() + 1);
    EXPECT_TRUE(isMissing || bytes.find(withEnd) != std::string::npos) << id;
  }
}

void expectNoHarmFrom(std::string const& path, std::string const& bytes) {
  makeFile(path, bytes);
  expectTextsOfFile(path, bytes);
}

// No damaged byte ends the process, keeps it busy, or brings in foreign memory.
TEST(AResourceFileTest, DamagedCatalogueDoesNoHarm) {
  std::string const whole = catalogueOfOnePage();
  TemporaryFolder const folder;
  auto const damage = [&](std::size_t at) {
    for (unsigned const value : {0x00U, 0x01U, 0x80U, 0xFFU}) {
      SCOPED_TRACE(testing::Message() << "byte " << at << " is " << value);
      std::string bytes = whole;
      bytes[at] = static_cast<char>(value);
      expectNoHarmFrom(folder / "damaged.cat", bytes);
    }
  };
  EXPECT_EQ(runInChild([&] {
              constexpr std::size_t kHeaderAndTables = 120;
              for (std::size_t at = 0; at < kHeaderAndTables; ++at) damage(at);
              damage(whole.size() - 1);
            }).status,
            0);
}

// The same for each number of header and tables, in either byte order.
TEST(AResourceFileTest, DamagedNumberDoesNoHarm) {
  std::string const whole = catalogueOfOnePage();
  TemporaryFolder const folder;
  auto const damage = [&](std::size_t at) {
    for (std::uint32_t const value :
         {0x0U, 0x1U, 0xFFFU, 0x1000U, 0x10000U, 0x10000000U, 0x15555556U, 0x40000000U, 0x55555555U,
          0x55555556U, 0x7FFFFFFFU, 0x80000000U, 0xAAAAAAABU, 0xFFFFFFFFU}) {
      SCOPED_TRACE(testing::Message() << "number at " << at << " is " << value);
      std::string bytes = whole;
      std::memcpy(bytes.data() + at, &value, sizeof value);
      expectNoHarmFrom(folder / "damaged.cat", bytes);
    }
  };
  EXPECT_EQ(runInChild([&] {
              for (std::size_t at = 0; at < 100; at += 4) damage(at);
            }).status,
            0);
}

// Both sizes of the table, whose product may wrap to what would fit.
TEST(AResourceFileTest, DamagedTableSizesDoNoHarm) {
  std::string const whole = catalogueOfOnePage();
  TemporaryFolder const folder;
  std::uint32_t const sizes[] = {0,          1,          2,          3,          0x10,
                                 0x55,       0x10000,    0x10001,    0x15555,    0x1000000,
                                 0x15555556, 0x20000000, 0x40000000, 0x55555556, 0x80000000,
                                 0xAAAAAAAB, 0xFFFFFFFF};
  EXPECT_EQ(runInChild([&] {
              for (std::uint32_t const size : sizes) {
                for (std::uint32_t const depth : sizes) {
                  SCOPED_TRACE(testing::Message() << "sizes " << size << " and " << depth);
                  std::string bytes = whole;
                  std::memcpy(bytes.data() + 4, &size, sizeof size);
                  std::memcpy(bytes.data() + 8, &depth, sizeof depth);
                  expectNoHarmFrom(folder / "damaged.cat", bytes);
                }
              }
            }).status,
            0);
}

#ifdef __GLIBC__

// The three numbers of the header alone tell the byte order; the file has a
// table in each.
TEST(AResourceFileTest, CatalogueOfAHostWithTheOtherByteOrderIsRead) {
  std::string bytes = fileBytes(kGerman);
  for (std::ptrdiff_t const at : {0, 4, 8}) {
    std::reverse(bytes.begin() + at, bytes.begin() + at + 4);
  }
  TemporaryFolder const folder;
  makeFile(folder / "other.cat", bytes);
  OpenCatalogue const file(folder / "other.cat");
  for (int id = 1; id <= 5; ++id) EXPECT_EQ(message(file, id), message(OpenCatalogue(kGerman), id));
}

#endif

#ifdef __linux__

// How often the process has a file mapped.
std::ptrdiff_t mappings(std::string const& path) {
  std::ifstream lines("/proc/self/maps");
  std::string const file = std::filesystem::canonical(path);
  std::ptrdiff_t count = 0;
  for (std::string line; std::getline(lines, line);) count += line.ends_with(file) ? 1 : 0;
  return count;
}

TEST(AResourceFileTest, CloseReleasesTheCatalogue) {
  OpenCatalogue file(kGerman);
  EXPECT_EQ(mappings(kGerman), 1);
  file.close();
  EXPECT_EQ(mappings(kGerman), 0);
}

TEST(AResourceFileTest, DestructorReleasesTheCatalogue) {
  {
    OpenCatalogue const file(kGerman);
    EXPECT_EQ(mappings(kGerman), 1);
  }
  EXPECT_EQ(mappings(kGerman), 0);
}

TEST(AResourceFileTest, FailedOpenHoldsNothing) {
  auto const openFiles = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  TemporaryFolder const folder;
  makeFile(folder / "file", std::string(4096, 'x'));
  std::ptrdiff_t const before = openFiles();
  for (int i = 0; i < 8; ++i) expectNotOpened(folder / "file", EINVAL);
  for (int i = 0; i < 8; ++i) OpenCatalogue const file(kGerman);
  EXPECT_EQ(openFiles(), before);
  EXPECT_EQ(mappings(folder / "file"), 0);
}

#endif

TEST(AResourceFileTest, CloseLogsNothingAndMayBeRepeated) {
  OpenCatalogue file(kGerman);
  Records const records = recordsOf([&] {
    file.close();
    EXPECT_FALSE(isOpen(file));
    file.close();
    EXPECT_FALSE(isOpen(file));
  });
  EXPECT_EQ(records, kNothing);
}

TEST(AResourceFileTest, ClosedObjectOpensAgain) {
  OpenCatalogue file(kGerman);
  file.close();
  EXPECT_TRUE(file.openExisting(wide(kFrench).c_str(), 0));
  EXPECT_EQ(message(file, 3), L"Rien \u00E0 remplacer");
}

TEST(AResourceFileTest, OpeningDoesNotCloseTheOpenCatalogue) {
  OpenCatalogue file(kGerman);
  auto const before = descriptorOf<nl_catd>(file);
  Records const records = recordsOfOpening(file, wide(kFrench));
  EXPECT_EQ(records, opened(wide(kFrench), file));
  EXPECT_EQ(message(file, 3), L"Rien \u00E0 remplacer");
  EXPECT_STREQ(::catgets(before, 1, 3, "closed"), "Kein Platzhalter");
  EXPECT_EQ(::catclose(before), 0);
}

TEST(AResourceFileTest, FailedOpenLeavesTheOpenCatalogue) {
  LogRecorder const quiet;
  OpenCatalogue file(kGerman);
  auto const before = descriptorOf<nl_catd>(file);
  TemporaryFolder const folder;
  std::wstring const name = folder.wide("missing.cat");
  Records const records = recordsOf([&] { EXPECT_FALSE(file.openExisting(name.c_str(), 0)); });
  EXPECT_EQ(records, notOpened(name, ENOENT));
  EXPECT_FALSE(file.openExisting(L"/\xD800", 0));
  EXPECT_EQ(descriptorOf<nl_catd>(file), before);
  EXPECT_EQ(message(file, 3), L"Kein Platzhalter");
}

TEST(AResourceFileTest, MessageIsConvertedAndLogged) {
  OpenCatalogue const file(kGerman);
  AString text(L"what was there before, and longer than the message");
  wchar_t const* characters = nullptr;
  Records const records = recordsOf([&] { characters = file.getString(2, &text); });
  EXPECT_EQ(text.const_cpp_str(), L"Gr\u00FC\u00DFe \U0001F600");
  EXPECT_EQ(characters, static_cast<wchar_t const*>(text));
  EXPECT_EQ(records, found(file, 2, 12));
}

TEST(AResourceFileTest, MessageIsConvertedWhateverTheLocale) {
  OpenCatalogue const file(kGerman);
  for (char const* const locale : {"C", "C.UTF-8"}) {
    LocaleScope const scope(locale);
    EXPECT_EQ(message(file, 2), L"Gr\u00FC\u00DFe \U0001F600");
  }
}

TEST(AResourceFileTest, MessageIsTakenAsItStands) {
  EXPECT_EQ(message(OpenCatalogue(kGerman), 4), L"erste Zeile\n\tzweite \\ %d 100% %%");
}

TEST(AResourceFileTest, EmptyMessageIsNotMissing) {
  OpenCatalogue const file(kGerman);
  AString text(L"before");
  EXPECT_EQ(recordsOf([&] { file.getString(5, &text); }), found(file, 5, 0));
  EXPECT_EQ(text.size(), 0U);
}

TEST(AResourceFileTest, MissingMessageIsItsNumberInBrackets) {
  LogRecorder const quiet;
  OpenCatalogue const file(kGerman);
  for (int const id : {7, 42, 0, -1, -2, -7, INT_MIN, INT_MAX, INT_MAX - 1}) {
    AString text(L"before");
    wchar_t const* characters = nullptr;
    errno = EPERM;  // of something before
    Records const records = recordsOf([&] { characters = file.getString(id, &text); });
    EXPECT_EQ(text.const_cpp_str(), placeholder(id));
    EXPECT_EQ(characters, static_cast<wchar_t const*>(text));
    EXPECT_EQ(records, missing(file, id, ENOMSG));
  }
  EXPECT_EQ(message(file, 7), L"<7>");
  EXPECT_EQ(message(file, -7), L"<-7>");
  EXPECT_EQ(message(file, INT_MAX), L"<2147483647>");
}

TEST(AResourceFileTest, OnlySetOneCounts) {
  OpenCatalogue const file(kFrench);
  EXPECT_EQ(message(file, 2), L"Bonjour \u00E0 tous \U0001F600");
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(message(file, 8), L"<8>"); }), missing(file, 8, ENOMSG));
}

TEST(AResourceFileTest, EveryMessageOfAClosedCatalogueIsMissing) {
  AResourceFile never;
  OpenCatalogue closed(kGerman);
  closed.close();
  for (AResourceFile const* const file : {&never, static_cast<AResourceFile*>(&closed)}) {
    for (int const id : {1, 7, -1}) {
      AString text(L"before");
      errno = EPERM;
      Records const records = recordsOf([&] { file->getString(id, &text); });
      EXPECT_EQ(text.const_cpp_str(), placeholder(id));
      EXPECT_EQ(records,
                failedCall(kGroup, L"catgets,ffffffff," + std::to_wstring(id), reason(EBADF)));
    }
  }
}

TEST(AResourceFileTest, CatalogueWithoutMessagesOpens) {
  MadeCatalogue const made("");
  OpenCatalogue const file(made.path());
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(message(file, 1), L"<1>"); }), missing(file, 1, ENOMSG));
}

TEST(AResourceFileTest, MessageOfTheDefaultTextCountsAsMissing) {
  MadeCatalogue const made(
      "1 ~`~`~`~`~`\n2 ~`~`~`~`~\n3 ~`~`~`~`~`~\n4 x~`~`~`~`~`\n5 ~`~`~`~`~` \n");
  OpenCatalogue const file(made.path());
  errno = EPERM;
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(message(file, 1), L"<1>"); }), missing(file, 1, ENOMSG));
  EXPECT_EQ(message(file, 2), L"~`~`~`~`~");
  EXPECT_EQ(message(file, 3), L"~`~`~`~`~`~");
  EXPECT_EQ(message(file, 4), L"x~`~`~`~`~`");
  EXPECT_EQ(message(file, 5), L"~`~`~`~`~` ");
}

TEST(AResourceFileTest, MessageThatIsNotUtf8IsItsNumberInBrackets) {
  MadeCatalogue const made(
      "1 Gr\xFC\xDF"
      "e\n2 plain\n",
      "ISO-8859-1");
  OpenCatalogue const file(made.path());
  AString text(L"before");
  wchar_t const* characters = nullptr;
  Records const records = recordsOf([&] { characters = file.getString(1, &text); });
  EXPECT_EQ(records, notUtf8(file, 1, 5));
  EXPECT_EQ(text.const_cpp_str(), L"<1>");
  EXPECT_EQ(characters, static_cast<wchar_t const*>(text));
  EXPECT_EQ(message(file, 2), L"plain");
}

TEST(AResourceFileTest, BytesThatAreNoUtf8NeverReachTheText) {
  std::string const bytes = fileBytes(MadeCatalogue("3 abcdefgh\n").path());
  TemporaryFolder const folder;
  for (std::string const& bad :
       {std::string("\x80"), std::string("\xC0\xAF"), std::string("\xED\xA0\x80"),
        std::string("\xF4\x90\x80\x80"), std::string("\xE2\x82"), std::string("\xFF")}) {
    std::string damaged = bytes;
    damaged.replace(bytes.find("abcdefgh") + 8 - bad.size(), bad.size(), bad);
    makeFile(folder / "bad.cat", damaged);
    OpenCatalogue const file(folder / "bad.cat");
    Records const records = recordsOf([&] { EXPECT_EQ(message(file, 3), L"<3>"); });
    EXPECT_EQ(records, notUtf8(file, 3, 8));
  }
}

TEST(AResourceFileTest, LargeMessageComesWhole) {
  std::string large;
  while (large.size() < 0x10000) large += "0123456789abcde\xC3\xA9";
  MadeCatalogue const made("1 short\n2 " + large + "\n3 after\n");
  OpenCatalogue const file(made.path());
  AString text;
  EXPECT_EQ(recordsOf([&] { file.getString(2, &text); }), found(file, 2, large.size()));
  EXPECT_EQ(text.const_cpp_str(), wide(large));
  EXPECT_EQ(message(file, 3), L"after");
}

TEST(AResourceFileTest, ManyMessagesAreToldApart) {
  std::string lines;
  for (int id = 1; id <= 300; ++id) {
    lines += std::to_string(id * 7) + " text " + std::to_string(id) + "\n";
  }
  MadeCatalogue const made(lines);
  LogRecorder const quiet;
  OpenCatalogue const file(made.path());
  for (int id = 1; id <= 300; ++id) {
    EXPECT_EQ(message(file, id * 7), L"text " + std::to_wstring(id));
    EXPECT_EQ(message(file, id * 7 + 1), placeholder(id * 7 + 1));
  }
}

TEST(AResourceFileTest, ErrorsNameTheScopesAround) {
  OpenCatalogue const file(kGerman);
  Records const records = recordsOf([&] {
    AnInfoTrace const around(L"Agent", L"greet");
    message(file, 7);
  });
  Records const open{infoRecord(L"Agent", L"greet"), detailRecord(kGroup, lookup(file, 7))};
  EXPECT_EQ(records, open + errorInside(open, kGroup, reason(ENOMSG)));
}

TEST(AResourceFileTest, ScopesCloseBeforeReturn) {
  LogRecorder const quiet;
  AResourceFile file;
  file.openExisting(L"/", 0);
  EXPECT_TRUE(file.openExisting(wide(kGerman).c_str(), 0));
  message(file, 2);
  message(file, 7);
  file.close();
  message(file, 2);
  EXPECT_EQ(recordsOf([] { logError(L"Agent", L"after"); }),
            errorInside(kNothing, L"Agent", L"after"));
}

TEST(AResourceFileTest, ThreadsMayReadAtOnce) {
  constexpr int kRounds = 300;
  OpenCatalogue const file(kGerman);
  LogRecorder const quiet;
  std::latch start(2);
  auto const read = [&](int id, wchar_t const* expected) {
    start.arrive_and_wait();
    for (int i = 0; i < kRounds; ++i) ASSERT_EQ(message(file, id), expected);
  };
  std::thread first(read, 2, L"Gr\u00FC\u00DFe \U0001F600");
  std::thread second(read, 7, L"<7>");
  first.join();
  second.join();
}

// The text after each of the arguments in turn.
struct Filling {
  char const* name;
  std::wstring text;
  std::vector<wchar_t const*> arguments;
  std::wstring expected;
};

TEST(ALocalizedStringTest, ArgumentsTakeThePlaceOfPlaceholders) {
  Filling const fillings[] = {
      {"in order", L"File %1 not found in %2", {L"a", L"b"}, L"File a not found in b"},
      {"arguments swapped", L"File %1 not found in %2", {L"b", L"a"}, L"File b not found in a"},
      {"higher one first", L"In %2, %1 is missing", {L"a", L"b"}, L"In b, a is missing"},
      {"several times", L"%1 is %1 and %1", {L"a"}, L"a is a and a"},
      {"side by side", L"%1%1%2%1", {L"a", L"b"}, L"aaba"},
      {"nothing else", L"%1", {L"a"}, L"a"},
      {"all nine",
       L"%9%8%7%6%5%4%3%2%1",
       {L"a", L"b", L"c", L"d", L"e", L"f", L"g", L"h", L"i"},
       L"ihgfedcba"},
      {"gap", L"%1 %3", {L"a", L"b", L"c"}, L"a c"},
      {"not reached", L"%1 %2", {L"a"}, L"a %2"},
      {"no placeholder", L"plain", {L"a", L"b"}, L"plain"},
      {"empty text", L"", {L"a"}, L""},
      {"empty argument", L"<%1>", {L""}, L"<>"},
      {"null argument", L"<%1>", {nullptr}, L"<(null)>"},
      {"zero", L"%0 %1", {L"a", L"b"}, L"%0 a"},
      {"two digits", L"%10 %11 %12", {L"a", L"b"}, L"a0 a1 a2"},
      {"zero before", L"%01", {L"a"}, L"%01"},
      {"two signs", L"%%1 %%%1 %%", {L"a"}, L"%a %%a %%"},
      {"sign at the end", L"%1%", {L"a", L"b"}, L"a%"},
      {"only a sign", L"%", {L"a"}, L"%"},
      {"letter", L"%s %d %n %", {L"a"}, L"%s %d %n %"},
      {"blank between", L"% 1 %-1", {L"a"}, L"% 1 %-1"},
      {"sign behind", L"1% 2%", {L"a", L"b"}, L"1% 2%"},
      {"foreign digits",
       L"%\u0661 %\uFF11 %\u00B9 \uFF051",
       {L"a"},
       L"%\u0661 %\uFF11 %\u00B9 \uFF051"},
      {"beyond the BMP",
       L"\U0001F600%1\U0001F601",
       {L"\U0010FFFF"},
       L"\U0001F600\U0010FFFF\U0001F601"},
      {"placeholder as argument", L"%1%2", {L"%2", L"b"}, L"bb"},
      {"own placeholder as argument", L"%1%1", {L"%1", L"b"}, L"%1%1"},
      {"lower placeholder as argument", L"%1%2", {L"a", L"%1"}, L"a%1"},
      {"sign before the next",
       L"%1"
       L"2",
       {L"%", L"b"},
       L"b"},
      {"sign and digit meet", L"%%1", {L"2", L"b"}, L"b"},
      {"argument longer than the text",
       L"%1!",
       {L"a long text about nothing much"},
       L"a long text about nothing much!"},
  };
  for (Filling const& filling : fillings) {
    SCOPED_TRACE(filling.name);
    LogRecorder const recorder;
    ALocalizedString text(filling.text.c_str());
    for (wchar_t const* const argument : filling.arguments) EXPECT_EQ(&(text << argument), &text);
    EXPECT_EQ(text.const_cpp_str(), filling.expected);
    EXPECT_EQ(recorder.records(), kNothing);
  }
}

TEST(ALocalizedStringTest, TenthArgumentReplacesNothing) {
  std::wstring const others = L"%0 %: %; %< %10 %A %a % %";
  ALocalizedString text((others + L" %9").c_str());
  for (int i = 0; i < 8; ++i) text << L"early";
  // The first argument has been: "%10" is "early0".
  std::wstring const after = L"%0 %: %; %< early0 %A %a % %";
  EXPECT_EQ(text.const_cpp_str(), after + L" %9");
  text << L"ninth %1 %9 %10 %:";
  std::wstring const all = after + L" ninth %1 %9 %10 %:";
  EXPECT_EQ(text.const_cpp_str(), all);
  for (int i = 10; i < 300; ++i) EXPECT_EQ(&(text << L"late"), &text);
  EXPECT_EQ(text.const_cpp_str(), all);
}

TEST(ALocalizedStringTest, ArgumentWithoutPlaceholderStillCounts) {
  ALocalizedString text(L"%2");
  text << L"a";
  EXPECT_EQ(text.const_cpp_str(), L"%2");
  text << L"b";
  EXPECT_EQ(text.const_cpp_str(), L"b");
}

TEST(ALocalizedStringTest, TextMayBeItsOwnArgument) {
  ALocalizedString text(L"<%1|%2>");
  EXPECT_EQ((text << text).const_cpp_str(), L"<<%1|%2>|%2>");
  EXPECT_EQ((text << text).const_cpp_str(), L"<<%1|<<%1|%2>|%2>>|<<%1|%2>|%2>>");

  ALocalizedString tail(L"a long text, kept on the heap: %1.");
  tail << static_cast<wchar_t const*>(tail) + 31;
  EXPECT_EQ(tail.const_cpp_str(), L"a long text, kept on the heap: %1..");
}

TEST(ALocalizedStringTest, LargeTextAndArgument) {
  std::wstring const filler(0x10000, L'x');
  ALocalizedString text((L"%1" + filler + L"%1").c_str());
  text << filler.c_str();
  EXPECT_EQ(text.const_cpp_str(), filler + filler + filler);
}

// The text of a message of one placeholder, filled with `argument`.
template <class Argument>
std::wstring filled(Argument argument) {
  ALocalizedString text(L"%1%2");
  EXPECT_EQ(&(text << argument), &text);
  text << L".";  // the one before has been counted
  return text.const_cpp_str();
}

TEST(ALocalizedStringTest, NumbersAreDecimal) {
  EXPECT_EQ(filled(0), L"0.");
  EXPECT_EQ(filled(42), L"42.");
  EXPECT_EQ(filled(-42), L"-42.");
  EXPECT_EQ(filled(INT_MAX), L"2147483647.");
  EXPECT_EQ(filled(INT_MIN), L"-2147483648.");
  EXPECT_EQ(filled(short{-7}), L"-7.");
  EXPECT_EQ(filled(true), L"1.");
  EXPECT_EQ(filled('x'), L"120.");
}

TEST(ALocalizedStringTest, PointersAreEightHexadecimalDigits) {
  auto const pointer = [](std::uintptr_t bits) { return std::bit_cast<void*>(bits); };
  EXPECT_EQ(filled(pointer(0)), L"00000000.");
  EXPECT_EQ(filled(pointer(0x1A2B)), L"00001a2b.");
  EXPECT_EQ(filled(pointer(0xFEDCBA98)), L"fedcba98.");
  EXPECT_EQ(filled(pointer(UINTPTR_MAX)), L"ffffffff.");
  EXPECT_EQ(filled(pointer(UINTPTR_MAX - 0xFFFFFFFF + 0x1A2B)), L"00001a2b.");
}

TEST(ALocalizedStringTest, CharactersStandForThemselves) {
  EXPECT_EQ(filled(L'x'), L"x.");
  EXPECT_EQ(filled(L'\u20AC'), L"\u20AC.");
  EXPECT_EQ(filled(L'\U0001F600'), L"\U0001F600.");
}

TEST(ALocalizedStringTest, NarrowTextIsInTheEncodingOfTheLocale) {
  EXPECT_EQ(filled("narrow"), L"narrow.");
  EXPECT_EQ(filled(""), L".");
  EXPECT_EQ(filled(static_cast<char const*>(nullptr)), L"(null).");
  LocaleScope const locale("C.UTF-8");
  EXPECT_EQ(filled("\xC3\xA9\xF0\x9F\x98\x80"), L"\u00E9\U0001F600.");
}

TEST(ALocalizedStringTest, NarrowTextThatDoesNotConvertIsAnErrorAndEmpty) {
  LocaleScope const locale("C.UTF-8");
  Records const records = recordsOf([] { EXPECT_EQ(filled("a\xFF"), L"."); });
  EXPECT_EQ(records, errorInside(kNothing, L"String",
                                 L"couldn't query space for wide character conversion"));
}

TEST(ALocalizedStringTest, NullWideTextReadsAsNullText) {
  EXPECT_EQ(filled(static_cast<wchar_t const*>(nullptr)), L"(null).");
  ALocalizedString const text(static_cast<wchar_t const*>(nullptr));
  EXPECT_EQ(text.const_cpp_str(), L"(null)");
}

TEST(ALocalizedStringTest, OtherTextsAreArgumentsToo) {
  EXPECT_EQ(filled(AString(L"text")), L"text.");
  EXPECT_EQ(filled(ALocalizedString(L"message %2")), L"message ..");
}

TEST(ALocalizedStringTest, NewObjectIsEmptyAndCountsFromOne) {
  LogRecorder const recorder;
  ALocalizedString text;
  EXPECT_EQ(text.size(), 0U);
  text.cpp_str() = L"%1 %2";
  text << L"a";
  EXPECT_EQ(text.const_cpp_str(), L"a %2");
  EXPECT_EQ(recorder.records(), kNothing);
}

TEST(ALocalizedStringTest, MessageOfACatalogue) {
  OpenCatalogue file(kGerman);
  AString expected;
  Records const loading = recordsOf([&] { file.getString(1, &expected); });
  std::optional<ALocalizedString> text;
  EXPECT_EQ(recordsOf([&] { text.emplace(1, &file); }), loading);
  *text << L"a" << L"b";
  EXPECT_EQ(text->const_cpp_str(), L"Datei a in b nicht gefunden");
}

TEST(ALocalizedStringTest, LanguageOrdersThePlaceholders) {
  OpenCatalogue german(kGerman);
  OpenCatalogue french(kFrench);
  EXPECT_EQ((ALocalizedString(1, &german) << L"a" << L"b").const_cpp_str(),
            L"Datei a in b nicht gefunden");
  EXPECT_EQ((ALocalizedString(1, &french) << L"a" << L"b").const_cpp_str(),
            L"Dans b, il manque le fichier a");
}

TEST(ALocalizedStringTest, MissingMessageOfACatalogue) {
  OpenCatalogue file(kGerman);
  Records const records =
      recordsOf([&] { EXPECT_EQ(ALocalizedString(42, &file).const_cpp_str(), L"<42>"); });
  EXPECT_EQ(records, missing(file, 42, ENOMSG));
}

TEST(ALocalizedStringTest, NullCatalogueIsAsNoDefault) {
  OpenCatalogue file(kGerman);
  ALocalizedString::setDefaultResourceFile(&file);
  Records const records =
      recordsOf([] { EXPECT_EQ(ALocalizedString(1, nullptr).const_cpp_str(), kNoCatalogue); });
  ALocalizedString::setDefaultResourceFile(nullptr);
  EXPECT_EQ(records, kNothing);
}

TEST(ALocalizedStringTest, OpenStartsAfresh) {
  OpenCatalogue const german(kGerman);
  OpenCatalogue const french(kFrench);
  ALocalizedString text(L"before %1, and quite long, longer than a message");
  text << L"a" << L"b" << L"c";
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(&text.open(1, german), &text); }),
            found(german, 1, std::strlen("Datei %1 in %2 nicht gefunden")));
  EXPECT_EQ((text << L"a").const_cpp_str(), L"Datei a in %2 nicht gefunden");
  EXPECT_EQ((text.open(1, french) << L"a" << L"b").const_cpp_str(),
            L"Dans b, il manque le fichier a");
}

TEST(ALocalizedStringTest, OpenOfAMissingMessageStartsAfreshToo) {
  OpenCatalogue const file(kGerman);
  ALocalizedString text(L"%1");
  text << L"a";
  EXPECT_EQ(recordsOf([&] { text.open(7, file); }), missing(file, 7, ENOMSG));
  EXPECT_EQ(text.const_cpp_str(), L"<7>");
  text.cpp_str() += L"%1";
  EXPECT_EQ((text << L"a").const_cpp_str(), L"<7>a");
}

TEST(ALocalizedStringTest, CopiesKeepTheCount) {
  ALocalizedString text(L"%1 %2 %3");
  text << L"a";
  ALocalizedString copy(text);
  ALocalizedString assigned;
  assigned = text;
  ALocalizedString const moved(std::move(ALocalizedString(text) << L"m"));
  EXPECT_EQ((copy << L"b").const_cpp_str(), L"a b %3");
  EXPECT_EQ((assigned << L"c").const_cpp_str(), L"a c %3");
  EXPECT_EQ((text << L"d" << L"e").const_cpp_str(), L"a d e");
  EXPECT_EQ(moved.const_cpp_str(), L"a m %3");
}

TEST(ALocalizedStringTest, AssignedTextCountsFromOne) {
  ALocalizedString text(L"%1");
  text << L"a" << L"b";
  text = L"%1 %2";
  EXPECT_EQ((text << L"c" << L"d").const_cpp_str(), L"c d");
}

TEST(ALocalizedStringTest, NoCatalogueIsTheDefaultAtFirst) {
  EXPECT_EQ(kDefaultAtStart, nullptr);
  LogRecorder const recorder;
  EXPECT_EQ(ALocalizedString(5).const_cpp_str(), kNoCatalogue);
  EXPECT_EQ(ALocalizedString(-5).const_cpp_str(), kNoCatalogue);
  EXPECT_EQ(recorder.records(), kNothing);
}

TEST(ALocalizedStringTest, TextWithoutDefaultCountsFromOne) {
  ALocalizedString text(5);
  text.cpp_str() += L"%1";
  EXPECT_EQ((text << L"a").const_cpp_str(), std::wstring(kNoCatalogue) + L"a");
}

TEST(ALocalizedStringTest, NumberAloneIsAMessageOfTheDefault) {
  LogRecorder const quiet;
  OpenCatalogue german(kGerman);
  OpenCatalogue french(kFrench);
  ALocalizedString::setDefaultResourceFile(&german);
  EXPECT_EQ(ALocalizedString::DefaultResourceFile, &german);
  Records const records =
      recordsOf([] { EXPECT_EQ(ALocalizedString(3).const_cpp_str(), L"Kein Platzhalter"); });
  EXPECT_EQ(records, found(german, 3, 16));
  EXPECT_EQ((ALocalizedString(1) << L"a" << 2).const_cpp_str(), L"Datei a in 2 nicht gefunden");
  EXPECT_EQ(ALocalizedString(7).const_cpp_str(), L"<7>");
  EXPECT_EQ(ALocalizedString(3, &french).const_cpp_str(), L"Rien \u00E0 remplacer");

  ALocalizedString::setDefaultResourceFile(&french);
  EXPECT_EQ(ALocalizedString(3).const_cpp_str(), L"Rien \u00E0 remplacer");
  ALocalizedString::setDefaultResourceFile(nullptr);
  EXPECT_EQ(ALocalizedString::DefaultResourceFile, nullptr);
  EXPECT_EQ(ALocalizedString(3).const_cpp_str(), kNoCatalogue);
}

TEST(ALocalizedStringTest, DefaultIsNotOwned) {
  OpenCatalogue file(kGerman);
  ALocalizedString::setDefaultResourceFile(&file);
  ALocalizedString::setDefaultResourceFile(nullptr);
  EXPECT_EQ(message(file, 3), L"Kein Platzhalter");
}

TEST(ALocalizedStringTest, ClosedDefaultHasNoMessages) {
  AResourceFile file;
  ALocalizedString::setDefaultResourceFile(&file);
  Records const records = recordsOf([] { EXPECT_EQ(ALocalizedString(5).const_cpp_str(), L"<5>"); });
  ALocalizedString::setDefaultResourceFile(nullptr);
  EXPECT_EQ(records, failedCall(kGroup, L"catgets,ffffffff,5", reason(EBADF)));
}

TEST(ALocalizedStringTest, ThreadsMayLoadFromOneDefault) {
  constexpr int kRounds = 200;
  OpenCatalogue file(kFrench);
  ALocalizedString::setDefaultResourceFile(&file);
  LogRecorder const quiet;
  std::latch start(2);
  auto const load = [&](wchar_t const* name) {
    start.arrive_and_wait();
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_EQ((ALocalizedString(1) << name << i).const_cpp_str(),
                L"Dans " + std::to_wstring(i) + L", il manque le fichier " + name);
    }
  };
  std::thread first(load, L"a");
  std::thread second(load, L"b");
  first.join();
  second.join();
  ALocalizedString::setDefaultResourceFile(nullptr);
}

}  // namespace
}  // namespace vrxutil::test
