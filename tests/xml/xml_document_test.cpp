#include "tests/support/log_recorder.h"
#include "tests/xml/xml_support.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vrxutil::test {
namespace {

constexpr wchar_t kNoText[] = L"(null)";

std::wstring shown(wchar_t const* text) { return text == nullptr ? kNoText : text; }

// What useString and useNew say that they do.
std::wstring traceText(std::wstring const& operation, wchar_t const* rootName,
                       wchar_t const* attributeName, wchar_t const* attributeValue) {
  return operation + L"," + shown(rootName) + L"," + shown(attributeName) + L"," +
         shown(attributeValue);
}

TEST(AnXmlTest, StartsEmpty) {
  LogRecorder log;
  AnXml xml;
  EXPECT_EQ(xml.relinquishDocument(), nullptr);
  EXPECT_EQ(log.records(), std::vector<LogRecord>{});
}

TEST(AnXmlTest, CloseDestroysTheDocument) {
  LoadedXml xml(L"<a/>");
  LogRecorder log;
  xml.close();
  EXPECT_EQ(takeDocument(xml), std::nullopt);
  xml.close();
  EXPECT_EQ(takeDocument(xml), std::nullopt);
  EXPECT_EQ(log.records(), std::vector<LogRecord>{});
}

TEST(AnXmlTest, RelinquishHandsTheDocumentOver) {
  LoadedXml xml(L"<a><b/></a>");
  LogRecorder log;
  std::unique_ptr<AdvXMLParser::Document> const document(xml.relinquishDocument());
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(xml.relinquishDocument(), nullptr);
  xml.close();
  EXPECT_EQ(document->GenerateXML(false), L"<a><b/></a>");
  EXPECT_EQ(log.records(), std::vector<LogRecord>{});
}

TEST(AnXmlTest, HolderIsUsableAfterItsDocumentWasHandedOver) {
  LoadedXml xml(L"<a/>");
  std::unique_ptr<AdvXMLParser::Document> const document(xml.relinquishDocument());
  load(xml, L"<b/>");
  EXPECT_EQ(takeDocument(xml), L"<b/>");
}

// Selectors of useString.

struct SelectorRow {
  char const* name;
  wchar_t const* rootName;
  wchar_t const* attributeName;
  wchar_t const* attributeValue;
  // Null: the selectors fit.
  wchar_t const* group = nullptr;
  wchar_t const* error = nullptr;
};

constexpr wchar_t kSelected[] = L"<agent mode=\"Fast\" empty=\"\">text</agent>";
constexpr wchar_t kOtherRoot[] = L"root node name doesn't match: agent";
constexpr wchar_t kOtherValue[] = L"attribute value doesn't match: Fast";

constexpr SelectorRow kSelectorRows[] = {
    {"none", nullptr, nullptr, nullptr},
    {"root", L"agent", nullptr, nullptr},
    {"root and attribute", L"agent", L"mode", nullptr},
    {"all", L"agent", L"mode", L"Fast"},
    {"empty value", L"agent", L"empty", L""},
    {"other root", L"server", nullptr, nullptr, L"Xml", kOtherRoot},
    {"other root before other attribute", L"server", L"none", L"x", L"Xml", kOtherRoot},
    {"root in other case", L"Agent", nullptr, nullptr, L"Xml", kOtherRoot},
    {"start of the root's name", L"agen", nullptr, nullptr, L"Xml", kOtherRoot},
    {"longer root", L"agents", nullptr, nullptr, L"Xml", kOtherRoot},
    {"empty root name", L"", nullptr, nullptr, L"Xml", kOtherRoot},
    {"missing attribute", L"agent", L"speed", nullptr, L"XmlNode",
     L"getValue: required attribute not found: speed"},
    {"missing attribute with value", L"agent", L"speed", L"Fast", L"XmlNode",
     L"getValue: required attribute not found: speed"},
    {"attribute in other case", L"agent", L"Mode", L"Fast", L"XmlNode",
     L"getValue: required attribute not found: Mode"},
    {"other value", L"agent", L"mode", L"slow", L"Xml", kOtherValue},
    {"value in other case", L"agent", L"mode", L"fast", L"Xml", kOtherValue},
    {"start of the value", L"agent", L"mode", L"Fas", L"Xml", kOtherValue},
    {"empty expected value", L"agent", L"mode", L"", L"Xml", kOtherValue},
    {"empty value instead of another", L"agent", L"empty", L"Fast", L"Xml",
     L"attribute value doesn't match: "},
    {"the root's text", L"agent", L"", L"text"},
    {"another text of the root", L"agent", L"", L"Text", L"Xml",
     L"attribute value doesn't match: text"},
    {"attribute without root", nullptr, L"none", L"x"},
    {"value without root", nullptr, nullptr, L"x"},
    {"value without attribute", L"agent", nullptr, L"x"},
};

TEST(AnXmlTest, UseStringChecksTheSelectors) {
  for (SelectorRow const& row : kSelectorRows) {
    SCOPED_TRACE(row.name);
    std::wstring const trace =
        traceText(L"useString", row.rootName, row.attributeName, row.attributeValue);
    std::vector<LogRecord> expected = openedScopes({trace});
    if (row.error != nullptr) expected = expected + errorInScopes(row.group, {trace}, row.error);

    LogRecorder log;
    AnXml xml;
    EXPECT_EQ(xml.useString(kSelected, row.rootName, row.attributeName, row.attributeValue),
              row.error == nullptr);
    EXPECT_EQ(log.records(), expected);
    EXPECT_EQ(takeDocument(xml), kSelected) << "the document stays, whatever its root is like";
  }
}

TEST(AnXmlTest, UseStringTakesTheEmptyTextOfARootWithChildren) {
  AnXml xml;
  EXPECT_TRUE(xml.useString(L"<a>text<b/></a>", L"a", L"", L""));
}

TEST(AnXmlTest, UseStringReplacesTheDocument) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useString(L"<new/>", L"other", nullptr, nullptr));
  EXPECT_EQ(takeDocument(xml), L"<new/>");
}

TEST(AnXmlTest, ParseErrorLeavesNoDocument) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useString(L"<a>\n<b c=d/></a>", L"a", nullptr, L"v"));

  std::optional<ParseError> const error = parseErrorIn(log.plainErrors().at(0));
  ASSERT_TRUE(error.has_value());
  std::wstring const trace = L"useString,a,(null),v";
  EXPECT_EQ(log.records(),
            openedScopes({trace}) +
                errorInScopes(L"Xml", {trace}, L"Parse error line: 2 column: 6 " + error->message));
  EXPECT_EQ(takeDocument(xml), std::nullopt);
}

TEST(AnXmlTest, ParseErrorShowsTheScopesOfTheCaller) {
  LogRecorder log;
  AnXml xml;
  ADetailTrace const outer(L"Agent", L"start up");
  EXPECT_FALSE(xml.useString(L"<a", nullptr, nullptr, nullptr));
  std::vector<LogRecord> const errors = log.errors();
  ASSERT_EQ(errors.size(), 4U);
  EXPECT_EQ(errors[0], errorRecord(L"Xml", L"Error trace:"));
  EXPECT_EQ(errors[1], errorRecord(L"Agent", L" [start up]->"));
  EXPECT_EQ(errors[2], errorRecord(L"Xml", L" [useString,(null),(null),(null)]->"));
  EXPECT_TRUE(errors[3].message.starts_with(L"  Parse error line: 1 column: "));
}

TEST(AnXmlTest, HolderIsUsableAfterAParseError) {
  LogRecorder log;
  AnXml xml;
  EXPECT_FALSE(xml.useString(L"<a>", nullptr, nullptr, nullptr));
  EXPECT_TRUE(xml.useString(L"<a/>", L"a", nullptr, nullptr));
  EXPECT_EQ(takeDocument(xml), L"<a/>");
}

// Lines and columns.

struct PositionRow {
  char const* name;
  std::wstring text;
  unsigned long line;
  unsigned long column;
};

std::vector<PositionRow> positionRows() {
  return {
      {"empty text", L"", 1, 1},
      {"blank text", L" \n  ", 2, 3},
      {"no markup", L"text", 1, 1},
      {"first character", L"\x01<a/>", 1, 1},
      {"control character", L"<a>\x01</a>", 1, 4},
      {"second line", L"<a>\n\x01</a>", 2, 1},
      {"tab is one character", L"<a>\n\t\t\x01</a>", 2, 3},
      {"after two bytes", L"<a>\u00e9\x01</a>", 1, 5},
      {"after three bytes", L"<a>\u20ac\x01</a>", 1, 5},
      {"after four bytes", L"<a>\U0001F600\U0001F600\x01</a>", 1, 6},
      {"non-ASCII on the line before", L"<a>\u00e9\u20ac\n\x01</a>", 2, 1},
      {"after CRLF", L"<a>\r\n\r\n  \x01</a>", 3, 3},
      {"after CR", L"<a>\r\rx\x01</a>", 3, 2},
      {"after LF CR", L"<a>\n\r\x01</a>", 3, 1},
      {"non-ASCII after CRLF", L"<a>\r\n\u00e9\u20ac\U0001F600\x01</a>", 2, 4},
      {"surrogate", L"<a>\u00e9\xD800</a>", 1, 5},
      {"beyond Unicode", std::wstring(L"<a>\n\n") + static_cast<wchar_t>(0x110000), 3, 1},
      {"U+FFFE", L"<a>\n\xFFFE</a>", 2, 1},
      {"in an attribute", L"<a>\n<b c=\"\u00e9\x01\"/></a>", 2, 8},
      {"attribute over lines", L"<a b='1\n2\n\x01'/>", 3, 1},
      {"in a comment", L"<a><!-- \x01 --></a>", 1, 9},
      {"in a processing instruction", L"<a><?p \x01?></a>", 1, 8},
      {"in a character data section", L"<a><![CDATA[\x01]]></a>", 1, 13},
      {"attribute without quotes", L"<a>\n<b c=d/></a>", 2, 6},
      {"less-than sign in an attribute", L"<a b=\"<\"/>", 1, 7},
      {"unknown entity", L"<a>\nxy &nope;</a>", 2, 4},
      {"attribute twice", L"<a>\n<b c=\"1\" d=\"2\" c=\"3\"/></a>", 2, 16},
      {"text behind the root", L"<a/>\n x", 2, 2},
      {"second root", L"<a/>\n\n  <b/>", 3, 3},
      {"end of text", L"<a>\n<b>", 2, 4},
      {"end of text after non-ASCII", L"<a>\u00e9\U0001F600", 1, 6},
      {"far right", L"<a>" + std::wstring(100000, L'\u00e9') + L"\x01</a>", 1, 100004},
      {"far down", L"<a>" + std::wstring(100000, L'\n') + L" \x01</a>", 100001, 2},
  };
}

TEST(AnXmlTest, ParseErrorsTellLineAndColumnInCharacters) {
  for (PositionRow const& row : positionRows()) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnXml xml;
    EXPECT_FALSE(xml.useString(row.text.c_str(), nullptr, nullptr, nullptr));
    expectParseErrorAt(log, row.line, row.column);
    EXPECT_EQ(takeDocument(xml), std::nullopt);
  }
}

// A column has to count all characters of the line, wherever the parser cuts its
// input into pieces.
TEST(AnXmlTest, ColumnsAreRightAtEveryDistance) {
  for (std::size_t distance = 0; distance < 300; ++distance) {
    LogRecorder log;
    AnXml xml;
    std::wstring text = L"<a>\n";
    for (std::size_t i = 0; i < distance; ++i) text += i % 3 == 0 ? L'\u00e9' : L'\U0001F600';
    text += L"&nope;</a>";
    EXPECT_FALSE(xml.useString(text.c_str(), nullptr, nullptr, nullptr));
    expectParseErrorAt(log, 2, distance + 1);
  }
}

// Line ends and wide characters lie across all boundaries of powers of two.
TEST(AnXmlTest, PositionsAreRightInBigDocuments) {
  constexpr unsigned long kLines = 500000;
  std::wstring lines;
  for (unsigned long i = 1; i < kLines; ++i) lines += L"x\u00e9\u20ac\U0001F600\r\n";
  for (std::size_t shift = 0; shift < 6; ++shift) {
    SCOPED_TRACE(shift);
    std::wstring const start = L"<a>" + std::wstring(shift, L'\u00e9') + lines;
    LogRecorder log;
    AnXml xml;
    EXPECT_FALSE(xml.useString((start + L"\u00e9&nope;</a>").c_str(), nullptr, nullptr, nullptr));
    expectParseErrorAt(log, kLines, 2);
    log.clear();
    EXPECT_FALSE(xml.useString((start + L"\u00e9\xD800</a>").c_str(), nullptr, nullptr, nullptr));
    expectParseErrorAt(log, kLines, 2);
    log.clear();
    EXPECT_FALSE(xml.useString((start + L"\u00e9\x01</a>").c_str(), nullptr, nullptr, nullptr));
    expectParseErrorAt(log, kLines, 2);
  }
}

// A value of several blocks of the parser's input, and what is wrong behind it.
TEST(AnXmlTest, PositionsAreRightBehindLongValues) {
  constexpr std::size_t kLength = 7U << 20;
  std::wstring const attribute = L"<a b=\"" + std::wstring(kLength, L'\u00e9') + L"\"";
  std::wstring const comment = L"<!--" + std::wstring(kLength, L'x') + L"-->";
  LogRecorder log;
  AnXml xml;
  EXPECT_FALSE(xml.useString((attribute + L">&nope;").c_str(), nullptr, nullptr, nullptr));
  expectParseErrorAt(log, 1, kLength + 9);
  log.clear();
  EXPECT_FALSE(xml.useString((comment + L"<a>\x01").c_str(), nullptr, nullptr, nullptr));
  expectParseErrorAt(log, 1, kLength + 11);
  log.clear();
  EXPECT_TRUE(xml.useString((comment + attribute + L"/>").c_str(), nullptr, nullptr, nullptr));
  AString text;
  EXPECT_TRUE(AnXmlNode(&xml).getExistingValue(L"b", &text));
  EXPECT_TRUE(text.const_cpp_str() == std::wstring(kLength, L'\u00e9'));
}

TEST(AnXmlTest, NullTextIsAParseError) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useString(nullptr, nullptr, nullptr, nullptr));
  onlyParseError(log);
  EXPECT_EQ(takeDocument(xml), std::nullopt);
}

// Fails the test unless writeString() has just given its one reason.
void expectStringNotWritten(LogRecorder const& log) {
  std::wstring const reason = AdvXMLParser::GetLastXmlErrorMessage();
  EXPECT_FALSE(reason.empty());
  EXPECT_EQ(log.records(), errorInScopes(L"Xml", {}, L"Exception writing string: " + reason));
}

// useNew.

struct NewRow {
  char const* name;
  wchar_t const* attributeName;
  wchar_t const* attributeValue;
  wchar_t const* document;
};

TEST(AnXmlTest, UseNewMakesARootWithItsAttribute) {
  constexpr NewRow kRows[] = {
      {"bare", nullptr, nullptr, L"<r/>"},
      {"attribute", L"a", L"v", L"<r a=\"v\"/>"},
      {"empty attribute", L"a", L"", L"<r a=\"\"/>"},
      {"the root's text", L"", L"v", L"<r>v</r>"},
      {"value without attribute", nullptr, L"v", L"<r/>"},
  };
  for (NewRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_TRUE(xml.useNew(L"r", row.attributeName, row.attributeValue));
    EXPECT_EQ(log.records(),
              openedScopes({traceText(L"useNew", L"r", row.attributeName, row.attributeValue)}));
    EXPECT_EQ(takeDocument(xml), row.document);
  }
}

TEST(AnXmlTest, UseNewWithoutRootNameKeepsTheDocument) {
  LoadedXml xml(L"<old/>");
  LogRecorder log;
  EXPECT_FALSE(xml.useNew(nullptr, L"a", L"v"));
  EXPECT_EQ(log.records(),
            openedScopes({L"useNew,(null),a,v"}) +
                errorInScopes(L"Xml", {L"useNew,(null),a,v"}, L"Null root node name"));
  EXPECT_EQ(takeDocument(xml), L"<old/>");
}

TEST(AnXmlTest, UseNewWithoutRootNameLeavesAnEmptyHolderEmpty) {
  LogRecorder log;
  AnXml xml;
  EXPECT_FALSE(xml.useNew(nullptr, nullptr, nullptr));
  EXPECT_EQ(takeDocument(xml), std::nullopt);
}

TEST(AnXmlTest, UseNewReportsAnAttributeWithoutValue) {
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useNew(L"r", L"a", nullptr));
  EXPECT_TRUE(isOneInternalError(log.errors(), L"XmlNode"));
  EXPECT_EQ(takeDocument(xml), L"<r/>");
}

TEST(AnXmlTest, UseNewMakesADocumentThatIsRefusedLaterForABadName) {
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useNew(L"a b", nullptr, nullptr));
  EXPECT_EQ(AnXmlNode(&xml).getName().const_cpp_str(), L"a b");
  log.clear();
  AString text(L"before");
  xml.writeString(&text);
  EXPECT_EQ(text.const_cpp_str(), L"before");
  expectStringNotWritten(log);
}

// writeString.

TEST(AnXmlTest, WriteStringGivesTheTreeAsItStands) {
  std::wstring const document =
      L"<!--before--><a b=\"1\" c=\"&lt;&amp;&quot;\"> <d/>\n<e>x &amp; y</e><!--in--><?p q?></a>";
  LoadedXml xml(document);
  LogRecorder log;
  AString text(L"before");
  xml.writeString(&text);
  EXPECT_EQ(text.const_cpp_str(), document);
  EXPECT_EQ(log.records(), std::vector<LogRecord>{});
  EXPECT_EQ(takeDocument(xml), document);
}

TEST(AnXmlTest, WriteStringOfAnEmptyHolderIsAnInternalError) {
  LogRecorder log;
  AnXml xml;
  AString text(L"before");
  xml.writeString(&text);
  EXPECT_EQ(text.const_cpp_str(), L"before");
  EXPECT_TRUE(isOneInternalError(log.errors(), L"Xml"));
}

TEST(AnXmlTest, WriteStringToNullDoesNothing) {
  LoadedXml xml(L"<a/>");
  LogRecorder log;
  xml.writeString(nullptr);
  EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
  EXPECT_EQ(takeDocument(xml), L"<a/>");
}

struct InexpressibleRow {
  char const* name;
  std::wstring valueName;  // "": the text
  std::wstring value;
};

TEST(AnXmlTest, WriteStringRefusesWhatXmlCannotExpress) {
  std::vector<InexpressibleRow> const rows = {
      {"control character in the text", L"", L"a\x01"},
      {"control character in an attribute", L"n", L"\x1F"},
      {"surrogate in the text", L"", L"\xD800"},
      {"low surrogate in an attribute", L"n", L"a\xDFFF"},
      {"surrogate pair", L"", L"\xD83D\xDE00"},
      {"beyond Unicode", L"", std::wstring(1, static_cast<wchar_t>(0x110000))},
      {"negative", L"n", std::wstring(1, static_cast<wchar_t>(-1))},
      {"U+FFFE", L"", L"\xFFFE"},
      {"U+FFFF", L"n", L"\xFFFF"},
      {"blank in a name", L"a b", L"v"},
      {"digit first in a name", L"1a", L"v"},
      {"markup in a name", L"a=\"x\"><b", L"v"},
      {"control character in a name", L"a\x01", L"v"},
      {"surrogate in a name", L"a\xD800", L"v"},
  };
  for (InexpressibleRow const& row : rows) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnXml xml;
    ASSERT_TRUE(xml.useNew(L"r", nullptr, nullptr));
    AnXmlNode(&xml).setValue(row.valueName.c_str(), row.value.c_str());
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    log.clear();
    AString text(L"before");
    xml.writeString(&text);
    EXPECT_EQ(text.const_cpp_str(), L"before");
    expectStringNotWritten(log);
  }
}

TEST(AnXmlTest, WriteStringRefusesADocumentWithoutRoot) {
  LoadedXml xml(L"<!--c--><a/>");
  AnXmlNode(&xml).remove();
  LogRecorder log;
  AString text(L"before");
  xml.writeString(&text);
  EXPECT_EQ(text.const_cpp_str(), L"before");
  expectStringNotWritten(log);
}

// What well-formed documents turn into.

struct TreeRow {
  char const* name;
  std::wstring document;
  std::wstring tree;
};

TEST(AnXmlTest, ParsingExpandsAndNormalises) {
  std::vector<TreeRow> const rows = {
      {"predefined entities", L"<a>&lt;&gt;&amp;&quot;&apos;</a>", L"<>&\"'"},
      {"character references", L"<a>&#65;&#x1F600;&#xe9;</a>", L"A\U0001F600\u00e9"},
      {"reference to CR", L"<a>x&#13;y</a>", L"x\ry"},
      {"CRLF is LF", L"<a>x\r\ny\rz</a>", L"x\ny\nz"},
      {"character data", L"<a>1<![CDATA[<&>]]>2</a>", L"1<&>2"},
      {"comments are no text", L"<a>1<!-- 2 -->3<?p 4?>5</a>", L"135"},
      {"blanks stay", L"<a>  x  </a>", L"  x  "},
      {"only blanks", L"<a> \n </a>", L" \n "},
      {"entity", L"<!DOCTYPE a [<!ENTITY e \"<![CDATA[x]]>y\">]><a>&e;&e;</a>", L"xyxy"},
      {"nested entity", L"<!DOCTYPE a [<!ENTITY e \"1&f;\"><!ENTITY f \"2\">]><a>&e;3</a>", L"123"},
      {"declared encoding", L"<?xml version=\"1.0\" encoding=\"no-such\"?><a>\u20ac</a>",
       L"\u20ac"},
      {"no text", L"<a/>", L""},
  };
  for (TreeRow const& row : rows) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useString(row.document.c_str(), L"a", nullptr, nullptr));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    EXPECT_EQ(value(AnXmlNode(&xml), L""), row.tree);
  }
}

TEST(AnXmlTest, ParsingNormalisesAttributes) {
  std::vector<TreeRow> const rows = {
      {"line ends are blanks", L"<a v=\"1\n2\r\n3\t4\"/>", L"1 2 3 4"},
      {"references stay", L"<a v=\"1&#10;2&#13;3&#9;4\"/>", L"1\n2\r3\t4"},
      {"single quotes", L"<a v='\"&apos;'/>", L"\"'"},
      {"entity", L"<!DOCTYPE a [<!ENTITY e \"x&lt;y\">]><a v=\"-&e;-\"/>", L"-x<y-"},
      {"default", L"<!DOCTYPE a [<!ATTLIST a v CDATA \"d\">]><a/>", L"d"},
      {"given beside a default", L"<!DOCTYPE a [<!ATTLIST a v CDATA \"d\">]><a v=\"g\"/>", L"g"},
      {"token type", L"<!DOCTYPE a [<!ATTLIST a v NMTOKENS #IMPLIED>]><a v=\"  x   y \"/>", L"x y"},
  };
  for (TreeRow const& row : rows) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useString(row.document.c_str(), L"a", nullptr, nullptr));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    EXPECT_EQ(value(AnXmlNode(&xml), L"v"), row.tree);
  }
}

TEST(AnXmlTest, PrefixesArePartsOfNames) {
  LogRecorder log;
  AnXml xml;
  std::wstring const document = L"<p:a xmlns:q=\"urn:q\" p:b=\"1\" q:b=\"2\"><q:c/></p:a>";
  EXPECT_TRUE(xml.useString(document.c_str(), L"p:a", L"p:b", L"1"));
  EXPECT_EQ(value(AnXmlNode(&xml), L"q:b"), L"2");
  EXPECT_EQ(value(AnXmlNode(&xml), L"xmlns:q"), L"urn:q");
  EXPECT_EQ(takeDocument(xml), document);
}

// Conversions.

struct Utf8Row {
  char const* name;
  std::string utf8;
  std::wstring text;
};

std::vector<Utf8Row> utf8Rows() {
  return {
      {"empty", "", L""},
      {"ASCII", "plain <text> &amp;\r\n\t", L"plain <text> &amp;\r\n\t"},
      {"control characters", "\x01\x1f\x7f", L"\x01\x1f\x7f"},
      {"largest of one byte", "\x7f", L"\x7f"},
      {"smallest of two bytes", "\xc2\x80", L"\x80"},
      {"largest of two bytes", "\xdf\xbf", L"\u07ff"},
      {"smallest of three bytes", "\xe0\xa0\x80", L"\u0800"},
      {"before the surrogates", "\xed\x9f\xbf", L"\ud7ff"},
      {"after the surrogates", "\xee\x80\x80", L"\ue000"},
      {"largest of three bytes", "\xef\xbf\xbf", L"\uffff"},
      {"smallest of four bytes", "\xf0\x90\x80\x80", L"\U00010000"},
      {"largest", "\xf4\x8f\xbf\xbf", L"\U0010ffff"},
      {"mark inside", "a\xef\xbb\xbf", L"a\ufeff"},
  };
}

TEST(AnXmlConversionTest, Utf8BecomesWideText) {
  for (Utf8Row const& row : utf8Rows()) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AString text(L"before");
    EXPECT_TRUE(AnXml::convertUtf8ToUnicode(row.utf8.c_str(), text));
    EXPECT_EQ(text.const_cpp_str(), row.text);
    EXPECT_EQ(log.records(),
              openedScopes({L"ConvertBufferToUnicode," + std::to_wstring(row.utf8.size())}));
  }
}

TEST(AnXmlConversionTest, WideTextBecomesUtf8) {
  for (Utf8Row const& row : utf8Rows()) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    AnObjectBuffer<unsigned char> bytes(std::string("before"));
    EXPECT_TRUE(AnXml::convertUnicodeToUtf8(row.text.c_str(), bytes));
    EXPECT_EQ(bytes.cpp_str(), row.utf8);
    EXPECT_EQ(log.records(), openedScopes({L"ConvertBufferToUtf8"}));
  }
}

TEST(AnXmlConversionTest, LeadingMarkIsDropped) {
  AString text;
  EXPECT_TRUE(
      AnXml::convertUtf8ToUnicode("\xef\xbb\xbf"
                                  "ab",
                                  text));
  EXPECT_EQ(text.const_cpp_str(), L"ab");
  EXPECT_TRUE(AnXml::convertUtf8ToUnicode("\xef\xbb\xbf", text));
  EXPECT_EQ(text.const_cpp_str(), L"");
  EXPECT_TRUE(AnXml::convertUtf8ToUnicode("\xef\xbb\xbf\xef\xbb\xbf", text));
  EXPECT_EQ(text.const_cpp_str(), L"\ufeff");
}

TEST(AnXmlConversionTest, NullIsAnEmptyText) {
  LogRecorder log;
  AString text(L"before");
  EXPECT_TRUE(AnXml::convertUtf8ToUnicode(nullptr, text));
  EXPECT_EQ(text.const_cpp_str(), L"");
  AnObjectBuffer<unsigned char> bytes(std::string("before"));
  EXPECT_TRUE(AnXml::convertUnicodeToUtf8(nullptr, bytes));
  EXPECT_EQ(bytes.cpp_str(), "");
  EXPECT_EQ(log.records(), openedScopes({L"ConvertBufferToUnicode,0", L"ConvertBufferToUtf8"}));
}

TEST(AnXmlConversionTest, InvalidUtf8IsAnError) {
  constexpr std::pair<char const*, char const*> kRows[] = {
      {"continuation alone", "a\x80"},
      {"overlong of two bytes", "\xc0\xaf"},
      {"overlong of two bytes, second", "\xc1\xbf"},
      {"overlong of three bytes", "\xe0\x9f\xbf"},
      {"overlong of four bytes", "\xf0\x8f\xbf\xbf"},
      {"surrogate", "\xed\xa0\x80"},
      {"low surrogate", "\xed\xbf\xbf"},
      {"beyond Unicode", "\xf4\x90\x80\x80"},
      {"five bytes", "\xf8\x88\x80\x80\x80"},
      {"never a byte", "\xff"},
      {"UTF-16 mark", "\xfe\xff"},
      {"two bytes cut", "a\xc3"},
      {"three bytes cut", "\xe2\x82"},
      {"four bytes cut", "\xf0\x9f\x98"},
      {"broken inside", "\xe2\x28\xa1"},
  };
  for (auto const& [name, utf8] : kRows) {
    SCOPED_TRACE(name);
    LogRecorder log;
    AString text(L"before");
    EXPECT_FALSE(AnXml::convertUtf8ToUnicode(utf8, text));
    EXPECT_EQ(text.const_cpp_str(), L"before");
    expectLibraryError(log);
    std::wstring const trace =
        L"ConvertBufferToUnicode," + std::to_wstring(std::string(utf8).size());
    EXPECT_EQ(log.records(),
              openedScopes({trace}) +
                  errorInScopes(L"Xml", {trace}, AdvXMLParser::GetLastXmlErrorMessage()));
  }
}

TEST(AnXmlConversionTest, WhatIsNoCharacterIsAnError) {
  std::pair<char const*, std::wstring> const rows[] = {
      {"first surrogate", L"a\xD800"},
      {"last surrogate", L"\xDFFF"},
      {"surrogate pair", L"\xD83D\xDE00"},
      {"beyond Unicode", std::wstring(1, static_cast<wchar_t>(0x110000))},
      {"negative", std::wstring(1, static_cast<wchar_t>(-2))},
  };
  for (auto const& [name, text] : rows) {
    SCOPED_TRACE(name);
    LogRecorder log;
    AnObjectBuffer<unsigned char> bytes(std::string("before"));
    EXPECT_FALSE(AnXml::convertUnicodeToUtf8(text.c_str(), bytes));
    EXPECT_EQ(bytes.cpp_str(), "before");
    EXPECT_EQ(log.records(), openedScopes({L"ConvertBufferToUtf8"}) +
                                 errorInScopes(L"Xml", {L"ConvertBufferToUtf8"},
                                               AdvXMLParser::GetLastXmlErrorMessage()));
    expectLibraryError(log);
  }
}

}  // namespace
}  // namespace vrxutil::test
