#include "tests/support/locale_scope.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/xml/encodings.h"
#include "tests/xml/fake_crypt.h"
#include "tests/xml/process_support.h"
#include "tests/xml/xml_support.h"

#include <vrxcomn/crypto.h>
#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

constexpr wchar_t kDocument[] = L"<agent mode=\"fast\"><task/></agent>";

// A folder with the file "agent.xml" that holds kDocument.
class FileFixture : public testing::Test {
protected:
  FileFixture() { makeFile(path_, toUtf8(kDocument)); }

  // What the operations say that they do with a file.
  static std::wstring useTrace(std::wstring const& file) { return L"useExistingFile," + file; }

  static std::wstring readTrace(std::wstring const& file) {
    return L"ReadBufferFromFileNoExp," + file;
  }

  // The records of reading a file that cannot be read.
  static std::vector<LogRecord> readFailure(std::wstring const& file) {
    return openedScopes({useTrace(file), readTrace(file)}) +
           errorInScopes(L"Xml", {useTrace(file), readTrace(file)},
                         AdvXMLParser::GetLastXmlErrorMessage());
  }

  TemporaryFolder folder_;
  std::string path_ = folder_ / "agent.xml";
  std::wstring file_ = folder_.wide("agent.xml");
  std::wstring missing_ = folder_.wide("missing.xml");
};

class AnXmlLoadingTest : public FileFixture {};

using Use = std::function<bool(AnXml&, wchar_t const* fileName, wchar_t const* rootName,
                               wchar_t const* attributeName, wchar_t const* attributeValue)>;

struct UseRow {
  char const* name;
  Use use;
  bool reportsMissing;
};

std::vector<UseRow> useRows() {
  return {
      {"useFile that reports",
       [](AnXml& xml, auto... arguments) { return xml.useFile(true, arguments...); }, true},
      {"useFile that is quiet",
       [](AnXml& xml, auto... arguments) { return xml.useFile(false, arguments...); }, false},
      {"tryUseFile", [](AnXml& xml, auto... arguments) { return xml.tryUseFile(arguments...); },
       false},
      {"useExistingFile",
       [](AnXml& xml, auto... arguments) { return xml.useExistingFile(arguments...); }, true},
  };
}

TEST_F(AnXmlLoadingTest, FileIsReadAndParsed) {
  for (UseRow const& row : useRows()) {
    SCOPED_TRACE(row.name);
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_TRUE(row.use(xml, file_.c_str(), L"agent", L"mode", L"fast"));
    EXPECT_EQ(log.records(),
              openedScopes({useTrace(file_), readTrace(file_), L"useString,agent,mode,fast"}));
    EXPECT_EQ(takeDocument(xml), kDocument);
  }
}

TEST_F(AnXmlLoadingTest, NullSelectorsAreNotChecked) {
  for (UseRow const& row : useRows()) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(row.use(xml, file_.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(log.records(),
              openedScopes({useTrace(file_), readTrace(file_), L"useString,(null),(null),(null)"}));
  }
}

struct MismatchRow {
  char const* name;
  wchar_t const* rootName;
  wchar_t const* attributeName;
  wchar_t const* attributeValue;
  wchar_t const* useTrace;
  wchar_t const* group;
  wchar_t const* error;
};

TEST_F(AnXmlLoadingTest, MismatchIsReportedInTheScopeOfTheFileAndKeepsTheDocument) {
  constexpr MismatchRow kRows[] = {
      {"root", L"Agent", nullptr, nullptr, L"useString,Agent,(null),(null)", L"Xml",
       L"root node name doesn't match: agent"},
      {"attribute", L"agent", L"speed", nullptr, L"useString,agent,speed,(null)", L"XmlNode",
       L"getValue: required attribute not found: speed"},
      {"value", L"agent", L"mode", L"Fast", L"useString,agent,mode,Fast", L"Xml",
       L"attribute value doesn't match: fast"},
  };
  for (MismatchRow const& row : kRows) {
    for (UseRow const& use : useRows()) {
      SCOPED_TRACE(std::string(row.name) + " by " + use.name);
      LoadedXml xml(L"<old/>");
      LogRecorder log;
      EXPECT_FALSE(
          use.use(xml, file_.c_str(), row.rootName, row.attributeName, row.attributeValue));
      EXPECT_EQ(log.records(),
                openedScopes({useTrace(file_), readTrace(file_), row.useTrace}) +
                    errorInScopes(row.group, {useTrace(file_), row.useTrace}, row.error));
      EXPECT_EQ(takeDocument(xml), kDocument);
    }
  }
}

TEST_F(AnXmlLoadingTest, ParseErrorIsReportedInTheScopeOfTheFileAndLeavesNoDocument) {
  makeFile(path_, "<a>\r\n\xc3\xa9\xc3\xa9<b c=d/></a>");
  for (UseRow const& use : useRows()) {
    SCOPED_TRACE(use.name);
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_FALSE(use.use(xml, file_.c_str(), nullptr, nullptr, nullptr));
    ParseError const error = onlyParseError(log);
    std::wstring const parseTrace = L"useString,(null),(null),(null)";
    EXPECT_EQ(log.records(), openedScopes({useTrace(file_), readTrace(file_), parseTrace}) +
                                 errorInScopes(L"Xml", {useTrace(file_), parseTrace},
                                               L"Parse error line: 2 column: 8 " + error.message));
    EXPECT_EQ(takeDocument(xml), std::nullopt);
  }
}

TEST_F(AnXmlLoadingTest, MissingFileIsReportedWhereAskedForAndKeepsTheDocument) {
  for (UseRow const& row : useRows()) {
    SCOPED_TRACE(row.name);
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_FALSE(row.use(xml, missing_.c_str(), L"agent", nullptr, nullptr));
    if (row.reportsMissing) {
      EXPECT_EQ(log.records(), readFailure(missing_));
      expectLibraryError(log);
    } else {
      EXPECT_EQ(log.records(), openedScopes({useTrace(missing_), readTrace(missing_)}));
    }
    EXPECT_EQ(takeDocument(xml), L"<old/>");
  }
}

TEST_F(AnXmlLoadingTest, NullNameIsTheNameThatNullTextReadsAs) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useExistingFile(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(log.records(), readFailure(L"(null)"));
  EXPECT_EQ(takeDocument(xml), L"<old/>");
}

TEST_F(AnXmlLoadingTest, FileInAMissingFolderIsMissing) {
  std::wstring const file = folder_.wide("none/agent.xml");
  LogRecorder log;
  AnXml xml;
  EXPECT_FALSE(xml.tryUseFile(file.c_str(), nullptr, nullptr, nullptr));
  EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
}

TEST_F(AnXmlLoadingTest, FolderInTheFilesPlaceIsReportedAlwaysAndKeepsTheDocument) {
  std::wstring const folder = folder_.wide("");
  for (UseRow const& row : useRows()) {
    SCOPED_TRACE(row.name);
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_FALSE(row.use(xml, folder.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(log.records(), readFailure(folder));
    expectLibraryError(log);
    EXPECT_EQ(takeDocument(xml), L"<old/>");
  }
}

TEST_F(AnXmlLoadingTest, FileInTheFoldersPlaceIsAnError) {
  std::wstring const file = folder_.wide("agent.xml/more.xml");
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useExistingFile(file.c_str(), nullptr, nullptr, nullptr));
  expectLibraryError(log);
  EXPECT_EQ(takeDocument(xml), L"<old/>");
}

TEST_F(AnXmlLoadingTest, UnreadableFileIsReportedAlways) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(path_.c_str(), 0), 0);
  runInChild([&] {
    if (::geteuid() == 0) {
      constexpr uid_t kNobody = 65534;
      ASSERT_EQ(::setuid(kNobody), 0);
    }
    for (UseRow const& row : useRows()) {
      SCOPED_TRACE(row.name);
      LoadedXml xml(L"<old/>");
      LogRecorder log;
      EXPECT_FALSE(row.use(xml, file_.c_str(), nullptr, nullptr, nullptr));
      expectLibraryError(log);
      EXPECT_EQ(takeDocument(xml), L"<old/>");
    }
  });
}

TEST_F(AnXmlLoadingTest, NameThatTheLocaleCannotExpressIsAnError) {
  LocaleScope const locale("C");
  std::wstring const file = folder_.wide("") + L"\u20ac.xml";
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useExistingFile(file.c_str(), nullptr, nullptr, nullptr));
  expectLibraryError(log);
  EXPECT_EQ(takeDocument(xml), L"<old/>");
}

TEST_F(AnXmlLoadingTest, NameIsInTheEncodingOfTheLocale) {
  LocaleScope const locale("C.UTF-8");
  makeFile(folder_ / "\xe2\x82\xac.xml", "<a/>");
  std::wstring const file = folder_.wide("") + L"\u20ac.xml";
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file.c_str(), L"a", nullptr, nullptr));
}

TEST_F(AnXmlLoadingTest, SymbolicLinkIsFollowed) {
  ASSERT_EQ(::symlink("agent.xml", (folder_ / "link.xml").c_str()), 0);
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(folder_.wide("link.xml").c_str(), L"agent", nullptr, nullptr));
}

// useFileAlways.

TEST_F(AnXmlLoadingTest, UseFileAlwaysTakesTheFile) {
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useFileAlways(file_.c_str(), L"agent", L"mode", L"fast"));
  EXPECT_EQ(log.records(),
            openedScopes({useTrace(file_), readTrace(file_), L"useString,agent,mode,fast"}));
  EXPECT_EQ(takeDocument(xml), kDocument);
}

TEST_F(AnXmlLoadingTest, UseFileAlwaysIsQuietAboutAMissingFile) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_TRUE(xml.useFileAlways(missing_.c_str(), L"agent", L"mode", L"slow"));
  EXPECT_EQ(log.records(),
            openedScopes({useTrace(missing_), readTrace(missing_), L"useNew,agent,mode,slow"}));
  EXPECT_EQ(takeDocument(xml), L"<agent mode=\"slow\"/>");
}

TEST_F(AnXmlLoadingTest, UseFileAlwaysReplacesAFileThatDoesNotFit) {
  LogRecorder log;
  AnXml xml;
  std::wstring const parseTrace = L"useString,server,mode,slow";
  EXPECT_TRUE(xml.useFileAlways(file_.c_str(), L"server", L"mode", L"slow"));
  EXPECT_EQ(log.records(), openedScopes({useTrace(file_), readTrace(file_), parseTrace}) +
                               errorInScopes(L"Xml", {useTrace(file_), parseTrace},
                                             L"root node name doesn't match: agent") +
                               openedScopes({L"useNew,server,mode,slow"}));
  EXPECT_EQ(takeDocument(xml), L"<server mode=\"slow\"/>");
  EXPECT_EQ(fileBytes(path_), toUtf8(kDocument)) << "only the memory changes";
}

struct FallbackRow {
  char const* name;
  wchar_t const* attributeName;
  wchar_t const* attributeValue;
  wchar_t const* document;
};

TEST_F(AnXmlLoadingTest, UseFileAlwaysReplacesAFileWithOtherAttributes) {
  constexpr FallbackRow kRows[] = {
      {"missing attribute", L"speed", nullptr, L"<agent/>"},
      {"missing attribute with value", L"speed", L"1", L"<agent speed=\"1\"/>"},
      {"other value", L"mode", L"slow", L"<agent mode=\"slow\"/>"},
  };
  for (FallbackRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useFileAlways(file_.c_str(), L"agent", row.attributeName, row.attributeValue));
    EXPECT_EQ(takeDocument(xml), row.document);
  }
}

TEST_F(AnXmlLoadingTest, UseFileAlwaysReplacesAFileThatIsNoDocument) {
  makeFile(path_, "<agent");
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useFileAlways(file_.c_str(), L"agent", nullptr, nullptr));
  onlyParseError(log);
  EXPECT_EQ(takeDocument(xml), L"<agent/>");
}

TEST_F(AnXmlLoadingTest, UseFileAlwaysReplacesAFileThatCannotBeRead) {
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useFileAlways(folder_.wide("").c_str(), L"agent", nullptr, nullptr));
  EXPECT_EQ(log.plainErrors().size(), 1U);
  EXPECT_EQ(takeDocument(xml), L"<agent/>");
}

TEST_F(AnXmlLoadingTest, UseFileAlwaysWithoutRootNameFailsLikeUseNew) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useFileAlways(missing_.c_str(), nullptr, nullptr, nullptr));
  EXPECT_EQ(log.plainErrors(), std::vector{errorRecord(L"Xml", L"Null root node name")});
  EXPECT_EQ(takeDocument(xml), L"<old/>");
}

TEST_F(AnXmlLoadingTest, UseFileAlwaysWithoutRootNameTakesAnyFile) {
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useFileAlways(file_.c_str(), nullptr, nullptr, nullptr));
  EXPECT_EQ(takeDocument(xml), kDocument);
}

// Encodings.

struct EncodedRow {
  char const* name;
  std::string bytes;
};

std::wstring textInAllPlanes() { return L"A\u00e9\u20ac\U0001F600\U0010FFFF"; }

std::vector<EncodedRow> encodedRows(std::wstring const& text) {
  std::wstring const marked = L"\ufeff" + text;
  return {
      {"UTF-8", toUtf8(text)},
      {"UTF-8 with mark", toUtf8(marked)},
      {"UTF-16LE", toUtf16(marked, ByteOrder::little)},
      {"UTF-16BE", toUtf16(marked, ByteOrder::big)},
      {"UTF-32LE", toUtf32(marked, ByteOrder::little)},
      {"UTF-32BE", toUtf32(marked, ByteOrder::big)},
  };
}

TEST_F(AnXmlLoadingTest, AllEncodingsLoad) {
  std::wstring const document =
      L"<a v=\"" + textInAllPlanes() + L"\">" + textInAllPlanes() + L"</a>";
  for (EncodedRow const& row : encodedRows(document)) {
    SCOPED_TRACE(row.name);
    makeFile(path_, row.bytes);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"v", textInAllPlanes().c_str()));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    EXPECT_EQ(takeDocument(xml), document);
  }
}

TEST_F(AnXmlLoadingTest, DeclaredEncodingIsIgnored) {
  for (std::wstring const encoding :
       {L"UTF-8", L"UTF-16", L"UTF-16LE", L"ISO-8859-1", L"US-ASCII", L"UTF-32", L"no-such"}) {
    std::wstring const document =
        L"<?xml version=\"1.0\" encoding=\"" + encoding + L"\"?><a>" + textInAllPlanes() + L"</a>";
    for (EncodedRow const& row : encodedRows(document)) {
      SCOPED_TRACE(testing::PrintToString(encoding) + " in " + row.name);
      makeFile(path_, row.bytes);
      LogRecorder log;
      AnXml xml;
      EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"", textInAllPlanes().c_str()));
      EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    }
  }
}

TEST_F(AnXmlLoadingTest, ColumnsDoNotDependOnTheEncoding) {
  for (EncodedRow const& row : encodedRows(L"<a>\r\n\u00e9\u20ac\U0001F600<b c=d/></a>")) {
    SCOPED_TRACE(row.name);
    makeFile(path_, row.bytes);
    LogRecorder log;
    AnXml xml;
    EXPECT_FALSE(xml.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
    expectParseErrorAt(log, 2, 9);
  }
}

// Files as text.

class AnXmlReadFileTest : public FileFixture {};

TEST_F(AnXmlReadFileTest, TextOfAllEncodings) {
  for (std::wstring const& text : {std::wstring(), std::wstring(L"no markup\r\n\n\r\t"),
                                   L"a" + std::wstring(3, L'\0') + L"b", textInAllPlanes()}) {
    for (EncodedRow const& row : encodedRows(text)) {
      SCOPED_TRACE(row.name + testing::PrintToString(text));
      makeFile(path_, row.bytes);

      LogRecorder log;
      std::wstring internal = L"before";
      EXPECT_TRUE(AnXml::internalReadFile(true, file_.c_str(), internal));
      EXPECT_EQ(internal, text);
      EXPECT_EQ(log.records(), openedScopes({readTrace(file_)}));

      log.clear();
      AString existing(L"before");
      EXPECT_TRUE(AnXml::readExistingFile(AString(file_), existing));
      EXPECT_EQ(existing.const_cpp_str(), text);
      EXPECT_EQ(log.records(), openedScopes({readTrace(file_)}));

      log.clear();
      AnObjectBuffer<unsigned char> bytes(std::string("before"));
      EXPECT_TRUE(AnXml::readExistingFileUtf8(AString(file_), bytes));
      EXPECT_EQ(bytes.cpp_str(), toUtf8(text));
      EXPECT_EQ(log.records(), openedScopes({L"ReadUtf8BufferFromFileNoExp," + file_}));
    }
  }
}

TEST_F(AnXmlReadFileTest, MissingFileIsQuietOnlyWhereAskedFor) {
  LogRecorder log;
  std::wstring text;
  EXPECT_FALSE(AnXml::internalReadFile(false, missing_.c_str(), text));
  EXPECT_EQ(log.records(), openedScopes({readTrace(missing_)}));

  log.clear();
  EXPECT_FALSE(AnXml::internalReadFile(true, missing_.c_str(), text));
  EXPECT_EQ(log.records(), openedScopes({readTrace(missing_)}) +
                               errorInScopes(L"Xml", {readTrace(missing_)},
                                             AdvXMLParser::GetLastXmlErrorMessage()));
  expectLibraryError(log);

  log.clear();
  AString existing;
  EXPECT_FALSE(AnXml::readExistingFile(AString(missing_), existing));
  EXPECT_EQ(log.records(), openedScopes({readTrace(missing_)}) +
                               errorInScopes(L"Xml", {readTrace(missing_)},
                                             AdvXMLParser::GetLastXmlErrorMessage()));
}

TEST_F(AnXmlReadFileTest, MissingFileAsUtf8IsAnError) {
  LogRecorder log;
  AnObjectBuffer<unsigned char> bytes(0, nullptr);
  EXPECT_FALSE(AnXml::readExistingFileUtf8(AString(missing_), bytes));
  std::wstring const trace = L"ReadUtf8BufferFromFileNoExp," + missing_;
  EXPECT_EQ(log.records(),
            openedScopes({trace}) +
                errorInScopes(L"Xml", {trace}, AdvXMLParser::GetLastXmlErrorMessage()));
  expectLibraryError(log);
}

TEST_F(AnXmlReadFileTest, UnreadableFileIsReportedAlways) {
  std::wstring const folder = folder_.wide("");
  LogRecorder log;
  std::wstring text;
  EXPECT_FALSE(AnXml::internalReadFile(false, folder.c_str(), text));
  expectLibraryError(log);

  log.clear();
  AString existing;
  EXPECT_FALSE(AnXml::readExistingFile(AString(folder), existing));
  expectLibraryError(log);

  log.clear();
  AnObjectBuffer<unsigned char> bytes(0, nullptr);
  EXPECT_FALSE(AnXml::readExistingFileUtf8(AString(folder), bytes));
  expectLibraryError(log);
}

TEST_F(AnXmlReadFileTest, InvalidBytesAreAnError) {
  using namespace std::string_literals;
  std::vector<EncodedRow> const rows = {
      {"stray continuation", "a\x80z"},
      {"overlong", "\xc0\xaf"},
      {"surrogate in UTF-8", "\xed\xa0\x80"},
      {"beyond Unicode in UTF-8", "\xf4\x90\x80\x80"},
      {"cut UTF-8", "a\xe2\x82"},
      {"cut mark of UTF-8", "\xef\xbb"},
      {"odd number of bytes in UTF-16LE",
       "\xff\xfe"
       "a\0b"s},
      {"odd number of bytes in UTF-16BE",
       "\xfe\xff"
       "\0a\0"s},
      {"lone high surrogate in UTF-16BE", "\xfe\xff\xd8\x3d\0a"s},
      {"lone low surrogate in UTF-16LE", "\xff\xfe\x00\xde"s},
      {"high surrogate at the end of UTF-16BE", "\xfe\xff\xd8\x3d"},
      {"swapped surrogates in UTF-16BE", "\xfe\xff\xde\x00\xd8\x3d"s},
      {"surrogate in UTF-32BE", "\0\0\xfe\xff\0\0\xd8\0"s},
      {"beyond Unicode in UTF-32BE", "\0\0\xfe\xff\0\x11\0\0"s},
      {"beyond Unicode in UTF-32LE", "\xff\xfe\0\0\xff\xff\xff\xff"s},
      {"cut UTF-32LE", "\xff\xfe\0\0a\0\0"s},
      {"cut UTF-32BE", "\0\0\xfe\xff\0\0"s},
  };
  for (EncodedRow const& row : rows) {
    SCOPED_TRACE(row.name);
    makeFile(path_, row.bytes);
    LogRecorder log;
    AString text;
    EXPECT_FALSE(AnXml::readExistingFile(AString(file_), text));
    expectLibraryError(log);

    log.clear();
    AnObjectBuffer<unsigned char> bytes(0, nullptr);
    EXPECT_FALSE(AnXml::readExistingFileUtf8(AString(file_), bytes));
    expectLibraryError(log);

    log.clear();
    LoadedXml xml(L"<old/>");
    EXPECT_FALSE(xml.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
    expectLibraryError(log);
    EXPECT_EQ(takeDocument(xml), L"<old/>");
  }
}

// Encrypted files, with the service of the product.

class AnXmlEncryptedFileTest : public FileFixture {
protected:
  void encrypt(std::wstring const& document) {
    LoadedXml xml(document);
    EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
  }

  DataFolderScope data_;
};

TEST_F(AnXmlEncryptedFileTest, EncryptedFileReadsLikeAPlainOne) {
  encrypt(kDocument);
  std::string const bytes = fileBytes(path_);
  EXPECT_EQ(bytes.find("agent"), std::string::npos);
  EXPECT_EQ(bytes.find("fast"), std::string::npos);

  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"agent", L"mode", L"fast"));
  EXPECT_EQ(log.records(),
            openedScopes({useTrace(file_), readTrace(file_), L"useString,agent,mode,fast"}));
  EXPECT_EQ(takeDocument(xml), kDocument);

  AString text;
  EXPECT_TRUE(AnXml::readExistingFile(AString(file_), text));
  EXPECT_EQ(text.const_cpp_str(), kDocument);
  AnObjectBuffer<unsigned char> utf8(0, nullptr);
  EXPECT_TRUE(AnXml::readExistingFileUtf8(AString(file_), utf8));
  EXPECT_EQ(utf8.cpp_str(), toUtf8(kDocument));
}

TEST_F(AnXmlEncryptedFileTest, EachWritingDiffers) {
  encrypt(kDocument);
  std::string const first = fileBytes(path_);
  encrypt(kDocument);
  EXPECT_NE(fileBytes(path_), first);
}

TEST_F(AnXmlEncryptedFileTest, PlainFileStaysReadableBesideEncryptedOnes) {
  LoadedXml xml(kDocument);
  LogRecorder log;
  EXPECT_TRUE(xml.writeFile(folder_.wide("secret.xml").c_str(), true, false));
  EXPECT_TRUE(xml.writeFile(file_.c_str(), false, false));
  EXPECT_EQ(fileBytes(path_), toUtf8(kDocument));
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"agent", nullptr, nullptr));
}

// A damaged file fails in reading, or in parsing where the damage hides that it
// is encrypted.
void expectDamaged(std::wstring const& file) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useExistingFile(file.c_str(), nullptr, nullptr, nullptr));
  std::vector<LogRecord> const errors = log.plainErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors[0].group, L"Xml");
  bool const parsed = parseErrorIn(errors[0]).has_value();
  EXPECT_EQ(takeDocument(xml), parsed ? OptionalText() : OptionalText(L"<old/>"));
}

TEST_F(AnXmlEncryptedFileTest, EveryChangedByteIsNoticed) {
  encrypt(L"<a b=\"c\"/>");
  std::string const bytes = fileBytes(path_);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    for (int const mask : {0x01, 0x80, 0xFF}) {
      SCOPED_TRACE("byte " + std::to_string(i) + " changed by " + std::to_string(mask));
      std::string changed = bytes;
      changed[i] = static_cast<char>(changed[i] ^ mask);
      makeFile(path_, changed);
      expectDamaged(file_);
    }
  }
}

TEST_F(AnXmlEncryptedFileTest, EveryTruncationIsNoticed) {
  encrypt(L"<a b=\"c\"/>");
  std::string const bytes = fileBytes(path_);
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    SCOPED_TRACE("first " + std::to_string(length) + " bytes");
    makeFile(path_, bytes.substr(0, length));
    expectDamaged(file_);
  }
}

TEST_F(AnXmlEncryptedFileTest, AppendedBytesAreNoticed) {
  encrypt(L"<a b=\"c\"/>");
  makeFile(path_, fileBytes(path_) + "x");
  expectDamaged(file_);
}

TEST_F(AnXmlEncryptedFileTest, OtherKeyDoesNotOpenTheFile) {
  encrypt(kDocument);
  DataFolderScope const otherKey;
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useExistingFile(file_.c_str(), L"agent", nullptr, nullptr));
  EXPECT_EQ(log.records(), readFailure(file_));
  expectLibraryError(log);
  EXPECT_EQ(takeDocument(xml), L"<old/>");

  encrypt(L"<other/>");  // now that this key exists
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"other", nullptr, nullptr));
}

// Encrypted files, with a service of the test's own.

class AnXmlCryptServiceTest : public FileFixture {
protected:
  FakeCryptShim shim_;
};

TEST_F(AnXmlCryptServiceTest, PlainFilesDoNotReachTheService) {
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"agent", nullptr, nullptr));
  EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/false, /*generateFlag=*/true));
  EXPECT_EQ(shim_.typesAsked, std::vector<int>{});
}

TEST_F(AnXmlCryptServiceTest, ServiceSeesUtf8AndGivesItBack) {
  std::wstring const document = L"<a>" + textInAllPlanes() + L"</a>";
  LoadedXml xml(document);
  LogRecorder log;
  EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
  EXPECT_EQ(shim_.encrypted, std::vector{toUtf8(document)});
  std::string const cipher = FakeCryptShim::flip(toUtf8(document));
  EXPECT_TRUE(fileBytes(path_).ends_with(cipher));
  EXPECT_GT(fileBytes(path_).size(), cipher.size()) << "a header stands first";

  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
  EXPECT_EQ(shim_.decrypted, std::vector{cipher});
  EXPECT_EQ(shim_.typesAsked, (std::vector{3, 3}));
  EXPECT_EQ(shim_.objectsAlive, 0);
  EXPECT_EQ(takeDocument(xml), document);
}

TEST_F(AnXmlCryptServiceTest, FailureToDecryptIsAnErrorAndKeepsTheDocument) {
  LoadedXml xml(L"<a/>");
  ASSERT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
  for (FakeCryptShim::Failure const failure :
       {FakeCryptShim::Failure::create, FakeCryptShim::Failure::decrypt}) {
    shim_.failure = failure;
    LogRecorder log;
    EXPECT_FALSE(xml.tryUseFile(file_.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(log.records(), readFailure(file_));
    expectLibraryError(log);
    EXPECT_EQ(written(xml), L"<a/>");
    EXPECT_EQ(shim_.objectsAlive, 0);
  }
}

TEST_F(AnXmlCryptServiceTest, FailureToEncryptLeavesTheFile) {
  LoadedXml xml(L"<a/>");
  for (FakeCryptShim::Failure const failure :
       {FakeCryptShim::Failure::create, FakeCryptShim::Failure::encrypt}) {
    shim_.failure = failure;
    LogRecorder log;
    EXPECT_FALSE(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
    std::wstring const trace = L"WriteBufferToFile," + file_;
    EXPECT_EQ(log.records(),
              openedScopes({trace}) +
                  errorInScopes(L"Xml", {trace},
                                L"Exception writing file: " +
                                    std::wstring(AdvXMLParser::GetLastXmlErrorMessage())));
    EXPECT_EQ(fileBytes(path_), toUtf8(kDocument));
    EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
    EXPECT_EQ(shim_.objectsAlive, 0);

    EXPECT_FALSE(xml.writeFile(missing_.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
    EXPECT_EQ(entries(folder_.path()), std::vector<std::string>{"agent.xml"});
  }
}

TEST_F(AnXmlCryptServiceTest, ExceptionOfTheServicePassesAndChangesNothing) {
  LoadedXml xml(L"<a/>");
  std::wstring const secret = folder_.wide("secret.xml");
  ASSERT_TRUE(xml.writeFile(secret.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
  shim_.failure = FakeCryptShim::Failure::exception;
  EXPECT_THROW(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/false),
               std::runtime_error);
  EXPECT_EQ(fileBytes(path_), toUtf8(kDocument));
  EXPECT_EQ(entries(folder_.path()), (std::vector<std::string>{"agent.xml", "secret.xml"}));
  EXPECT_THROW(xml.useExistingFile(secret.c_str(), nullptr, nullptr, nullptr), std::runtime_error);
  EXPECT_EQ(shim_.objectsAlive, 0);

  LogRecorder log;
  EXPECT_FALSE(xml.useString(L"<b/>", L"other", nullptr, nullptr));
  EXPECT_EQ(log.errors().size(), 3U) << "the scopes of the calls before are closed";
}

TEST_F(AnXmlCryptServiceTest, EncryptedTextWithMarkLosesIt) {
  LoadedXml xml(L"<a/>");
  ASSERT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/true, /*generateFlag=*/false));
  std::string bytes = fileBytes(path_);
  std::string const header = bytes.substr(0, bytes.size() - toUtf8(L"<a/>").size());
  for (EncodedRow const& row : encodedRows(L"<b/>")) {
    SCOPED_TRACE(row.name);
    makeFile(path_, header + FakeCryptShim::flip(row.bytes));
    LogRecorder log;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"b", nullptr, nullptr));
  }
}

}  // namespace
}  // namespace vrxutil::test
