// Files that somebody made to crash, hang, exhaust or deceive their reader.

#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/xml/encodings.h"
#include "tests/xml/process_support.h"
#include "tests/xml/xml_support.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

// What a child process may take for any of these files. Text of 10 MiB takes
// 40 MiB as wide text, and the sanitizers keep what was freed for a while.
constexpr long kMemoryInMiB = 1024;

// The thread sanitizer shadows all memory that is touched.
#if defined(__SANITIZE_THREAD__)
constexpr long kWithShadow = 2;
#else
constexpr long kWithShadow = 1;
#endif

class HostileFileTest : public testing::Test {
protected:
  void make(std::string const& bytes) { makeFile(path_, bytes); }

  // Fails the test unless the file is refused with one parse error.
  ParseError expectParseError() {
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_FALSE(xml.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(takeDocument(xml), std::nullopt);
    return onlyParseError(log);
  }

  // Fails the test unless the file cannot be read, which leaves the document.
  void expectReadError() {
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_FALSE(xml.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
    expectLibraryError(log);
    EXPECT_EQ(takeDocument(xml), L"<old/>");
  }

  // Fails the test unless the file is refused with one error, whichever.
  void expectRefused() {
    LoadedXml xml(L"<old/>");
    LogRecorder log;
    EXPECT_FALSE(xml.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
    std::vector<LogRecord> const errors = log.plainErrors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].group, L"Xml");
    bool const parsed = parseErrorIn(errors[0]).has_value();
    EXPECT_EQ(takeDocument(xml), parsed ? OptionalText() : OptionalText(L"<old/>"));
  }

  // The same, in bounded memory.
  void expectParseErrorInBoundedMemory() {
    runWithinMemory(kMemoryInMiB, [this] { expectParseError(); });
  }

  TemporaryFolder folder_;
  std::string path_ = folder_ / "hostile.xml";
  std::wstring file_ = folder_.wide("hostile.xml");
};

std::string repeated(std::string const& text, std::size_t count) {
  std::string all;
  all.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

// Not well-formed.

struct MalformedRow {
  char const* name;
  std::string bytes;
};

TEST_F(HostileFileTest, MalformedFilesAreParseErrors) {
  std::vector<MalformedRow> const rows = {
      {"empty", ""},
      {"blank", " \r\n\t "},
      {"mark alone", "\xef\xbb\xbf"},
      {"text", "agent=1"},
      {"text before", "x<a/>"},
      {"text behind", "<a/>x"},
      {"two roots", "<a/><b/>"},
      {"comment alone", "<!--c-->"},
      {"declaration alone", "<?xml version=\"1.0\"?>"},
      {"blank before the declaration", " <?xml version=\"1.0\"?><a/>"},
      {"two declarations", "<?xml version=\"1.0\"?><?xml version=\"1.0\"?><a/>"},
      {"document type alone", "<!DOCTYPE a>"},
      {"document type behind", "<a/><!DOCTYPE a>"},
      {"two document types", "<!DOCTYPE a><!DOCTYPE a><a/>"},
      {"open element", "<a>"},
      {"closed element", "</a>"},
      {"crossed elements", "<a><b></a></b>"},
      {"names in other case", "<a></A>"},
      {"no name", "<>x</>"},
      {"blank before the name", "< a/>"},
      {"digit first", "<1a/>"},
      {"attribute without value", "<a b/>"},
      {"attribute without quotes", "<a b=c/>"},
      {"attribute with one quote", "<a b=\"c/>"},
      {"mixed quotes", "<a b=\"c'/>"},
      {"attributes without blank", "<a b=\"1\"c=\"2\"/>"},
      {"attribute twice", "<a b=\"1\" b=\"2\"/>"},
      {"attribute in the end tag", "<a></a b=\"1\">"},
      {"less-than sign in an attribute", "<a b=\"<\"/>"},
      {"less-than sign in the text", "<a>1 < 2</a>"},
      {"ampersand in the text", "<a>1 & 2</a>"},
      {"ampersand in an attribute", "<a b=\"1 & 2\"/>"},
      {"end of character data in the text", "<a>]]></a>"},
      {"open character data", "<a><![CDATA[x</a>"},
      {"character data outside", "<![CDATA[x]]><a/>"},
      {"two hyphens in a comment", "<a><!-- -- --></a>"},
      {"open comment", "<a><!-- </a>"},
      {"open instruction", "<a><?p </a>"},
      {"instruction called xml", "<a><?xml x?></a>"},
      {"unknown entity", "<a>&nope;</a>"},
      {"unknown entity in an attribute", "<a b=\"&nope;\"/>"},
      {"unknown entity behind a document type", "<!DOCTYPE a []><a>&nope;</a>"},
      {"unknown entity behind an external document type",
       "<!DOCTYPE a SYSTEM \"none.dtd\"><a>&nope;</a>"},
      {"unknown entity in an attribute behind an external document type",
       "<!DOCTYPE a SYSTEM \"none.dtd\"><a b=\"&nope;\"/>"},
      {"unknown entity in a default behind an external document type",
       "<!DOCTYPE a SYSTEM \"none.dtd\" [<!ATTLIST a b CDATA \"x&nope;y\">]><a/>"},
      {"unknown entity in an entity behind an external document type",
       "<!DOCTYPE a SYSTEM \"none.dtd\" [<!ENTITY e \"x&nope;y\">]><a>&e;</a>"},
      {"unknown entity in an entity's attribute behind an external document type",
       "<!DOCTYPE a SYSTEM \"none.dtd\" [<!ENTITY e \"<b c='&nope;'/>\">]><a>&e;</a>"},
      {"entity without semicolon", "<a>&amp</a>"},
      {"reference to NUL", "<a>&#0;</a>"},
      {"reference to a control character", "<a>&#1;</a>"},
      {"reference to a surrogate", "<a>&#xD800;</a>"},
      {"reference to U+FFFE", "<a>&#xFFFE;</a>"},
      {"reference beyond Unicode", "<a>&#x110000;</a>"},
      {"reference beyond 32 bits", "<a>&#4294967361;</a>"},
      {"reference without number", "<a>&#;</a>"},
      {"reference to letters", "<a>&#zz;</a>"},
      {"control character", "<a>\x01</a>"},
      {"control character in an attribute", "<a b=\"\x1f\"/>"},
      {"control character in a comment", "<a><!--\x02--></a>"},
      {"control character outside", "\x01<a/>"},
      {"U+FFFF", "<a>\xef\xbf\xbf</a>"},
      {"mark inside the declaration", "<?xml\xef\xbb\xbf version=\"1.0\"?><a/>"},
      {"entity that contains itself", "<!DOCTYPE a [<!ENTITY e \"&e;\">]><a>&e;</a>"},
      {"entities that contain each other",
       "<!DOCTYPE a [<!ENTITY e \"&f;\"><!ENTITY f \"&e;\">]><a>&e;</a>"},
      {"entity that contains itself in an attribute",
       "<!DOCTYPE a [<!ENTITY e \"&e;\">]><a b=\"&e;\"/>"},
      {"entity that contains itself in a default",
       "<!DOCTYPE a [<!ENTITY e \"&e;\"><!ATTLIST a b CDATA \"&e;\">]><a/>"},
      {"entity with an open element", "<!DOCTYPE a [<!ENTITY e \"<b>\">]><a>&e;</b></a>"},
      {"entity with an end tag", "<!DOCTYPE a [<!ENTITY e \"</a>\">]><a>&e;"},
      {"entity with less-than sign in an attribute",
       "<!DOCTYPE a [<!ENTITY e \"<\">]><a b=\"&e;\"/>"},
      {"unparsed entity",
       "<!DOCTYPE a [<!NOTATION n SYSTEM \"n\"><!ENTITY e SYSTEM \"f\" NDATA n>]><a>&e;</a>"},
      {"parameter entity that contains itself", "<!DOCTYPE a [<!ENTITY % p \"%p;\">%p;]><a/>"},
      {"unknown parameter entity", "<!DOCTYPE a [%nope;]><a>&x;</a>"},
      {"open document type", "<!DOCTYPE a [<a/>"},
      {"open declaration in the document type", "<!DOCTYPE a [<!ENTITY e \"x]><a/>"},
  };
  for (MalformedRow const& row : rows) {
    SCOPED_TRACE(row.name);
    make(row.bytes);
    expectParseError();
  }
}

TEST_F(HostileFileTest, EveryTruncationIsAnError) {
  std::string const document =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\r\n"
      "<!-- \xc3\xa9 -->"
      "<!DOCTYPE a [<!ENTITY e \"x\xe2\x82\xacy\"><!ATTLIST a d CDATA \"&e;\">]>"
      "<?p data?>"
      "<a b=\"&lt;\" c='\xf0\x9f\x98\x80'>text &e; &#65;<![CDATA[<raw>]]>"
      "<b><!-- c --><c/></b></a>";
  make(document);
  AnXml xml;
  ASSERT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"d", L"x\u20acy"));
  for (std::size_t length = 0; length < document.size(); ++length) {
    SCOPED_TRACE("first " + std::to_string(length) + " bytes");
    make(document.substr(0, length));
    expectRefused();
  }
}

TEST_F(HostileFileTest, EveryTruncationInOtherEncodingsIsAnError) {
  std::wstring const document = L"\ufeff<a b=\"\u20ac\">\U0001F600<c/></a>";
  for (std::string const& bytes :
       {toUtf16(document, ByteOrder::little), toUtf16(document, ByteOrder::big),
        toUtf32(document, ByteOrder::little), toUtf32(document, ByteOrder::big)}) {
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      SCOPED_TRACE("first " + std::to_string(length) + " bytes");
      make(bytes.substr(0, length));
      expectRefused();
    }
  }
}

// Bytes that are no text.

TEST_F(HostileFileTest, InvalidBytesAreReadErrors) {
  for (std::string const& bytes : {
           std::string("\x80"),
           std::string("\xff"),
           std::string("\xc0\x80"),
           std::string("\xc1\xbf"),
           std::string("\xe0\x80\x80"),
           std::string("\xe0\x9f\xbf"),
           std::string("\xf0\x80\x80\x80"),
           std::string("\xf0\x8f\xbf\xbf"),
           std::string("\xed\xa0\x80"),
           std::string("\xed\xbf\xbf"),
           std::string("\xed\xa0\xbd\xed\xb8\x80"),
           std::string("\xf4\x90\x80\x80"),
           std::string("\xf5\x80\x80\x80"),
           std::string("\xf8\x88\x80\x80\x80"),
           std::string("\xfc\x84\x80\x80\x80\x80"),
           std::string("\xc3"),
           std::string("\xe2\x82"),
           std::string("\xf0\x9f\x98"),
       }) {
    SCOPED_TRACE(testing::PrintToString(bytes));
    make("<a>" + bytes + "</a>");
    expectReadError();
    make("<a b=\"" + bytes + "\"/>");
    expectReadError();
    make("<a/>" + bytes);
    expectReadError();
  }
}

TEST_F(HostileFileTest, NulIsAParseErrorWhereItStands) {
  using namespace std::string_literals;

  struct Row {
    char const* name;
    std::string bytes;
    unsigned long line;
    unsigned long column;
  };

  std::vector<Row> const rows = {
      {"alone", "\0"s, 1, 1},
      {"first", "\0<a/>"s, 1, 1},
      {"in the text", "<a>\n\xc3\xa9\0</a>"s, 2, 2},
      {"in an attribute", "<a b=\"\0\"/>"s, 1, 7},
      {"in a comment", "<a><!--\0--></a>"s, 1, 8},
      {"in character data", "<a><![CDATA[\0]]></a>"s, 1, 13},
      {"last", "<a/>\0"s, 1, 5},
      {"before garbage", "<a/>\0<<<garbage>>>"s, 1, 5},
      {"before another document", "<a/>\r\n\0<b/>"s, 2, 1},
      {"in a record of zeros", "<a/>" + std::string(4096, '\0'), 1, 5},
      {"second", "<\0a/>"s, 1, 2},
      {"every second", "<\0a\0/\0>\0"s, 1, 2},
      {"in front of each", "\0<\0a\0/\0>"s, 1, 1},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    make(row.bytes);
    ParseError const error = expectParseError();
    EXPECT_EQ(error.line, row.line);
    EXPECT_EQ(error.column, row.column);
  }
}

TEST_F(HostileFileTest, NulInOtherEncodingsIsAParseError) {
  std::wstring const document = std::wstring(L"\ufeff<a/>") + L'\0' + L"<b/>";
  for (std::string const& bytes :
       {toUtf16(document, ByteOrder::little), toUtf16(document, ByteOrder::big),
        toUtf32(document, ByteOrder::little), toUtf32(document, ByteOrder::big)}) {
    make(bytes);
    ParseError const error = expectParseError();
    EXPECT_EQ(error.line, 1U);
    EXPECT_EQ(error.column, 5U);
  }
}

// Without a mark it is UTF-8, and half of its characters are NUL.
TEST_F(HostileFileTest, Utf16WithoutMarkIsAParseErrorAtTheFirstNul) {
  make(toUtf16(L"<a/>", ByteOrder::little));
  ParseError const little = expectParseError();
  EXPECT_EQ(little.line, 1U);
  EXPECT_EQ(little.column, 2U);
  make(toUtf16(L"<a/>", ByteOrder::big));
  ParseError const big = expectParseError();
  EXPECT_EQ(big.line, 1U);
  EXPECT_EQ(big.column, 1U);
}

// Entities.

// Declares the entities prefix0 (`text`) to prefixN, each one `width` times the
// one before.
std::string tower(std::string const& text, std::size_t levels, std::size_t width) {
  std::string declarations = "<!ENTITY e0 \"" + text + "\">";
  for (std::size_t i = 1; i <= levels; ++i) {
    declarations += "<!ENTITY e" + std::to_string(i) + " \"" +
                    repeated("&e" + std::to_string(i - 1) + ";", width) + "\">";
  }
  return declarations;
}

std::string withDeclarations(std::string const& declarations, std::string const& document) {
  return "<!DOCTYPE a [" + declarations + "]>" + document;
}

TEST_F(HostileFileTest, NestedEntityBombIsAParseError) {
  std::string const declarations = tower("lol", 9, 10);
  for (char const* const document : {"<a>&e9;</a>", "<a b=\"&e9;\"/>", "<a><b>&e9;</b></a>"}) {
    SCOPED_TRACE(document);
    make(withDeclarations(declarations, document));
    expectParseErrorInBoundedMemory();
  }
}

TEST_F(HostileFileTest, NestedEntityBombOfNothingIsAParseError) {
  make(withDeclarations(tower("", 12, 10), "<a>&e12;</a>"));
  expectParseErrorInBoundedMemory();
}

TEST_F(HostileFileTest, NestedEntityBombOfElementsIsAParseError) {
  make(withDeclarations(tower("<b/>", 9, 10), "<a>&e9;</a>"));
  expectParseErrorInBoundedMemory();
}

TEST_F(HostileFileTest, NestedEntityBombInADefaultIsAParseError) {
  make(withDeclarations(tower("lol", 9, 10) + "<!ATTLIST a b CDATA \"&e9;\">", "<a/>"));
  expectParseErrorInBoundedMemory();
}

TEST_F(HostileFileTest, OneBigEntityManyTimesIsAParseError) {
  std::string const big = std::string(1 << 20, 'x');
  make(withDeclarations("<!ENTITY e \"" + big + "\">", "<a>" + repeated("&e;", 20000) + "</a>"));
  expectParseErrorInBoundedMemory();
  make(withDeclarations("<!ENTITY e \"" + big + "\">",
                        "<a>" + repeated("<b c=\"&e;\"/>", 20000) + "</a>"));
  expectParseErrorInBoundedMemory();
}

// The parser library alone lets a big document have a hundred times its size of
// these, and each takes more memory than its few bytes.
TEST_F(HostileFileTest, OneEntityOfManySmallNodesManyTimesIsAParseError) {
  std::string const start = "<a><!--" + std::string(1 << 20, 'x') + "-->";
  for (char const* const node : {"<!---->", "<?p?>", "<![CDATA[]]>", "x<b/>"}) {
    SCOPED_TRACE(node);
    make(withDeclarations("<!ENTITY e \"" + repeated(node, 2000) + "\">",
                          start + repeated("&e;", 5000) + "</a>"));
    runWithinMemory(kMemoryInMiB, [this] { expectParseError(); });
  }
}

// All of these count less than what they take in the document.
TEST_F(HostileFileTest, ManySmallNodesLoad) {
  for (char const* const node :
       {"<!---->", "<?p?>", "<![CDATA[]]>", "x<b/>", "\xf0\x9f\x98\x80<b c=\"\"/>"}) {
    SCOPED_TRACE(node);
    make("<a>" + repeated(node, 300000) + "</a>");
    std::string const bytes = fileBytes(path_);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
    EXPECT_TRUE(toUtf8(written(xml)) == bytes);
  }
}

TEST_F(HostileFileTest, BigDefaultAttributeOnManyElementsIsAParseError) {
  make(withDeclarations("<!ATTLIST b c CDATA \"" + std::string(65536, 'x') + "\">",
                        "<a>" + repeated("<b/>", 100000) + "</a>"));
  expectParseErrorInBoundedMemory();
}

TEST_F(HostileFileTest, ManyDefaultAttributesOnManyElementsAreAParseError) {
  std::string declarations;
  for (int i = 0; i < 10000; ++i) {
    declarations += "<!ATTLIST b c" + std::to_string(i) + " CDATA \"\">";
  }
  make(withDeclarations(declarations, "<a>" + repeated("<b/>", 100000) + "</a>"));
  expectParseErrorInBoundedMemory();
}

// A chain of entities, the first of which refers to the second and so on.
std::string chain(std::size_t length, std::string const& last) {
  std::string declarations;
  for (std::size_t i = 1; i < length; ++i) {
    declarations += "<!ENTITY a" + std::to_string(i) + " \"&a" + std::to_string(i + 1) + ";\">";
  }
  return declarations + "<!ENTITY a" + std::to_string(length) + " \"" + last + "\">";
}

TEST_F(HostileFileTest, DeeplyNestedEntitiesAreAParseErrorOnASmallStack) {
  for (std::size_t const length : {1000U, 100000U}) {
    for (char const* const document : {"<a>&a1;</a>", "<a b=\"&a1;\"/>"}) {
      SCOPED_TRACE(std::to_string(length) + document);
      make(withDeclarations(chain(length, "x"), document));
      runInChild([this] { runOnSmallStack([this] { expectParseError(); }); });
    }
  }
}

TEST_F(HostileFileTest, DeeplyNestedEntitiesInADefaultAreAParseErrorOnASmallStack) {
  for (std::size_t const length : {1000U, 100000U}) {
    make(withDeclarations(chain(length, "x") + "<!ATTLIST a b CDATA \"&a1;\">", "<a/>"));
    runInChild([this] { runOnSmallStack([this] { expectParseError(); }); });
  }
}

TEST_F(HostileFileTest, DeeplyNestedParameterEntitiesAreRefusedOnASmallStack) {
  for (std::size_t const length : {1000U, 100000U}) {
    std::string declarations;
    for (std::size_t i = length; i > 1; --i) {
      // &#37; is %, which may not stand in an entity's text here.
      declarations +=
          "<!ENTITY % p" + std::to_string(i - 1) + " \"&#37;p" + std::to_string(i) + ";\">";
    }
    make(withDeclarations(
        "<!ENTITY % p" + std::to_string(length) + " \"<!ENTITY x 'y'>\">" + declarations + "%p1;",
        "<a>&x;</a>"));
    runInChild([this] { runOnSmallStack([this] { expectParseError(); }); });
  }
}

TEST_F(HostileFileTest, ParameterEntityBombIsAParseError) {
  std::string declarations = "<!ENTITY % p0 \"<!ENTITY x 'y'>\">";
  for (int i = 1; i <= 12; ++i) {
    declarations += "<!ENTITY % p" + std::to_string(i) + " \"" +
                    repeated("&#37;p" + std::to_string(i - 1) + ";", 10) + "\">";
  }
  make(withDeclarations(declarations + "%p12;", "<a>&x;</a>"));
  expectParseErrorInBoundedMemory();
}

TEST_F(HostileFileTest, ParameterEntityInAnEntityIsAParseError) {
  make(withDeclarations("<!ENTITY % p \"x\"><!ENTITY e \"%p;\">", "<a>&e;</a>"));
  expectParseError();
}

// Everyday use of entities stays within the bounds.
TEST_F(HostileFileTest, ModestEntitiesLoad) {
  make(withDeclarations(tower("0123456789", 2, 10) + "<!ATTLIST b c CDATA \"&e1;\">",
                        "<a>" + repeated("<b/>&e2;", 20) + "</a>"));
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
  EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
  std::wstring const text = written(xml);
  EXPECT_EQ(text.size(), std::wstring(L"<!DOCTYPE a><a></a>").size() +
                             20 * (std::wstring(L"<b c=\"\"/>").size() + 100 + 1000));
}

// What is declared where it may be read counts, beside what may not.
TEST_F(HostileFileTest, InternalDeclarationsCountBesideAnExternalDocumentType) {
  std::string const subset =
      "<!ENTITY e \"x\"><!ENTITY f \"<b w='1'/>\"><!ATTLIST a d CDATA \"-&e;-\">";

  struct Row {
    char const* name;
    char const* element;
    wchar_t const* text;
  };

  constexpr Row kRows[] = {
      {"default", "<a/>", L"<a d=\"-x-\"/>"},
      {"predefined entity in an attribute", "<a v=\"1&amp;&#50;\"/>",
       L"<a v=\"1&amp;2\" d=\"-x-\"/>"},
      {"entity in an attribute", "<a v=\"&e;\"/>", L"<a v=\"x\" d=\"-x-\"/>"},
      {"entity in the text", "<a>&e;</a>", L"<a d=\"-x-\">x</a>"},
      {"entity with an element", "<a>&f;</a>", L"<a d=\"-x-\"><b w=\"1\"/></a>"},
  };
  for (Row const& row : kRows) {
    SCOPED_TRACE(row.name);
    make("<!DOCTYPE a SYSTEM \"none.dtd\" [" + subset + "]>" + row.element);
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    EXPECT_EQ(takeDocument(xml), std::wstring(L"<!DOCTYPE a SYSTEM \"none.dtd\">") + row.text);
  }
}

// A document whose parameter entities are not followed is refused, not loaded
// without what they and the rest of the document type declare.
TEST_F(HostileFileTest, DeclarationsAreNotLostBehindParameterEntities) {
  for (char const* const declarations :
       {"<!ENTITY % p \"<!ATTLIST a b CDATA 'd'>\">%p;",
        "<!ENTITY % p \"<!--c-->\">%p;<!ATTLIST a b CDATA \"d\">",
        "<!ENTITY % p SYSTEM \"none.dtd\">%p;<!ATTLIST a b CDATA \"d\">",
        "%nope;<!ATTLIST a b CDATA \"d\">"}) {
    SCOPED_TRACE(declarations);
    make(withDeclarations(declarations, "<a/>"));
    LogRecorder log;
    AnXml xml;
    if (xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr)) {
      EXPECT_EQ(value(AnXmlNode(&xml), L"b"), L"d");
    } else {
      onlyParseError(log);
    }
  }
}

// External files.

class ExternalEntityTest : public HostileFileTest {
protected:
  ExternalEntityTest() {
    makeFile(folder_ / "secret.txt", "SECRET");
    makeFile(folder_ / "secret.dtd", "<!ENTITY x \"SECRET\"><!ATTLIST a b CDATA \"SECRET\">");
  }

  // What a reference to the file `name` may look like.
  std::vector<std::string> identifiers(std::string const& name) const {
    return {"SYSTEM \"" + name + "\"", "SYSTEM \"file://" + (folder_ / name) + "\"",
            "SYSTEM \"" + (folder_ / name) + "\"",
            "PUBLIC \"-//p//q\" \"" + (folder_ / name) + "\""};
  }
};

TEST_F(ExternalEntityTest, ReferenceIsAParseErrorWhereItStands) {
  for (std::string const& identifier : identifiers("secret.txt")) {
    SCOPED_TRACE(identifier);
    make("<!DOCTYPE a [<!ENTITY x " + identifier + ">]>\n<a>\xc3\xa9&x;</a>");
    ParseError const error = expectParseError();
    EXPECT_EQ(error.line, 2U);
    EXPECT_EQ(error.column, 5U);
    EXPECT_EQ(error.message.find(L"SECRET"), std::wstring::npos);
  }
}

TEST_F(ExternalEntityTest, ReferenceToASystemFileIsAParseError) {
  make(withDeclarations("<!ENTITY x SYSTEM \"file:///etc/passwd\">", "<a>&x;</a>"));
  EXPECT_EQ(expectParseError().message.find(L"root:"), std::wstring::npos);
}

TEST_F(ExternalEntityTest, ReferenceInAnAttributeIsAParseError) {
  for (std::string const& identifier : identifiers("secret.txt")) {
    SCOPED_TRACE(identifier);
    make(withDeclarations("<!ENTITY x " + identifier + ">", "<a b=\"&x;\"/>"));
    expectParseError();
    make(withDeclarations("<!ENTITY x " + identifier + "><!ATTLIST a b CDATA \"&x;\">", "<a/>"));
    expectParseError();
    make(withDeclarations("<!ENTITY x " + identifier + "><!ENTITY y \"&x;\">", "<a>&y;</a>"));
    expectParseError();
  }
}

TEST_F(ExternalEntityTest, ParameterEntityIsAParseError) {
  for (std::string const& identifier : identifiers("secret.dtd")) {
    SCOPED_TRACE(identifier);
    make(withDeclarations("<!ENTITY % p " + identifier + ">%p;", "<a/>"));
    expectParseError();
    make(withDeclarations("<!ENTITY % p " + identifier + ">%p;", "<a>&x;</a>"));
    expectParseError();
  }
}

TEST_F(ExternalEntityTest, DeclarationAloneLoads) {
  for (std::string const& identifier : identifiers("secret.txt")) {
    make(withDeclarations("<!ENTITY x " + identifier + "><!ENTITY % p " + identifier + ">",
                          "<a>text</a>"));
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"", L"text"));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
  }
}

TEST_F(ExternalEntityTest, DocumentTypeIsAcceptedAndNotLoaded) {
  for (std::string const& identifier : identifiers("secret.dtd")) {
    SCOPED_TRACE(identifier);
    for (std::string const standalone : {"", " standalone=\"no\"", " standalone=\"yes\""}) {
      make("<?xml version=\"1.0\"" + standalone + "?><!DOCTYPE a " + identifier + "><a>t</a>");
      LogRecorder log;
      AnXml xml;
      EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"", L"t"));
      EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
      EXPECT_EQ(toUtf8(written(xml)), "<!DOCTYPE a " + identifier + "><a>t</a>");
    }
  }
}

// Size and depth.

TEST_F(HostileFileTest, HundredThousandLevelsAreAParseErrorOnASmallStack) {
  make(repeated("<a>", 100000) + repeated("</a>", 100000));
  runInChild([this] {
    runOnSmallStack([this] {
      ParseError const error = expectParseError();
      EXPECT_EQ(error.line, 1U);
      EXPECT_EQ(error.column, 1000 * 3 + 1);
    });
  });
}

TEST_F(HostileFileTest, OpenLevelsAreAParseErrorOnASmallStack) {
  make(repeated("<a>", 1000000));
  runInChild([this] { runOnSmallStack([this] { expectParseError(); }); });
}

TEST_F(HostileFileTest, DeepContentModelIsRefusedOnASmallStack) {
  make(withDeclarations(
      "<!ELEMENT a " + repeated("(", 1000000) + "b" + repeated(")", 1000000) + ">", "<a"));
  runInChild([this] { runOnSmallStack([this] { expectParseError(); }); });
}

TEST_F(HostileFileTest, ManyElementsAtTheDeepestLevelAreIndentedInBoundedMemory) {
  constexpr std::size_t kElements = 200000;
  make(repeated("<a>", 999) + repeated("<b/>", kElements) + repeated("</a>", 999));
  runWithinMemory(kMemoryInMiB, [this] {
    LogRecorder log;
    AnXml xml;
    ASSERT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
    EXPECT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/false, /*generateFlag=*/true));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
    EXPECT_LT(fileBytes(path_).size(), 100 * kElements);
  });
}

constexpr std::size_t kTenMiB = 10 << 20;

TEST_F(HostileFileTest, TenMiBOfTextLoad) {
  make("<a>" + std::string(kTenMiB, 'x') + "</a>");
  runWithinMemory(kMemoryInMiB, [this] {
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
    EXPECT_TRUE(value(AnXmlNode(&xml), L"") == std::wstring(kTenMiB, L'x'));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
  });
}

TEST_F(HostileFileTest, TenMiBOfAttributeLoad) {
  make("<a b=\"" + std::string(kTenMiB, 'x') + "\" c=\"1\"/>");
  runWithinMemory(kMemoryInMiB, [this] {
    LogRecorder log;
    AnXml xml;
    EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"c", L"1"));
    EXPECT_TRUE(value(AnXmlNode(&xml), L"b") == std::wstring(kTenMiB, L'x'));
    EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
  });
}

TEST_F(HostileFileTest, TextOfReferencesAndLinesLoads) {
  constexpr std::size_t kPieces = 200000;
  make("<a>" + repeated("&lt;\r\n]]&gt;", kPieces) + "</a>");
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
  std::wstring expected;
  for (std::size_t i = 0; i < kPieces; ++i) expected += L"<\n]]>";
  EXPECT_TRUE(value(AnXmlNode(&xml), L"") == expected);
}

TEST_F(HostileFileTest, HundredThousandAttributesLoad) {
  constexpr std::size_t kAttributes = 100000;
  std::string document = "<a";
  for (std::size_t i = 0; i < kAttributes; ++i) {
    document += " n" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
  }
  make(document + "/>");
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"n99999", L"99999"));
  AnXmlNode const root(&xml);
  AnXmlValueIndex index(&root);
  AString name;
  AString text;
  std::size_t count = 0;
  while (index.moveNext(&name, &text)) {
    ASSERT_EQ(text.const_cpp_str(), std::to_wstring(count));
    ++count;
  }
  EXPECT_EQ(count, kAttributes);
  EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
}

TEST_F(HostileFileTest, OneAttributeOfManyTwiceIsAParseError) {
  std::string document = "<a";
  for (int i = 0; i < 100000; ++i) document += " n" + std::to_string(i) + "=\"\"";
  make(document + " n50000=\"\"/>");
  EXPECT_EQ(expectParseError().line, 1U);
}

TEST_F(HostileFileTest, HundredThousandSiblingsOfDistinctNamesLoad) {
  std::string document = "<a>";
  for (int i = 0; i < 100000; ++i) document += "<n" + std::to_string(i) + "/>";
  make(document + "</a>");
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", nullptr, nullptr));
  EXPECT_EQ(childNames(AnXmlNode(&xml)).size(), 100000U);
}

TEST_F(HostileFileTest, ManyCommentsAndInstructionsLoad) {
  make(repeated("<!--c--><?p q?>", 100000) + "<a>" + repeated("<!--c--><?p q?>", 100000) + "</a>" +
       repeated("<!--c--><?p q?>", 100000));
  std::string const bytes = fileBytes(path_);
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useExistingFile(file_.c_str(), L"a", L"", L""));
  EXPECT_TRUE(toUtf8(written(xml)) == bytes);
}

// What is no regular file, or too big a one.

TEST_F(HostileFileTest, FolderIsAReadError) {
  ASSERT_EQ(::mkdir(path_.c_str(), 0755), 0);
  expectReadError();
}

TEST_F(HostileFileTest, FifoWithoutWriterIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  expectRefused();
}

TEST_F(HostileFileTest, EmptyDeviceIsRefused) {
  file_ = L"/dev/null";
  expectRefused();
}

TEST_F(HostileFileTest, EndlessDeviceIsRefusedInBoundedMemory) {
  file_ = L"/dev/zero";
  runWithinMemory(kWithShadow * 2 * kMemoryInMiB, [this] { expectReadError(); });
}

TEST_F(HostileFileTest, SymbolicLinkToItselfIsAReadError) {
  ASSERT_EQ(::symlink("hostile.xml", path_.c_str()), 0);
  expectReadError();
}

TEST_F(HostileFileTest, HugeFileIsAReadErrorInBoundedMemory) {
  constexpr off_t kSizeInBytes = off_t{600} << 20;
  make("<a>");
  ASSERT_EQ(::truncate(path_.c_str(), kSizeInBytes), 0);
  runWithinMemory(kMemoryInMiB, [this] { expectReadError(); });
}

}  // namespace
}  // namespace vrxutil::test
