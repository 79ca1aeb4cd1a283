#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"
#include "tests/xml/encodings.h"
#include "tests/xml/process_support.h"
#include "tests/xml/xml_support.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

class AnXmlWritingTest : public testing::Test {
protected:
  static std::wstring writeTrace(std::wstring const& file) { return L"WriteBufferToFile," + file; }

  // The records of a write that fails, after the failure.
  static std::vector<LogRecord> writeFailure(std::wstring const& file) {
    std::wstring const reason = AdvXMLParser::GetLastXmlErrorMessage();
    EXPECT_FALSE(reason.empty());
    return openedScopes({writeTrace(file)}) +
           errorInScopes(L"Xml", {writeTrace(file)}, L"Exception writing file: " + reason);
  }

  mode_t mode() const {
    struct stat status {};

    EXPECT_EQ(::stat(path_.c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  DataFolderScope data_;
  TemporaryFolder folder_;
  std::string path_ = folder_ / "agent.xml";
  std::wstring file_ = folder_.wide("agent.xml");
};

TEST_F(AnXmlWritingTest, FileIsUtf8WithoutMark) {
  std::wstring const document = L"<a b=\"\u00e9\">\u20ac\U0001F600</a>";
  LoadedXml xml(document);
  LogRecorder log;
  EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/false, /*generateFlag=*/false));
  EXPECT_EQ(log.records(), openedScopes({writeTrace(file_)}));
  EXPECT_EQ(fileBytes(path_), toUtf8(document));
  EXPECT_EQ(takeDocument(xml), document);
}

TEST_F(AnXmlWritingTest, GenerateFlagDeclaresAndIndents) {
  LoadedXml xml(L"<a><b c=\"\u20ac\"/><d>text</d></a>");
  LogRecorder log;
  EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/false, /*generateFlag=*/true));
  EXPECT_EQ(log.records(), openedScopes({writeTrace(file_)}));
  std::string const bytes = fileBytes(path_);
  EXPECT_TRUE(bytes.starts_with("<?xml version=\"1.0\""));
  std::size_t const end = bytes.find("?>\n");
  ASSERT_NE(end, std::string::npos);
  EXPECT_EQ(bytes.substr(end + 3), toUtf8(L"<a>\n  <b c=\"\u20ac\"/>\n  <d>text</d>\n</a>\n"));
}

TEST_F(AnXmlWritingTest, OldFileIsReplacedWhole) {
  makeFile(path_, std::string(100000, 'x'));
  LoadedXml xml(L"<a/>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_EQ(fileBytes(path_), "<a/>");
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
}

// What reads the file while it is written sees the old one or the new one: the
// old bytes are never touched.
TEST_F(AnXmlWritingTest, OldBytesAreNotWrittenOver) {
  makeFile(path_, "old");
  std::string const otherName = folder_ / "other.xml";
  ASSERT_EQ(::link(path_.c_str(), otherName.c_str()), 0);
  LoadedXml xml(L"<a/>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_EQ(fileBytes(path_), "<a/>");
  EXPECT_EQ(fileBytes(otherName), "old");
}

TEST_F(AnXmlWritingTest, ModeIsKept) {
  makeFile(path_, "old");
  UmaskScope const umask(0);
  for (mode_t const wanted : {0600U, 0640U, 0666U, 0755U}) {
    ASSERT_EQ(::chmod(path_.c_str(), wanted), 0);
    LoadedXml xml(L"<a/>");
    EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
    EXPECT_EQ(mode(), wanted);
  }
}

TEST_F(AnXmlWritingTest, ModeIsKeptWhereTheUmaskWouldTakeFromIt) {
  makeFile(path_, "old");
  ASSERT_EQ(::chmod(path_.c_str(), 0664), 0);
  UmaskScope const umask(077);
  LoadedXml xml(L"<a/>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_EQ(mode(), 0664U);
}

TEST_F(AnXmlWritingTest, NewFileGetsItsModeFromTheUmask) {
  for (mode_t const mask : {0U, 022U, 027U, 077U}) {
    UmaskScope const umask(mask);
    ::unlink(path_.c_str());
    LoadedXml xml(L"<a/>");
    EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
    EXPECT_EQ(mode(), 0666U & ~mask);
  }
}

TEST_F(AnXmlWritingTest, OwnerIsKept) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give files away";
  makeFile(path_, "old");
  ASSERT_EQ(::chown(path_.c_str(), 4711, 4712), 0);
  LoadedXml xml(L"<a/>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));

  struct stat status {};

  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 4711U);
  EXPECT_EQ(status.st_gid, 4712U);
  EXPECT_EQ(fileBytes(path_), "<a/>");
}

TEST_F(AnXmlWritingTest, TargetOfASymbolicLinkIsReplaced) {
  ASSERT_EQ(::mkdir((folder_ / "data").c_str(), 0755), 0);
  makeFile(folder_ / "data/real.xml", "old");
  ASSERT_EQ(::symlink("data/real.xml", path_.c_str()), 0);
  LoadedXml xml(L"<a/>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  EXPECT_EQ(fileBytes(folder_ / "data/real.xml"), "<a/>");
  EXPECT_EQ(entries(folder_ / "data"), std::vector<std::string>{"real.xml"});
  EXPECT_EQ(entries(folder_.path()), (std::vector<std::string>{"agent.xml", "data"}));
}

TEST_F(AnXmlWritingTest, FifoIsWrittenInPlace) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  int const reader = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  LoadedXml xml(L"<a/>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
  char bytes[16] = {};
  EXPECT_EQ(::read(reader, bytes, sizeof bytes), 4);
  EXPECT_EQ(std::string(bytes), "<a/>");
  ::close(reader);
  EXPECT_TRUE(std::filesystem::is_fifo(path_));
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
}

// Failures.

TEST_F(AnXmlWritingTest, FolderInTheFilesPlaceIsAnError) {
  ASSERT_EQ(::mkdir(path_.c_str(), 0755), 0);
  LoadedXml xml(L"<a/>");
  LogRecorder log;
  EXPECT_FALSE(xml.writeFile(file_.c_str(), false, true));
  EXPECT_EQ(log.records(), writeFailure(file_));
  EXPECT_TRUE(std::filesystem::is_directory(path_));
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
  EXPECT_EQ(takeDocument(xml), L"<a/>");
}

TEST_F(AnXmlWritingTest, MissingFolderIsAnError) {
  std::wstring const file = folder_.wide("none/agent.xml");
  LoadedXml xml(L"<a/>");
  LogRecorder log;
  EXPECT_FALSE(xml.writeFile(file.c_str(), false, false));
  EXPECT_EQ(log.records(), writeFailure(file));
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{});
}

TEST_F(AnXmlWritingTest, FullDeviceIsAnError) {
  LoadedXml xml(L"<a/>");
  LogRecorder log;
  EXPECT_FALSE(xml.writeFile(L"/dev/full", false, false));
  EXPECT_EQ(log.records(), writeFailure(L"/dev/full"));
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST_F(AnXmlWritingTest, NameThatTheLocaleCannotExpressIsAnError) {
  LocaleScope const locale("C");
  std::wstring const file = folder_.wide("") + L"\u20ac.xml";
  LoadedXml xml(L"<a/>");
  LogRecorder log;
  EXPECT_FALSE(xml.writeFile(file.c_str(), false, false));
  EXPECT_EQ(log.records(), writeFailure(file));
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{});
}

TEST_F(AnXmlWritingTest, NullNameIsTheNameThatNullTextReadsAs) {
  runInChild([&] {
    ASSERT_EQ(::chdir(folder_.path().c_str()), 0);
    LoadedXml xml(L"<a/>");
    LogRecorder log;
    EXPECT_TRUE(xml.writeFile(nullptr, false, false));
    EXPECT_EQ(log.records(), openedScopes({writeTrace(L"(null)")}));
  });
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"(null)"});
}

// Stands in for a disk that runs full in the middle of the file.
TEST_F(AnXmlWritingTest, FailureHalfwayLeavesTheOldFile) {
  makeFile(path_, "old");
  runInChild([&] {
    constexpr rlim_t kLimitInBytes = 65536;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit const limit{kLimitInBytes, kLimitInBytes};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    LoadedXml xml(L"<a>" + std::wstring(2 * kLimitInBytes, L'x') + L"</a>");
    LogRecorder log;
    EXPECT_FALSE(xml.writeFile(file_.c_str(), false, false));
    EXPECT_EQ(log.records(), writeFailure(file_));
  });
  EXPECT_EQ(fileBytes(path_), "old");
  EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
}

struct BadRow {
  char const* name;
  std::wstring valueName;  // "": the text
  std::wstring value;
};

TEST_F(AnXmlWritingTest, WhatXmlCannotExpressLeavesTheOldFile) {
  std::vector<BadRow> const rows = {
      {"control character in the text", L"", L"a\x01"},
      {"control character in an attribute", L"n", L"\x1F"},
      {"surrogate in the text", L"", L"\xD800"},
      {"surrogate in an attribute", L"n", L"\xDC00"},
      {"beyond Unicode", L"", std::wstring(1, static_cast<wchar_t>(0x110000))},
      {"U+FFFF", L"", L"\xFFFF"},
      {"blank in a name", L"a b", L"v"},
      {"bracket in a name", L"a>", L"v"},
      {"digit first in a name", L"1", L"v"},
  };
  makeFile(path_, "old");
  for (BadRow const& row : rows) {
    for (bool const encrypt : {false, true}) {
      for (bool const generateFlag : {false, true}) {
        SCOPED_TRACE(row.name);
        AnXml xml;
        ASSERT_TRUE(xml.useNew(L"r", nullptr, nullptr));
        AnXmlNode(&xml).setValue(row.valueName.c_str(), row.value.c_str());
        LogRecorder log;
        EXPECT_FALSE(xml.writeFile(file_.c_str(), encrypt, generateFlag));
        EXPECT_EQ(log.records(), writeFailure(file_));
        EXPECT_EQ(fileBytes(path_), "old");
        EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
        EXPECT_EQ(value(AnXmlNode(&xml), row.valueName.c_str()), row.value) << "it stays in memory";
      }
    }
  }
}

TEST_F(AnXmlWritingTest, BadElementNamesLeaveTheOldFile) {
  makeFile(path_, "old");
  for (wchar_t const* const name : {L"", L" ", L"a b", L"-a", L"a/", L"<", L"a\x01", L"\xD800"}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(name)));
    LoadedXml xml(L"<a/>");
    AnXmlNode(&xml).addChild(nullptr, name, nullptr, nullptr);
    LogRecorder log;
    EXPECT_FALSE(xml.writeFile(file_.c_str(), false, false));
    EXPECT_EQ(log.records(), writeFailure(file_));
    EXPECT_EQ(fileBytes(path_), "old");
  }
}

TEST_F(AnXmlWritingTest, DocumentWithoutRootLeavesTheOldFile) {
  makeFile(path_, "old");
  LoadedXml xml(L"<a/>");
  AnXmlNode(&xml).remove();
  LogRecorder log;
  EXPECT_FALSE(xml.writeFile(file_.c_str(), false, true));
  EXPECT_EQ(log.records(), writeFailure(file_));
  EXPECT_EQ(fileBytes(path_), "old");
}

TEST_F(AnXmlWritingTest, DocumentThatIsTooDeepToBeReadLeavesTheOldFile) {
  for (bool const generateFlag : {false, true}) {
    AnXml xml;
    ASSERT_TRUE(xml.useNew(L"e", nullptr, nullptr));
    AnXmlNode deepest(&xml);
    for (int level = 2; level <= 1000; ++level) {
      deepest.addChild(&deepest, L"e", nullptr, nullptr);
    }
    ASSERT_TRUE(xml.writeFile(file_.c_str(), false, generateFlag));
    AnXml read;
    EXPECT_TRUE(read.useExistingFile(file_.c_str(), L"e", nullptr, nullptr));

    std::string const before = fileBytes(path_);
    deepest.addChild(nullptr, L"e", nullptr, nullptr);
    LogRecorder log;
    EXPECT_FALSE(xml.writeFile(file_.c_str(), false, generateFlag));
    EXPECT_EQ(log.records(), writeFailure(file_));
    EXPECT_EQ(fileBytes(path_), before);
  }
}

TEST_F(AnXmlWritingTest, EmptyHolderIsAnInternalError) {
  for (bool const encrypt : {false, true}) {
    LogRecorder log;
    AnXml xml;
    EXPECT_FALSE(xml.writeFile(file_.c_str(), encrypt, true));
    EXPECT_TRUE(isOneInternalError(log.errors(), L"Xml"));
    EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{});
  }
}

TEST_F(AnXmlWritingTest, EmptyHolderLeavesTheOldFile) {
  makeFile(path_, "old");
  LogRecorder log;
  AnXml xml;
  EXPECT_FALSE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_EQ(fileBytes(path_), "old");
}

// What is written reads back.

// Each way of writing.
template <class Body>
void forEachWayOfWriting(Body const& body) {
  for (bool const encrypt : {false, true}) {
    for (bool const generateFlag : {false, true}) {
      SCOPED_TRACE(std::string(encrypt ? "encrypted" : "plain") +
                   (generateFlag ? ", indented" : ", compact"));
      body(encrypt, generateFlag);
    }
  }
}

std::vector<std::wstring> awkwardValues() {
  return {
      L"",
      L" ",
      L"\n",
      L"\t",
      L"\r",
      L"\r\n",
      L" \t\r\n ",
      L"  blanks around  ",
      L"line\nline\r\nline\rline\ttab",
      L"\"double\" 'single'",
      L"a & b &amp; c &#65; &nope;",
      L"<tag attribute=\"value\">",
      L"a > b]]>c]]]]>>d]",
      L"]]>",
      L"<![CDATA[x]]>",
      L"<!-- no comment -->",
      L"<?no instruction?>",
      L"\u00e9t\u00e9 \u20ac \U0001F600",
      L"\U0010FFFF\U00010000\uFFFD\uE000\uD7FF",
      L"\x7F\x80\x85\x9F\u2028\u2029\u00A0",
      L"\ufeff",
      std::wstring(100000, L'\u20ac'),
  };
}

TEST_F(AnXmlWritingTest, AttributesReadBack) {
  forEachWayOfWriting([&](bool encrypt, bool generateFlag) {
    for (std::wstring const& text : awkwardValues()) {
      SCOPED_TRACE(testing::PrintToString(text.substr(0, 100)));
      AnXml xml;
      ASSERT_TRUE(xml.useNew(L"r", L"v", text.c_str()));
      AnXmlNode(&xml).addChild(nullptr, L"c", L"w", text.c_str());
      LogRecorder log;
      ASSERT_TRUE(xml.writeFile(file_.c_str(), encrypt, generateFlag));
      AnXml read;
      EXPECT_TRUE(read.useExistingFile(file_.c_str(), L"r", L"v", text.c_str()));
      EXPECT_EQ(value(child(AnXmlNode(&read), L"c"), L"w"), text);
      EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    }
  });
}

TEST_F(AnXmlWritingTest, TextsReadBack) {
  forEachWayOfWriting([&](bool encrypt, bool generateFlag) {
    for (std::wstring const& text : awkwardValues()) {
      SCOPED_TRACE(testing::PrintToString(text.substr(0, 100)));
      AnXml xml;
      ASSERT_TRUE(xml.useNew(L"r", nullptr, nullptr));
      AnXmlNode(&xml).addChild(nullptr, L"first", L"", text.c_str());
      AnXmlNode(&xml).addChild(nullptr, L"second", L"", L"plain");
      LogRecorder log;
      ASSERT_TRUE(xml.writeFile(file_.c_str(), encrypt, generateFlag));
      AnXml read;
      ASSERT_TRUE(read.useExistingFile(file_.c_str(), L"r", nullptr, nullptr));
      EXPECT_EQ(value(child(AnXmlNode(&read), L"first"), L""), text);
      EXPECT_EQ(value(child(AnXmlNode(&read), L"second"), L""), L"plain");
      EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    }
  });
}

TEST_F(AnXmlWritingTest, TextsOfTheRootReadBack) {
  forEachWayOfWriting([&](bool encrypt, bool generateFlag) {
    for (std::wstring const& text : awkwardValues()) {
      SCOPED_TRACE(testing::PrintToString(text.substr(0, 100)));
      AnXml xml;
      ASSERT_TRUE(xml.useNew(L"r", L"", text.c_str()));
      ASSERT_TRUE(xml.writeFile(file_.c_str(), encrypt, generateFlag));
      AnXml read;
      EXPECT_TRUE(read.useExistingFile(file_.c_str(), L"r", L"", text.c_str()));
    }
  });
}

TEST_F(AnXmlWritingTest, NamesReadBack) {
  forEachWayOfWriting([&](bool encrypt, bool generateFlag) {
    for (std::wstring const name : {L"a", L"_", L"A.b-c_1", L"p:q", L"\u00e9t\u00e9", L"\u4e2d",
                                    L"\u0391\u03a9", L"x\u00b7"}) {
      SCOPED_TRACE(testing::PrintToString(name));
      AnXml xml;
      ASSERT_TRUE(xml.useNew(name.c_str(), name.c_str(), L"v"));
      LogRecorder log;
      ASSERT_TRUE(xml.writeFile(file_.c_str(), encrypt, generateFlag));
      AnXml read;
      EXPECT_TRUE(read.useExistingFile(file_.c_str(), name.c_str(), name.c_str(), L"v"));
    }
  });
}

TEST_F(AnXmlWritingTest, EncryptedFileDoesNotShowTheText) {
  LoadedXml xml(L"<agent>confidential</agent>");
  EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/true));
  std::string const bytes = fileBytes(path_);
  EXPECT_EQ(bytes.find("confidential"), std::string::npos);
  EXPECT_EQ(bytes.find("agent"), std::string::npos);
  EXPECT_EQ(bytes.find("<?xml"), std::string::npos);
}

TEST_F(AnXmlWritingTest, LoadChangeAndWriteWhereItCameFrom) {
  makeFile(path_, "<agent><task name=\"backup\" status=\"open\"/><task name=\"scan\"/></agent>");
  LogRecorder log;
  AnXml xml;
  ASSERT_TRUE(xml.useExistingFile(file_.c_str(), L"agent", nullptr, nullptr));
  AnXmlNode const root(&xml);
  AnXmlNode task;
  ASSERT_TRUE(root.tryGetChild(&task, L"task", L"name", L"backup", nullptr, nullptr));
  task.setValue(L"status", L"done");
  ASSERT_TRUE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_EQ(fileBytes(path_),
            "<agent><task name=\"backup\" status=\"done\"/><task name=\"scan\"/></agent>");
  EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
}

}  // namespace
}  // namespace vrxutil::test
