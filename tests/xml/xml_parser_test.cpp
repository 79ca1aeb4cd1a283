#include "tests/support/temporary_folder.h"
#include "tests/xml/encodings.h"

#include <vrxcomn/xml_parser.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

// The parser library alone: this program does not use the document holder.

namespace vrxutil::test {
namespace {

using AdvXMLParser::Attribute;
using AdvXMLParser::CData;
using AdvXMLParser::Comment;
using AdvXMLParser::Document;
using AdvXMLParser::Element;
using AdvXMLParser::Iterator;
using AdvXMLParser::Node;
using AdvXMLParser::Parser;
using AdvXMLParser::ParsingException;
using AdvXMLParser::Pi;
using AdvXMLParser::ReadWriteException;
using AdvXMLParser::UTF_ENCODINGS;

std::unique_ptr<Document> parse(std::wstring const& text) {
  return std::unique_ptr<Document>(Parser().Parse(text.data(), static_cast<int>(text.size())));
}

std::wstring textOf(Element const& element) {
  std::wstring text;
  element.AppendTextTo(text);
  return text;
}

std::vector<std::wstring> childNames(Element const& parent) {
  std::vector<std::wstring> names;
  for (Iterator<Element> i(parent); !i.AtEnd(); ++i) names.emplace_back(i->GetName());
  return names;
}

// Parsing.

TEST(XmlParserTest, ParserParsesOneDocumentAfterTheOther) {
  Parser parser;
  std::unique_ptr<Document> const first(parser.Parse(L"<a/>", 4));
  EXPECT_THROW(parser.Parse(L"<a", 2), ParsingException);
  std::unique_ptr<Document> const second(parser.Parse(L"<b/>", 4));
  EXPECT_EQ(std::wstring(first->GetRoot().GetName()), L"a");
  EXPECT_EQ(std::wstring(second->GetRoot().GetName()), L"b");
}

TEST(XmlParserTest, DeclarationsDoNotLastBeyondTheirDocument) {
  Parser parser;
  std::wstring const with = L"<!DOCTYPE a [<!ENTITY e \"x\"><!ATTLIST a b CDATA \"d\">]><a>&e;</a>";
  std::unique_ptr<Document> const first(parser.Parse(with.data(), static_cast<int>(with.size())));
  EXPECT_EQ(textOf(first->GetRoot()), L"x");
  std::unique_ptr<Document> const second(parser.Parse(L"<a/>", 4));
  EXPECT_TRUE(second->GetRoot().GetAttribute(L"b").IsNull());
  EXPECT_THROW(parser.Parse(L"<a>&e;</a>", 10), ParsingException);
}

TEST(XmlParserTest, LengthEndsTheText) {
  std::unique_ptr<Document> const document(Parser().Parse(L"<a/>garbage", 4));
  EXPECT_EQ(document->GenerateXML(false), L"<a/>");
  EXPECT_THROW(Parser().Parse(L"<a/>", 0), ParsingException);
}

TEST(XmlParserTest, NulInsideTheLengthIsAnError) {
  std::wstring const text = std::wstring(L"<a>\n\u00e9") + L'\0' + L"</a>";
  try {
    parse(text);
    FAIL() << "no exception";
  } catch (ParsingException const& exception) {
    EXPECT_EQ(exception.GetLine(), 2U);
    EXPECT_EQ(exception.GetColumn(), 2U);
    EXPECT_GT(std::wstring(exception.GetErrorMessage()).size(), 0U);
    EXPECT_GT(std::string(exception.what()).size(), 0U);
  }
}

TEST(XmlParserTest, ExceptionHoldsPlaceAndMessage) {
  static_assert(std::is_base_of_v<std::exception, ParsingException>);
  static_assert(std::is_nothrow_copy_constructible_v<ParsingException>);
  ParsingException const exception(7, 9, L"why \u00e9");
  ParsingException const copy(exception);
  for (ParsingException const& each : {exception, copy}) {
    EXPECT_EQ(each.GetLine(), 7U);
    EXPECT_EQ(each.GetColumn(), 9U);
    EXPECT_EQ(std::wstring(each.GetErrorMessage()), L"why \u00e9");
    EXPECT_GT(std::string(each.what()).size(), 0U);
  }
}

// Writing what was parsed.

TEST(XmlGenerateTest, CompactTextIsTheTreeAsItStands) {
  for (std::wstring const document : {
           L"<a/>",
           L"<a>text</a>",
           L"<a b=\"1\" C=\"2\" p:q=\"\"/>",
           L"<a>  <b/>\n\t<c> </c> </a>",
           L"<a>x<b>y</b>z<b/></a>",
           L"<a><!----><!-- c --><!-- - - --></a>",
           L"<a><!-- c --><b/><!--d--></a>",
           L"<a><?p?><?p q?><?p q r?></a>",
           L"<a><![CDATA[]]></a>",
           L"<a><![CDATA[<&\"]] >]]>x<![CDATA[y]]><![CDATA[z]]></a>",
           L"<!--1--><?p 2?><a/><!--3--><?q 4?>",
           L"<!DOCTYPE a><a/>",
           L"<!DOCTYPE a SYSTEM \"s.dtd\"><a/>",
           L"<!DOCTYPE a SYSTEM 's\"t.dtd'><a/>",
           L"<!DOCTYPE a PUBLIC \"-//p\" \"s.dtd\"><a/>",
           L"<!--1--><?p 2?><!DOCTYPE a><!--3--><?q 4?><a/><!--5-->",
           L"<a b=\"&lt;&amp;&quot;'\">&lt;&amp;\"'</a>",
           L"<\u00e9 \u4e2d=\"\u20ac\">\U0001F600\U0010FFFF</\u00e9>",
       }) {
    std::wstring const text = document;
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_EQ(parse(text)->GenerateXML(false), text);
  }
}

struct GenerateRow {
  char const* name;
  std::wstring document;
  std::wstring text;
};

TEST(XmlGenerateTest, CompactTextHasOneFormOnly) {
  std::vector<GenerateRow> const rows = {
      {"no declaration", L"<?xml version=\"1.0\" encoding=\"x\"?>\n<a/>", L"<a/>"},
      {"no blanks outside the root", L"\n <!--c--> \n<a/>\n <?p q?>\n", L"<!--c--><a/><?p q?>"},
      {"empty elements are short", L"<a></a>", L"<a/>"},
      {"double quotes", L"<a b='\"'/>", L"<a b=\"&quot;\"/>"},
      {"one blank between attributes", L"<a  b='1'\n c='2' />", L"<a b=\"1\" c=\"2\"/>"},
      {"line ends in attributes", L"<a b=\"&#10;&#13;&#9;\"/>", L"<a b=\"&#10;&#13;&#9;\"/>"},
      {"CR in the text", L"<a>&#13;&#10;&#9;</a>", L"<a>&#13;\n\t</a>"},
      {"CRLF in the text", L"<a>\r\n</a>", L"<a>\n</a>"},
      {"entities", L"<!DOCTYPE a [<!ENTITY e \"x<b/>\">]><a c=\"1\">&e;</a>",
       L"<!DOCTYPE a><a c=\"1\">x<b/></a>"},
      {"defaults", L"<!DOCTYPE a SYSTEM \"s\" [<!ATTLIST a b CDATA \"d\">]><a/>",
       L"<!DOCTYPE a SYSTEM \"s\"><a b=\"d\"/>"},
      {"end of character data", L"<a>]]&gt;</a>", L"<a>]]&gt;</a>"},
      {"blanks of instructions", L"<a><?p   q ?></a>", L"<a><?p q ?></a>"},
  };
  for (GenerateRow const& row : rows) {
    SCOPED_TRACE(row.name);
    std::wstring const text = parse(row.document)->GenerateXML(false);
    EXPECT_EQ(text, row.text);
    EXPECT_EQ(parse(text)->GenerateXML(false), text);
  }
}

// What GenerateXML(true) writes behind the declaration's line.
std::wstring indented(Document const& document) {
  std::wstring const text = document.GenerateXML(true);
  EXPECT_TRUE(text.starts_with(L"<?xml version=\"1.0\"")) << testing::PrintToString(text);
  std::size_t const end = text.find(L"?>\n");
  return end == std::wstring::npos ? text : text.substr(end + 3);
}

TEST(XmlGenerateTest, IndentingPutsElementsOnLinesOfTheirOwn) {
  std::vector<GenerateRow> const rows = {
      {"bare root", L"<a/>", L"<a/>\n"},
      {"root with text", L"<a>t</a>", L"<a>t</a>\n"},
      {"elements", L"<a><b/><c d=\"1\"><e/></c></a>",
       L"<a>\n  <b/>\n  <c d=\"1\">\n    <e/>\n  </c>\n</a>\n"},
      {"elements with text", L"<a><b>t</b><c> u </c></a>",
       L"<a>\n  <b>t</b>\n  <c> u </c>\n</a>\n"},
      {"blanks between elements", L"<a>\n\n<b/>   <c>\t<d/></c> </a>",
       L"<a>\n  <b/>\n  <c>\n    <d/>\n  </c>\n</a>\n"},
      {"blank text of a leaf", L"<a><b> \n </b></a>", L"<a>\n  <b> \n </b>\n</a>\n"},
      {"mixed content is kept", L"<a><b>x<c> <d/> </c>y </b><e/></a>",
       L"<a>\n  <b>x<c> <d/> </c>y </b>\n  <e/>\n</a>\n"},
      {"comments outside", L"<!--1--><a/><!--2-->", L"<!--1-->\n<a/>\n<!--2-->\n"},
      {"document type", L"<!DOCTYPE a SYSTEM \"s\"><a/>", L"<!DOCTYPE a SYSTEM \"s\">\n<a/>\n"},
      {"comment among elements", L"<a><!--c--><b/></a>", L"<a>\n  <!--c-->\n  <b/>\n</a>\n"},
  };
  for (GenerateRow const& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(indented(*parse(row.document)), row.text);
  }
}

// Levels that are indented more and more would make a small document a huge one.
TEST(XmlGenerateTest, IndentingStopsAtThirtyTwoLevels) {
  constexpr std::size_t kLevels = 40;
  std::wstring document;
  std::wstring expected;
  auto const line = [&expected](std::size_t level, wchar_t const* tag) {
    expected.append(2 * std::min<std::size_t>(level, 32), L' ').append(tag).append(L"\n");
  };
  for (std::size_t level = 0; level < kLevels; ++level) {
    document += L"<a>";
    line(level, L"<a>");
  }
  document += L"<b/>";
  line(kLevels, L"<b/>");
  for (std::size_t level = kLevels; level-- > 0;) {
    document += L"</a>";
    line(level, L"</a>");
  }
  std::unique_ptr<Document> const once = parse(document);
  EXPECT_EQ(indented(*once), expected);
  EXPECT_EQ(indented(*parse(once->GenerateXML(true))), expected);
}

TEST(XmlGenerateTest, AThousandLevelsAreWrittenAndReadAgain) {
  Document document(L"e");
  Element* element = &document.GetRoot();
  for (int level = 2; level <= 1000; ++level) element = &element->AddElementInto(L"e");
  std::wstring const text = document.GenerateXML(false);
  EXPECT_EQ(parse(text)->GenerateXML(false), text);
  EXPECT_EQ(parse(document.GenerateXML(true))->GenerateXML(true), document.GenerateXML(true));
}

TEST(XmlGenerateTest, IndentingAgainChangesNothing) {
  for (std::wstring const document : {
           L"<a/>",
           L"<a><b/></a>",
           L"<a><b><c/>text</b><d/></a>",
           L"<a> <b> </b> <c>\n</c></a>",
           L"<a>\r\n<b>&#13;</b></a>",
           L"<a>&#13;<b/></a>",
           L"<a>&#x20;<b/>&#x20;</a>",
           L"<a><![CDATA[ ]]><b/></a>",
           L"<a><![CDATA[x]]><b/></a>",
           L"<a><!--c--></a>",
           L"<a> <!--c--> </a>",
           L"<a>t<!--c--></a>",
           L"<a><?p q?><b/><!--c--></a>",
           L"<!--1--><!DOCTYPE a><?p q?><a><b/></a><!--2-->",
           L"<a b=\"&#10; x &#9;\"><c/></a>",
           L"<a>\u00a0<b/></a>",
           L"<a>\u2028<b/></a>",
           L"<a><b>x<c><d/></c></b></a>",
           L"<a><!--two\nlines--><b/></a>",
       }) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(document)));
    std::wstring const once = parse(document)->GenerateXML(true);
    EXPECT_EQ(parse(once)->GenerateXML(true), once);
  }
}

// Blank text beside elements may go; nothing else may.
TEST(XmlGenerateTest, IndentingKeepsTextsAndAttributes) {
  std::wstring const document =
      L"<a b=\" x &#10;\">mixed <b>bold</b> text<c><d> leading</d><e>trailing </e><f> </f></c></a>";
  std::unique_ptr<Document> const read = parse(parse(document)->GenerateXML(true));
  EXPECT_EQ(read->GenerateXML(false), document);
}

TEST(XmlGenerateTest, InexpressibleTreesAreRefused) {
  std::vector<std::pair<char const*, std::function<void(Element&)>>> const rows = {
      {"element name", [](Element& root) { root.AddElementInto(L"a b"); }},
      {"empty element name", [](Element& root) { root.AddElementInto(L""); }},
      {"attribute name", [](Element& root) { root.CreateAttribute(L"=").AddText(L"v"); }},
      {"empty attribute name", [](Element& root) { root.CreateAttribute(L""); }},
      {"attribute value", [](Element& root) { root.CreateAttribute(L"n").AddText(L"\x02"); }},
      {"text", [](Element& root) { root.AddText(L"\x0B"); }},
      {"surrogate", [](Element& root) { root.AddText(L"\xDABC"); }},
      {"no root", [](Element& root) { root.Delete(); }},
      {"too many levels",
       [](Element& root) {
         Element* element = &root;
         for (int level = 2; level <= 1001; ++level) element = &element->AddElementInto(L"e");
       }},
  };
  for (auto const& [name, change] : rows) {
    SCOPED_TRACE(name);
    Document document(L"r");
    change(document.GetRoot());
    for (bool const indented : {false, true}) {
      EXPECT_THROW(document.GenerateXML(indented), ReadWriteException);
      EXPECT_GT(std::wstring(AdvXMLParser::GetLastXmlErrorMessage()).size(), 0U);
    }
  }
  EXPECT_GT(std::string(ReadWriteException().what()).size(), 0U);
}

// What is written as a name must be one to the parser too, and the other way
// round; likewise for characters of texts.
TEST(XmlGenerateTest, WriterAndParserAgreeOnAllCharacters) {
  auto const parses = [](std::wstring const& text) {
    try {
      parse(text);
      return true;
    } catch (ParsingException const&) {
      return false;
    }
  };
  auto const writes = [](wchar_t const* name, wchar_t const* text) {
    Document document(name);
    document.GetRoot().AddText(text);
    try {
      document.GenerateXML(false);
      return true;
    } catch (ReadWriteException const&) {
      return false;
    }
  };
  // All of the first plane, some of each other, and what lies beyond.
  for (char32_t c = 1; c <= 0x120000; c += c < 0x10000 ? 1 : 0x3FF) {
    std::wstring const character(1, static_cast<wchar_t>(c));
    bool const isFirst = writes(character.c_str(), L"");
    bool const isLater = writes((L"a" + character).c_str(), L"");
    bool const isText = writes(L"a", character.c_str());
    std::wstring const all = std::to_wstring(static_cast<unsigned long>(c));
    ASSERT_LE(isFirst, isLater) << testing::PrintToString(all);
    if (isFirst) {
      ASSERT_TRUE(parses(L"<" + character + L"/>")) << testing::PrintToString(all);
    }
    if (isLater) {
      ASSERT_TRUE(parses(L"<a" + character + L"/>")) << testing::PrintToString(all);
    }
    bool const isMarkup = c == '<' || c == '&';
    ASSERT_EQ(parses(L"<a>" + character + L"</a>"), isText && !isMarkup)
        << testing::PrintToString(all);
    // A name of one character that the parser takes may be written again.
    if (c != '/' && c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != '>') {
      ASSERT_EQ(parses(L"<a" + character + L"/>"), isLater) << testing::PrintToString(all);
    }
    if (c != '/' && c != '!' && c != '?') {
      ASSERT_EQ(parses(L"<" + character + L"/>"), isFirst) << testing::PrintToString(all);
    }
  }
}

// The tree.

TEST(XmlTreeTest, DocumentStartsWithItsRoot) {
  Document document(L"r");
  Element& root = document.GetRoot();
  EXPECT_FALSE(root.IsNull());
  EXPECT_EQ(root.GetKind(), Node::Kind::element);
  EXPECT_EQ(std::wstring(root.GetName()), L"r");
  EXPECT_EQ(document.GenerateXML(false), L"<r/>");
  static_assert(std::has_virtual_destructor_v<Document>);
}

TEST(XmlTreeTest, RootIsNullAfterItsDeletion) {
  Document document(L"r");
  document.GetRoot().Delete();
  EXPECT_TRUE(document.GetRoot().IsNull());
  EXPECT_EQ(&document.GetRoot(), &Element::null);
}

TEST(XmlTreeTest, NullNodesAreEmptyAndDoNotChange) {
  EXPECT_TRUE(Element::null.IsNull());
  EXPECT_TRUE(Attribute::null.IsNull());
  EXPECT_TRUE(Comment::null.IsNull());
  EXPECT_TRUE(CData::null.IsNull());
  EXPECT_TRUE(Pi::null.IsNull());
  EXPECT_EQ(Element::null.GetKind(), Node::Kind::element);
  EXPECT_EQ(Attribute::null.GetKind(), Node::Kind::attribute);
  EXPECT_EQ(Comment::null.GetKind(), Node::Kind::comment);
  EXPECT_EQ(CData::null.GetKind(), Node::Kind::cdata);
  EXPECT_EQ(Pi::null.GetKind(), Node::Kind::pi);

  EXPECT_TRUE(Element::null.AddElementInto(L"a").IsNull());
  EXPECT_TRUE(Element::null.CreateAttribute(L"a").IsNull());
  Element::null.AddText(L"t");
  Element::null.DeleteChildren();
  Element::null.Delete();
  Attribute::null.AddText(L"t");
  Attribute::null.DeleteChildren();
  Attribute::null.Delete();
  Comment::null.Delete();
  CData::null.Delete();
  Pi::null.Delete();

  EXPECT_EQ(std::wstring(Element::null.GetName()), L"");
  EXPECT_TRUE(Element::null.GetAttribute(L"a").IsNull());
  EXPECT_FALSE(Element::null.HasChildElements());
  EXPECT_EQ(textOf(Element::null), L"");
  EXPECT_TRUE(Iterator<Element>(Element::null).AtEnd());
  EXPECT_TRUE(Iterator<Attribute>(Element::null).AtEnd());
  EXPECT_EQ(Element::null.FindName(L"a"), nullptr);
  EXPECT_EQ(std::wstring(Attribute::null.GetName()), L"");
  EXPECT_EQ(std::wstring(Attribute::null.GetValue()), L"");
  EXPECT_EQ(Attribute::null.GetLength(), 0U);
  EXPECT_EQ(std::wstring(Comment::null.GetValue()), L"");
  EXPECT_EQ(std::wstring(CData::null.GetValue()), L"");
  EXPECT_EQ(std::wstring(Pi::null.GetValue()), L"");
}

TEST(XmlTreeTest, AttributesAreFoundByName) {
  std::unique_ptr<Document> const document = parse(L"<r a=\"1\" b=\"x&lt;\u00e9\"/>");
  Element& root = document->GetRoot();
  Attribute& b = root.GetAttribute(L"b");
  EXPECT_FALSE(b.IsNull());
  EXPECT_EQ(b.GetKind(), Node::Kind::attribute);
  EXPECT_EQ(std::wstring(b.GetName()), L"b");
  EXPECT_EQ(std::wstring(b.GetValue()), L"x<\u00e9");
  EXPECT_EQ(b.GetLength(), 3U);
  EXPECT_EQ(&root.GetAttribute(root.FindName(L"b")), &b);
  EXPECT_EQ(&root.GetAttribute(L"c"), &Attribute::null);
  EXPECT_EQ(&root.GetAttribute(L"B"), &Attribute::null);
  EXPECT_EQ(&root.GetAttribute(root.FindName(L"r")), &Attribute::null);
}

TEST(XmlTreeTest, NamesAreInterned) {
  std::unique_ptr<Document> const document = parse(L"<r a=\"1\"><c/></r>");
  Element& root = document->GetRoot();
  AdvXMLParser::Name const* const name = root.FindName(L"c");
  ASSERT_NE(name, nullptr);
  EXPECT_TRUE(Iterator<Element>(root)->HasName(name));
  EXPECT_FALSE(root.HasName(name));
  EXPECT_TRUE(root.HasName(root.FindName(L"r")));
  EXPECT_EQ(Iterator<Element>(root)->FindName(L"c"), name);
  EXPECT_NE(root.FindName(L"a"), nullptr);
  EXPECT_EQ(root.FindName(L"never"), nullptr);
  EXPECT_EQ(root.FindName(L""), nullptr);
  EXPECT_EQ(root.FindName(nullptr), nullptr);
  EXPECT_EQ(root.FindName(L"C"), nullptr);
  root.AddElementInto(L"never");
  EXPECT_NE(root.FindName(L"never"), nullptr);
  EXPECT_TRUE(root.AddElementInto(nullptr).HasName(root.FindName(L"")));
  EXPECT_EQ(root.FindName(nullptr), root.FindName(L""));
}

TEST(XmlTreeTest, AttributesAreCreatedOnce) {
  Document document(L"r");
  Element& root = document.GetRoot();
  Attribute& created = root.CreateAttribute(L"a");
  EXPECT_EQ(std::wstring(created.GetValue()), L"");
  created.AddText(L"one ");
  created.AddText(L"two");
  EXPECT_EQ(std::wstring(created.GetValue()), L"one two");
  EXPECT_EQ(created.GetLength(), 7U);
  EXPECT_EQ(&root.CreateAttribute(L"a"), &created);
  EXPECT_EQ(std::wstring(created.GetValue()), L"one two");
  created.DeleteChildren();
  EXPECT_EQ(std::wstring(created.GetValue()), L"");
  EXPECT_EQ(created.GetLength(), 0U);
  EXPECT_EQ(document.GenerateXML(false), L"<r a=\"\"/>");
  created.AddText(L"");
  created.AddText(L"three");
  EXPECT_EQ(document.GenerateXML(false), L"<r a=\"three\"/>");
}

TEST(XmlTreeTest, AttributesAreAppended) {
  Document document(L"r");
  Element& root = document.GetRoot();
  root.AppendAttribute(L"b").AddText(L"1");
  Attribute& appended = root.AppendAttribute(L"a");
  EXPECT_EQ(std::wstring(appended.GetValue()), L"");
  EXPECT_EQ(&root.GetAttribute(L"a"), &appended);
  EXPECT_EQ(document.GenerateXML(false), L"<r b=\"1\" a=\"\"/>");
  root.Delete();
  EXPECT_TRUE(root.AppendAttribute(L"c").IsNull());
  EXPECT_TRUE(Element::null.AppendAttribute(L"c").IsNull());
}

TEST(XmlTreeTest, AttributeGrowsPieceByPiece) {
  Document document(L"r");
  Attribute& attribute = document.GetRoot().CreateAttribute(L"a");
  std::wstring expected;
  for (int i = 0; i < 1000; ++i) {
    attribute.AddText(L"piece");
    expected += L"piece";
    ASSERT_EQ(attribute.GetLength(), expected.size());
  }
  EXPECT_EQ(std::wstring(attribute.GetValue()), expected);
}

TEST(XmlTreeTest, AttributesAreDeleted) {
  std::unique_ptr<Document> const document = parse(L"<r a=\"1\" b=\"2\" c=\"3\"/>");
  Element& root = document->GetRoot();
  root.GetAttribute(L"b").Delete();
  EXPECT_TRUE(root.GetAttribute(L"b").IsNull());
  EXPECT_EQ(document->GenerateXML(false), L"<r a=\"1\" c=\"3\"/>");
  root.GetAttribute(L"a").Delete();
  root.GetAttribute(L"c").Delete();
  EXPECT_EQ(document->GenerateXML(false), L"<r/>");
  root.CreateAttribute(L"b").AddText(L"4");
  EXPECT_EQ(document->GenerateXML(false), L"<r b=\"4\"/>");
}

TEST(XmlTreeTest, ChildrenAreAppendedAndDeleted) {
  Document document(L"r");
  Element& root = document.GetRoot();
  root.AddText(L"1");
  root.AddElementInto(L"a").AddText(L"<");
  root.AddText(L"2");
  root.AddElementInto(L"b").CreateAttribute(L"n").AddText(L"v");
  EXPECT_EQ(document.GenerateXML(false), L"<r>1<a>&lt;</a>2<b n=\"v\"/></r>");
  EXPECT_TRUE(root.HasChildElements());
  EXPECT_EQ(childNames(root), (std::vector<std::wstring>{L"a", L"b"}));
  EXPECT_EQ(textOf(root), L"12");
  root.CreateAttribute(L"kept");
  root.DeleteChildren();
  EXPECT_FALSE(root.HasChildElements());
  EXPECT_EQ(document.GenerateXML(false), L"<r kept=\"\"/>");
}

TEST(XmlTreeTest, TextsAreTextsAndCharacterData) {
  struct Row {
    wchar_t const* document;
    wchar_t const* text;
    bool hasElements;
  };

  for (Row const& row : {
           Row{L"<r/>", L"", false},
           Row{L"<r>text</r>", L"text", false},
           Row{L"<r>a&#13;<![CDATA[<b>]]><!--c-->d<?e f?>g</r>", L"a\r<b>dg", false},
           Row{L"<r>1<a>no</a>2<b/></r>", L"12", true},
           Row{L"<r><!--c--></r>", L"", false},
       }) {
    std::unique_ptr<Document> const document = parse(row.document);
    Element const& root = document->GetRoot();
    std::wstring const text = row.text;
    EXPECT_EQ(textOf(root), text);
    std::wstring appended = L"before ";
    root.AppendTextTo(appended);
    EXPECT_EQ(appended, L"before " + text);
    EXPECT_EQ(root.HasChildElements(), row.hasElements);
    EXPECT_TRUE(root.TextEquals(row.text));
    EXPECT_FALSE(root.TextEquals((text + L"x").c_str()));
    EXPECT_FALSE(root.TextEquals((L"x" + text).c_str()));
    EXPECT_EQ(root.TextEquals(L""), text.empty());
    if (!text.empty()) {
      EXPECT_FALSE(root.TextEquals(text.substr(0, text.size() - 1).c_str()));
      EXPECT_FALSE(root.TextEquals(text.substr(1).c_str()));
    }
  }
}

// Iterators.

TEST(XmlIteratorTest, DefaultStandsAtTheEndOfNothing) {
  Iterator<Element> elements;
  Iterator<Attribute> attributes;
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(elements.AtEnd());
    EXPECT_TRUE(elements.AtBegin());
    EXPECT_TRUE(attributes.AtEnd());
    EXPECT_TRUE(attributes.AtBegin());
    ++elements;
    --elements;
    ++attributes;
    --attributes;
  }
}

TEST(XmlIteratorTest, WalksTheElementsBothWays) {
  std::unique_ptr<Document> const document =
      parse(L"<r>t<!--c--><a/>u<b/><?p q?><![CDATA[d]]><c/>v</r>");
  Iterator<Element> i(document->GetRoot());
  EXPECT_TRUE(i.AtBegin());
  EXPECT_EQ(std::wstring(i->GetName()), L"a");
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"a") << "nothing comes before the first";
  ++i;
  EXPECT_FALSE(i.AtBegin());
  EXPECT_EQ(std::wstring((*i).GetName()), L"b");
  ++i;
  EXPECT_EQ(std::wstring(i->GetName()), L"c");
  EXPECT_FALSE(i.AtEnd());
  ++i;
  EXPECT_TRUE(i.AtEnd());
  EXPECT_FALSE(i.AtBegin());
  ++i;
  EXPECT_TRUE(i.AtEnd());
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"c");
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"b");
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"a");
  EXPECT_TRUE(i.AtBegin());
}

TEST(XmlIteratorTest, WalksTheAttributesBothWays) {
  std::unique_ptr<Document> const document = parse(L"<r z=\"1\" a=\"2\"><c n=\"3\"/></r>");
  Iterator<Attribute> i(document->GetRoot());
  EXPECT_TRUE(i.AtBegin());
  EXPECT_EQ(std::wstring(i->GetName()), L"z");
  ++i;
  EXPECT_EQ(std::wstring(i->GetValue()), L"2");
  EXPECT_FALSE(i.AtBegin());
  ++i;
  EXPECT_TRUE(i.AtEnd());
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"a");
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"z");
}

TEST(XmlIteratorTest, OwnerWithoutAnyIsBeginAndEnd) {
  std::unique_ptr<Document> const document = parse(L"<r>text<!--c--></r>");
  Iterator<Element> elements(document->GetRoot());
  EXPECT_TRUE(elements.AtBegin());
  EXPECT_TRUE(elements.AtEnd());
  --elements;
  EXPECT_TRUE(elements.AtEnd());
  Iterator<Attribute> const attributes(document->GetRoot());
  EXPECT_TRUE(attributes.AtBegin());
  EXPECT_TRUE(attributes.AtEnd());
}

TEST(XmlIteratorTest, SurvivesDeletionOfItsNode) {
  std::unique_ptr<Document> const document = parse(L"<r><a/>t<b/>u<c/></r>");
  Iterator<Element> i(document->GetRoot());
  ++i;
  (*i).Delete();
  EXPECT_FALSE(i.AtEnd());
  EXPECT_FALSE(i.AtBegin());
  EXPECT_EQ(std::wstring(i->GetName()), L"c");
  (*i).Delete();
  EXPECT_TRUE(i.AtEnd());
  EXPECT_FALSE(i.AtBegin());
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"a");
  (*i).Delete();
  EXPECT_TRUE(i.AtEnd());
  EXPECT_TRUE(i.AtBegin());
  EXPECT_EQ(document->GenerateXML(false), L"<r>tu</r>");
}

TEST(XmlIteratorTest, StepsFromADeletedNode) {
  std::unique_ptr<Document> const document = parse(L"<r><a/><b/><c/><d/></r>");
  Iterator<Element> forward(document->GetRoot());
  Iterator<Element> backward(document->GetRoot());
  ++forward;
  ++backward;
  (*forward).Delete();  // both now stand on c
  ++forward;
  EXPECT_EQ(std::wstring(forward->GetName()), L"d");
  --backward;
  EXPECT_EQ(std::wstring(backward->GetName()), L"a");
}

TEST(XmlIteratorTest, SurvivesUseOfTheDeletedNodesMemory) {
  std::unique_ptr<Document> const document = parse(L"<r><a/><b/><c/><d/></r>");
  Element& root = document->GetRoot();
  Iterator<Element> i(root);
  ++i;
  (*i).Delete();
  Iterator<Element>(root)->AddElementInto(L"new");
  ASSERT_FALSE(i.AtEnd());
  EXPECT_EQ(std::wstring(i->GetName()), L"c");
}

TEST(XmlIteratorTest, SurvivesDeletionOfAttributes) {
  std::unique_ptr<Document> const document = parse(L"<r a=\"1\" b=\"2\" c=\"3\"/>");
  Iterator<Attribute> i(document->GetRoot());
  ++i;
  (*i).Delete();
  EXPECT_EQ(std::wstring(i->GetName()), L"c");
  --i;
  EXPECT_EQ(std::wstring(i->GetName()), L"a");
}

// Memory.

TEST(XmlMemoryTest, IsCountedWithNamesAndTexts) {
  Document document(L"r");
  std::size_t const before = document.MemoryInUse();
  EXPECT_GT(before, 0U);
  constexpr std::size_t kCharacters = 100000;
  std::wstring const text(kCharacters, L'x');
  document.GetRoot().AddText(text.c_str());
  EXPECT_GE(document.MemoryInUse(), before + kCharacters * sizeof(wchar_t));
  std::size_t const withText = document.MemoryInUse();
  document.GetRoot().AddElementInto(text.c_str());
  EXPECT_GE(document.MemoryInUse(), withText + kCharacters * sizeof(wchar_t));
}

// Files.

class XmlFileTest : public testing::Test {
protected:
  TemporaryFolder folder_;
  std::string path_ = folder_ / "file.xml";
  std::wstring file_ = folder_.wide("file.xml");
};

// Callbacks have no state of their own.
std::string encoderInput;
std::string inspectorInput;

bool reverse(std::string const& in, std::string& out) {
  encoderInput = in;
  out.assign(in.rbegin(), in.rend());
  return true;
}

bool refuse(std::string const&, std::string&) { return false; }

bool inspect(std::string& bytes) {
  inspectorInput = bytes;
  return true;
}

bool inspectAndChange(std::string& bytes) {
  bytes += "<!--seen-->";
  return true;
}

bool inspectAndStop(std::string&) { return false; }

std::wstring lastMessage() { return AdvXMLParser::GetLastXmlErrorMessage(); }

long readText(std::wstring const& file, std::wstring& text, UTF_ENCODINGS& encoding,
              unsigned long* sizeInBytes, bool (*decode)(std::string const&, std::string&)) {
  encoding = AdvXMLParser::UTF_8;
  return AdvXMLParser::ReadBufferFromFileNoExp(file, text, encoding, sizeInBytes, decode);
}

TEST_F(XmlFileTest, ReadingTellsEncodingAndSize) {
  struct Row {
    UTF_ENCODINGS encoding;
    std::string bytes;
  };

  std::wstring const text = L"A\u00e9\u20ac\U0001F600";
  std::wstring const marked = L"\ufeff" + text;
  for (Row const& row : {
           Row{AdvXMLParser::UTF_8, toUtf8(text)},
           Row{AdvXMLParser::UTF_8, toUtf8(marked)},
           Row{AdvXMLParser::UTF_16_BE, toUtf16(marked, ByteOrder::big)},
           Row{AdvXMLParser::UTF_16_LE, toUtf16(marked, ByteOrder::little)},
           Row{AdvXMLParser::UTF_32_BE, toUtf32(marked, ByteOrder::big)},
           Row{AdvXMLParser::UTF_32_LE, toUtf32(marked, ByteOrder::little)},
       }) {
    SCOPED_TRACE(static_cast<int>(row.encoding));
    makeFile(path_, row.bytes);
    std::wstring wide;
    UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
    unsigned long size = 0;
    EXPECT_EQ(readText(file_, wide, encoding, &size, nullptr), 0);
    EXPECT_EQ(wide, text);
    EXPECT_EQ(encoding, row.encoding);
    EXPECT_EQ(size, row.bytes.size());

    std::string utf8;
    encoding = AdvXMLParser::UTF_8;
    size = 0;
    EXPECT_EQ(AdvXMLParser::ReadUtf8BufferFromFileNoExp(file_, utf8, encoding, &size, refuse), 0);
    EXPECT_EQ(utf8, toUtf8(text));
    EXPECT_EQ(encoding, row.encoding);
    EXPECT_EQ(size, row.bytes.size());
  }
}

TEST_F(XmlFileTest, MissingFileHasAResultOfItsOwn) {
  std::wstring wide;
  std::string utf8;
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  EXPECT_EQ(readText(file_, wide, encoding, nullptr, nullptr), -44);
  EXPECT_EQ(AdvXMLParser::kFileMissing, -44);
  EXPECT_EQ(AdvXMLParser::ReadUtf8BufferFromFileNoExp(file_, utf8, encoding, nullptr, nullptr),
            -44);
  EXPECT_NE(lastMessage().find(file_), std::wstring::npos) << "the message names the file";
}

TEST_F(XmlFileTest, OtherFailuresAreNegativeAndNotMissing) {
  std::wstring wide;
  std::string utf8;
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  std::wstring const folder = folder_.wide("");
  EXPECT_LT(readText(folder, wide, encoding, nullptr, nullptr), 0);
  EXPECT_NE(readText(folder, wide, encoding, nullptr, nullptr), -44);
  EXPECT_LT(AdvXMLParser::ReadUtf8BufferFromFileNoExp(folder, utf8, encoding, nullptr, nullptr), 0);
  makeFile(path_, "\x80");
  EXPECT_LT(readText(file_, wide, encoding, nullptr, nullptr), 0);
  EXPECT_NE(readText(file_, wide, encoding, nullptr, nullptr), -44);
}

TEST_F(XmlFileTest, OnlyUtf8MayBeAskedFor) {
  makeFile(path_, "<a/>");
  for (UTF_ENCODINGS const asked : {AdvXMLParser::UTF_16_BE, AdvXMLParser::UTF_16_LE,
                                    AdvXMLParser::UTF_32_BE, AdvXMLParser::UTF_32_LE}) {
    std::wstring wide;
    std::string utf8;
    UTF_ENCODINGS encoding = asked;
    EXPECT_LT(AdvXMLParser::ReadBufferFromFileNoExp(file_, wide, encoding, nullptr, nullptr), 0);
    encoding = asked;
    EXPECT_LT(AdvXMLParser::ReadUtf8BufferFromFileNoExp(file_, utf8, encoding, nullptr, nullptr),
              0);
    EXPECT_THROW(AdvXMLParser::WriteBufferToFile(file_, L"x", asked, nullptr, nullptr),
                 ReadWriteException);
    EXPECT_EQ(fileBytes(path_), "<a/>");
  }
}

TEST_F(XmlFileTest, EncodedFileNeedsTheDecoder) {
  AdvXMLParser::WriteBufferToFile(file_, L"<a>\u20ac</a>", AdvXMLParser::UTF_8, reverse, nullptr);
  EXPECT_EQ(encoderInput, toUtf8(L"<a>\u20ac</a>"));
  std::string const written = fileBytes(path_);
  EXPECT_TRUE(written.ends_with(std::string(encoderInput.rbegin(), encoderInput.rend())));
  EXPECT_GT(written.size(), encoderInput.size());

  std::wstring wide;
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  unsigned long size = 0;
  EXPECT_EQ(readText(file_, wide, encoding, &size, reverse), 0);
  EXPECT_EQ(wide, L"<a>\u20ac</a>");
  EXPECT_EQ(encoding, AdvXMLParser::UTF_8);
  EXPECT_EQ(size, written.size());
  EXPECT_LT(readText(file_, wide, encoding, nullptr, nullptr), 0);
  EXPECT_LT(readText(file_, wide, encoding, nullptr, refuse), 0);
  EXPECT_GT(lastMessage().size(), 0U);
}

TEST_F(XmlFileTest, EncoderThatFailsStopsTheWriting) {
  makeFile(path_, "old");
  EXPECT_THROW(
      AdvXMLParser::WriteBufferToFile(file_, L"<a/>", AdvXMLParser::UTF_8, refuse, nullptr),
      ReadWriteException);
  EXPECT_GT(lastMessage().size(), 0U);
  EXPECT_EQ(fileBytes(path_), "old");
}

TEST_F(XmlFileTest, InspectorSeesTheBytesFirst) {
  AdvXMLParser::WriteBufferToFile(file_, L"<a>\u20ac</a>", AdvXMLParser::UTF_8, nullptr, inspect);
  EXPECT_EQ(inspectorInput, toUtf8(L"<a>\u20ac</a>"));
  EXPECT_EQ(fileBytes(path_), toUtf8(L"<a>\u20ac</a>"));

  AdvXMLParser::WriteBufferToFile(file_, L"<a/>", AdvXMLParser::UTF_8, nullptr, inspectAndChange);
  EXPECT_EQ(fileBytes(path_), "<a/><!--seen-->");

  AdvXMLParser::WriteBufferToFile(file_, L"<b/>", AdvXMLParser::UTF_8, reverse, inspectAndChange);
  EXPECT_EQ(encoderInput, "<b/><!--seen-->") << "before they are encoded";

  makeFile(path_, "old");
  EXPECT_THROW(
      AdvXMLParser::WriteBufferToFile(file_, L"<a/>", AdvXMLParser::UTF_8, nullptr, inspectAndStop),
      ReadWriteException);
  EXPECT_EQ(fileBytes(path_), "old");
}

TEST_F(XmlFileTest, TextWithNulIsWrittenWhole) {
  std::wstring const text = std::wstring(L"a") + L'\0' + L"b";
  AdvXMLParser::WriteBufferToFile(file_, text, AdvXMLParser::UTF_8, nullptr, nullptr);
  EXPECT_EQ(fileBytes(path_), std::string("a\0b", 3));
}

TEST_F(XmlFileTest, WhatIsNoCharacterIsNotWritten) {
  makeFile(path_, "old");
  EXPECT_THROW(
      AdvXMLParser::WriteBufferToFile(file_, L"a\xD800", AdvXMLParser::UTF_8, nullptr, nullptr),
      ReadWriteException);
  EXPECT_GT(lastMessage().size(), 0U);
  EXPECT_EQ(fileBytes(path_), "old");
}

TEST(XmlConversionTest, FailuresLeaveTheOutput) {
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  std::wstring wide = L"before";
  EXPECT_LT(AdvXMLParser::ConvertBufferToUnicode("a\xff", 2, wide, encoding), 0);
  EXPECT_EQ(wide, L"before");
  std::string utf8 = "before";
  EXPECT_FALSE(AdvXMLParser::ConvertBufferToUtf8(L"a\xDFFF", utf8, encoding));
  EXPECT_EQ(utf8, "before");
}

TEST(XmlConversionTest, LengthCounts) {
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  std::wstring wide = L"before";
  EXPECT_GE(AdvXMLParser::ConvertBufferToUnicode("a\0b\xff", 3, wide, encoding), 0);
  EXPECT_EQ(wide, std::wstring(L"a\0b", 3));
  EXPECT_GE(AdvXMLParser::ConvertBufferToUnicode("\xef\xbb\xbfx", 4, wide, encoding), 0);
  EXPECT_EQ(wide, L"x");
  EXPECT_GE(AdvXMLParser::ConvertBufferToUnicode("", 0, wide, encoding), 0);
  EXPECT_EQ(wide, L"");
  std::string utf8 = "before";
  EXPECT_TRUE(AdvXMLParser::ConvertBufferToUtf8(std::wstring(L"a\0\u20ac", 3), utf8, encoding));
  EXPECT_EQ(utf8, std::string("a\0\xe2\x82\xac", 5));
}

// The last message.

TEST(XmlErrorMessageTest, IsEachThreadsOwnAndEmptyAtFirst) {
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  std::wstring wide;
  EXPECT_LT(AdvXMLParser::ConvertBufferToUnicode("\xff", 1, wide, encoding), 0);
  std::wstring const mine = lastMessage();
  EXPECT_NE(mine, L"");
  std::thread([&] {
    EXPECT_EQ(lastMessage(), L"");
    std::string utf8;
    UTF_ENCODINGS other = AdvXMLParser::UTF_8;
    EXPECT_EQ(
        AdvXMLParser::ReadUtf8BufferFromFileNoExp(L"/no such file", utf8, other, nullptr, nullptr),
        AdvXMLParser::kFileMissing);
    EXPECT_NE(lastMessage(), L"");
    EXPECT_NE(lastMessage(), mine);
  }).join();
  EXPECT_EQ(lastMessage(), mine);
}

}  // namespace
}  // namespace vrxutil::test
