// The log records that the pages of docs/ quote, as `error [Xml] root node missing`: each is
// provoked here, or shown by the test that is named for it.

#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/binary.h>
#include <vrxutil/file.h>
#include <vrxutil/ini.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

using vornix_com::oxa::logger::LogLevel;
using vrxutil::test::fileBytes;
using vrxutil::test::LocaleScope;
using vrxutil::test::LogRecord;
using vrxutil::test::LogRecorder;
using vrxutil::test::makeFile;
using vrxutil::test::TemporaryFolder;

constexpr unsigned long kTooLarge = std::numeric_limits<unsigned long>::max();
constexpr char kNoText[] = "\xFF";  // in UTF-8

AString missing(TemporaryFolder const& folder) { return folder.wide("none/x"); }

AString iniFile(TemporaryFolder const& folder, std::string const& text) {
  makeFile(folder / "a.ini", text);
  return folder.wide("a.ini");
}

/// A root without children or attributes.
struct Tree {
  Tree() {
    xml.useString(L"<root/>", nullptr, nullptr, nullptr);
    root.setToRoot(&xml);
  }

  AnXml xml;
  AnXmlNode root;
};

struct ProvokedRecord {
  char const* record;  // as the pages quote it; words of capitals stand for anything
  void (*provoke)(TemporaryFolder const& folder);

  friend void PrintTo(ProvokedRecord const& row, std::ostream* out) { *out << row.record; }
};

constexpr ProvokedRecord kProvoked[] = {
    {"error [String] couldn't convert to wide characters",
     [](TemporaryFolder const&) {
       wchar_t text = 0;
       AString::convert(kNoText, &text, 0, 1);
     }},
    {"error [String] couldn't convert a wide character",
     [](TemporaryFolder const&) { convertOne('\0'); }},
    {"error [String] couldn't query space for wide character conversion",
     [](TemporaryFolder const&) { AString const text(kNoText); }},
    {"error [String] internal error: unknown format character [C]",
     [](TemporaryFolder const&) { AString const text(AFormat(1, L"q", -1)); }},
    {"error [String] Received invalid negative memory allocation request",
     [](TemporaryFolder const&) { AString().allocate(-1); }},
    {"error [String] internal error: End of string overwritten",
     [](TemporaryFolder const&) {
       AString text;
       text.allocate(3)[3] = L'x';
       text.checkAllocation();
     }},
    {"error [RcFile] REASON",
     [](TemporaryFolder const&) {
       AString text;
       AResourceFile().getString(7, &text);
       EXPECT_EQ(text.const_cpp_str(), L"<7>");
     }},
    {"info [Log] Exit program",
     [](TemporaryFolder const&) {
       runMainWithLogging([](int, char**) { return 0; }, 0, nullptr, L"a", nullptr, true);
     }},

    {"error [Buffer] Exception WHAT trying to allocate SIZE bytes",
     [](TemporaryFolder const&) { ABuffer("").tryToChangeSizeTo(kTooLarge); }},
    {"error [Buffer] internal error: Buffer overflow",
     [](TemporaryFolder const&) {
       ABuffer buffer("abc");
       const_cast<unsigned char*>(buffer.getBytes())[3] = 'd';
       buffer.checkAllocation();
       const_cast<unsigned char*>(buffer.getBytes())[3] = 0;
     }},
    {"error [BinStrm] internal error: Tried to write past buffer end by N",
     [](TemporaryFolder const&) {
       ABinaryStream stream(/*littleEndian=*/true);
       stream.readLong();
       stream.pastEndError();
     }},

    {"error [File] REASON",
     [](TemporaryFolder const& folder) {
       ABuffer contents("");
       AFile::read(/*reportMissing=*/true, missing(folder), contents);
     }},
    {"error [FileInx] REASON",
     [](TemporaryFolder const& folder) {
       AFileIndex const index(/*reportNoMatch=*/true, missing(folder), L"*");
     }},
    {"error [Filer] REASON",
     [](TemporaryFolder const& folder) { AFiler::createDirectory(missing(folder)); }},
    {"error [Filer] Failed",
     [](TemporaryFolder const& folder) { AFiler::copyFile(missing(folder), missing(folder)); }},
    {"error [Filer] internal error: Test ",
     [](TemporaryFolder const&) { AFiler::renameFile(L"a", L"b"); }},
    {"error [filer] REASON",
     [](TemporaryFolder const& folder) {
       long size = 0;
       AFiler::getExistingFileSize(missing(folder), size);
     }},
    {"error [Filer] internal error: getFileAccessibility had unexpected access N",
     [](TemporaryFolder const& folder) {
       bool exists = false;
       AFiler::getFileAccessibility(missing(folder), AFiler::AFileAccess{3}, exists);
     }},

    {"error [Xml] Parse error line: N column: M REASON",
     [](TemporaryFolder const&) { AnXml().useString(L"<a>", nullptr, nullptr, nullptr); }},
    {"error [Xml] root node name doesn't match: NAME",
     [](TemporaryFolder const&) { AnXml().useString(L"<a/>", L"b", nullptr, nullptr); }},
    {"error [Xml] attribute value doesn't match: VALUE",
     [](TemporaryFolder const&) { AnXml().useString(L"<a n='1'/>", L"a", L"n", L"2"); }},
    {"error [XmlNode] getValue: required attribute not found: NAME",
     [](TemporaryFolder const&) { AnXml().useString(L"<a/>", L"a", L"n", L"2"); }},
    {"error [Xml] REASON",
     [](TemporaryFolder const& folder) {
       AnXml().useExistingFile(missing(folder), nullptr, nullptr, nullptr);
     }},
    {"error [Xml] Null root node name",
     [](TemporaryFolder const&) { AnXml().useNew(nullptr, nullptr, nullptr); }},
    {"error [Xml] Exception writing file: REASON",
     [](TemporaryFolder const& folder) {
       Tree().xml.writeFile(missing(folder), /*encrypt=*/false, /*generateFlag=*/true);
     }},
    {"error [Xml] Exception writing string: REASON",
     [](TemporaryFolder const&) {
       Tree tree;
       tree.root.setValue(L"a", L"\1");
       AString text;
       tree.xml.writeString(&text);
     }},
    {"error [Xml] internal error: No document to write",
     [](TemporaryFolder const&) { AnXml().writeString(nullptr); }},
    {"error [XmlNode] getChild: required child not found: NAME",
     [](TemporaryFolder const&) {
       Tree().root.getChild(/*required=*/true, L"a", nullptr, nullptr, nullptr, nullptr);
     }},
    {"error [XmlNode] internal error: Used uninitialized node",
     [](TemporaryFolder const&) { static_cast<void>(AnXmlNode().getName()); }},
    {"error [XmlNode] internal error: No attribute named NULL",
     [](TemporaryFolder const&) { Tree().root.setValue(nullptr, L"v"); }},
    {"error [XmlNode] internal error: No value to set",
     [](TemporaryFolder const&) { Tree().root.setValue(L"n", nullptr); }},
    {"error [XmlNode] internal error: No child named NULL",
     [](TemporaryFolder const&) { Tree().root.addChild(nullptr, nullptr, nullptr, nullptr); }},
    {"error [XmlNode] missing ELEMENT",
     [](TemporaryFolder const&) {
       Tree other;
       other.root.addChild(nullptr, L"a", nullptr, nullptr);
       Tree().root.containsChildrenOf(&other.root);
     }},
    {"error [XmlIndx] internal error: remove without moveNext",
     [](TemporaryFolder const&) {
       Tree const tree;
       AnXmlChildIndex(&tree.root, nullptr).remove();
     }},
    {"error [XmlIndx] internal error: Used uninitialized node",
     [](TemporaryFolder const&) {
       AnXmlNode const none;
       AnXmlChildIndex().set(&none, nullptr);
     }},
    {"error [XmlValx] internal error: Used uninitialized node",
     [](TemporaryFolder const&) {
       AnXmlNode const none;
       AnXmlValueIndex().set(&none);
     }},

    {"error [ini] Couldn't read required section \"S\", setting \"K\" of file \"F\"",
     [](TemporaryFolder const& folder) {
       AString value;
       AnIni(iniFile(folder, "")).getExisting(L"s", L"k", value);
     }},
    {"error [ini] Couldn't read required section \"S\", setting \"K\" from file \"F\"",
     [](TemporaryFolder const& folder) {
       AString value;
       AnIni2(iniFile(folder, "")).getExisting(L"s", L"k", value);
     }},
    {"error [ini] internal error: No file name in AnIni::tryGet",
     [](TemporaryFolder const&) {
       AString value;
       AnIni(L"").tryGet(L"s", L"k", value);
     }},
    {"error [ini] internal error: No file name in AnIni::set",
     [](TemporaryFolder const&) { AnIni(L"").set(L"s", L"k", L"v"); }},
    {"error [ini] internal error: Unexpected: '[' FILE line N",
     [](TemporaryFolder const& folder) { AnIni2 const ini(iniFile(folder, "[a[")); }},
    {"error [ini] internal error: Ini file not parsed in AnIni2",
     [](TemporaryFolder const& folder) { AnIni2 const ini(iniFile(folder, "[")); }},
    {"error [ini] internal error: Unable to insert ITEMS into the map.",
     [](TemporaryFolder const& folder) { AnIni2(iniFile(folder, "")).insert(L"s", L"", L"v"); }},
    {"error [ini] REASON",
     [](TemporaryFolder const&) {
       if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "the host has no /dev/full";
       AnIni2(L"/dev/full").insert(L"s", L"k", L"v");
     }},

    {"error [Library] REASON",
     [](TemporaryFolder const& folder) {
       ALibrary().open(/*required=*/true, missing(folder), /*decorate=*/false,
                       /*keepLoaded=*/false);
     }},
};

/// What takes a world of its own to provoke; the file of the test that does.
struct RecordElsewhere {
  char const* record;
  char const* test;

  friend void PrintTo(RecordElsewhere const& row, std::ostream* out) { *out << row.record; }
};

constexpr RecordElsewhere kElsewhere[] = {
    {"error [Log] REASON; records go to standard error while the log cannot be written",
     "platform/logger_test.cpp"},
    {"error [Library] failed", "system/library_test.cpp"},
    {"error [IPLock] Failed to create the file  PATH", "lock/unix_lock_test.cpp"},
    {"error [IPLock] Failed to get the semaphore id due to REASON", "lock/unix_lock_test.cpp"},
    {"error [IPLock] Failed to create the semaphore due to REASON first parameter is KEY",
     "lock/unix_lock_test.cpp"},
    {"error [IPLock] Failed to increase the refrence count due to REASON",
     "lock/unix_lock_test.cpp"},
    {"error [IPLock] A non-root instance of this semaphore encountered so deleting it",
     "lock/unix_lock_test.cpp"},
    {"info [IPLock] readLock - Timeout occured , failed to acquire the lock",
     "lock/inter_process_lock_test.cpp"},
    {"error [IPLock] readLock - Timeout occured , failed to acquire the lock",
     "lock/inter_process_lock_test.cpp"},
    {"error [IPLock] writeLock - Timeout occured , failed to acquire the lock",
     "lock/inter_process_lock_test.cpp"},
    {"error [IPLock] writeUnLock - decreasing the semaphore value failed",
     "lock/unix_lock_test.cpp"},
    {"error [IPLock] Failed to decrease the refrence count PATH", "lock/unix_lock_test.cpp"},
    {"error [IPLock] Failed to look at the lock NAME: REASON", "lock/lock_status_test.cpp"},
};

std::vector<std::string> allMatches(std::string const& text, std::regex const& pattern,
                                    std::size_t group) {
  std::vector<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match) {
    found.push_back((*match)[group]);
  }
  return found;
}

/// The record as it would be quoted; what logError() has indented is not.
std::string quoted(LogRecord const& record) {
  char const* const level = record.level == LogLevel::error  ? "error"
                            : record.level == LogLevel::info ? "info"
                                                             : "detail";
  std::size_t const indent = record.message.starts_with(L"  ") ? 2 : 0;
  AString line(level);
  line << L" [" << record.group.c_str() << L"] " << record.message.c_str() + indent;
  return ACharString(line).operator char const*();
}

std::vector<std::string> quoted(std::vector<LogRecord> const& records) {
  std::vector<std::string> lines;
  for (LogRecord const& record : records) lines.push_back(quoted(record));
  return lines;
}

/// Whether the line is the record, with anything in the place of words of capitals.
bool matches(std::string const& line, std::string const& record) {
  std::string const plain = std::regex_replace(record, std::regex(R"([.*+?^${}()|[\]\\])"), "\\$&");
  std::string const pattern = std::regex_replace(plain, std::regex(R"(\b[A-Z]+\b)"), ".+");
  return std::regex_match(line, std::regex(pattern));
}

/// The texts of a record between its level and group and its words of capitals.
std::vector<std::string> fixedParts(std::string const& record) {
  std::string const text = record.substr(record.find("] ") + 2);
  std::regex const word(R"(\b[A-Z]{2,}\b)");
  return {std::sregex_token_iterator(text.begin(), text.end(), word, -1), {}};
}

std::string const& sourceFolder() {
  static std::string const folder = SOURCE_FOLDER;
  return folder;
}

std::set<std::string> recordsInPages() {
  std::regex const quote(R"(`((detail|info|error) \[\w+\] [^`\n]+)`)");
  std::set<std::string> records;
  for (auto const& page : std::filesystem::directory_iterator(sourceFolder() + "/docs")) {
    if (page.path().extension() != ".md") continue;
    for (std::string& record : allMatches(fileBytes(page.path().string()), quote, 1)) {
      records.insert(std::move(record));
    }
  }
  return records;
}

std::set<std::string> recordsShownHere() {
  std::set<std::string> records;
  for (ProvokedRecord const& row : kProvoked) records.insert(row.record);
  for (RecordElsewhere const& row : kElsewhere) records.insert(row.record);
  return records;
}

std::vector<std::string> difference(std::set<std::string> const& a,
                                    std::set<std::string> const& b) {
  std::vector<std::string> rest;
  std::ranges::set_difference(a, b, std::back_inserter(rest));
  return rest;
}

}  // namespace

TEST(DocumentedRecordsTest, AreAllShownHere) {
  EXPECT_EQ(difference(recordsInPages(), recordsShownHere()), std::vector<std::string>())
      << "A page of docs/ quotes what is not shown here: add a row to kProvoked.";
}

TEST(DocumentedRecordsTest, ShownHereAreAllInThePages) {
  EXPECT_EQ(difference(recordsShownHere(), recordsInPages()), std::vector<std::string>())
      << "No page of docs/ quotes these any more: remove their rows.";
}

class ProvokedRecordsTest : public testing::TestWithParam<ProvokedRecord> {};

TEST_P(ProvokedRecordsTest, AreLoggedAsQuoted) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  LogRecorder const log;
  GetParam().provoke(folder);
  if (IsSkipped()) return;
  std::vector<std::string> const lines = quoted(log.records());
  EXPECT_TRUE(std::ranges::any_of(lines, [](std::string const& line) {
    return matches(line, GetParam().record);
  })) << testing::PrintToString(lines);
}

INSTANTIATE_TEST_SUITE_P(All, ProvokedRecordsTest, testing::ValuesIn(kProvoked));

class RecordsElsewhereTest : public testing::TestWithParam<RecordElsewhere> {};

TEST_P(RecordsElsewhereTest, AreKnownToTheTestThatIsNamed) {
  std::string const test = fileBytes(sourceFolder() + "/tests/" + GetParam().test);
  for (std::string const& part : fixedParts(GetParam().record)) {
    EXPECT_NE(test.find(part), std::string::npos) << "'" << part << "' is not in the test";
  }
}

INSTANTIATE_TEST_SUITE_P(All, RecordsElsewhereTest, testing::ValuesIn(kElsewhere));

TEST(MatchesTest, WordsOfCapitalsStandForAnything) {
  EXPECT_TRUE(matches("error [a] x 12 y", "error [a] x N y"));
  EXPECT_FALSE(matches("error [a] x  y", "error [a] x N y"));
  EXPECT_FALSE(matches("error [a] x 12 z", "error [a] x N y"));
  EXPECT_FALSE(matches("info [a] x 12 y", "error [a] x N y"));
}
