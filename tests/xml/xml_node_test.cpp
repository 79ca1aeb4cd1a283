#include "tests/support/log_recorder.h"
#include "tests/xml/process_support.h"
#include "tests/xml/xml_support.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <cwchar>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vrxutil::test {
namespace {

std::vector<LogRecord> nothing() { return {}; }

std::vector<LogRecord> nodeError(std::wstring const& message) {
  return {errorRecord(L"XmlNode", message)};
}

// A document, a cursor on its root, and a recorder that started after both.
struct Tree {
  explicit Tree(std::wstring const& document) : xml(document), root(&xml) {}

  std::wstring text() { return written(xml); }

  LoadedXml xml;
  AnXmlNode root;
  LogRecorder log;
};

// Construction.

TEST(AnXmlNodeTest, StandsOnNoneAtFirst) {
  LogRecorder log;
  AnXmlNode const node;
  EXPECT_EQ(log.records(), nothing());
  EXPECT_FALSE(node.positionValid());
  EXPECT_EQ(log.records(), uninitializedNode());
}

TEST(AnXmlNodeTest, StandsOnTheRootOfADocument) {
  Tree tree(L"<a/>");
  EXPECT_TRUE(AnXmlNode(&tree.xml).positionValid());
  EXPECT_EQ(AnXmlNode(&tree.xml).getName().const_cpp_str(), L"a");
  AnXmlNode node;
  node.setToRoot(&tree.xml);
  EXPECT_EQ(node.getName().const_cpp_str(), L"a");
  std::unique_ptr<AdvXMLParser::Document> const document(tree.xml.relinquishDocument());
  EXPECT_EQ(AnXmlNode(document.get()).getName().const_cpp_str(), L"a");
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlNodeTest, StandsOnAnElement) {
  std::unique_ptr<AdvXMLParser::Document> const document =
      std::make_unique<AdvXMLParser::Document>(L"a");
  AdvXMLParser::Element& element = document->GetRoot().AddElementInto(L"b");
  EXPECT_EQ(AnXmlNode(element).getName().const_cpp_str(), L"b");
  AnXmlNode node(document.get());
  node.setToZuxmlElement(element);
  EXPECT_EQ(node.getName().const_cpp_str(), L"b");
}

TEST(AnXmlNodeTest, StandsOnNoneForAnEmptyOrNoHolder) {
  AnXml empty;
  std::vector<std::pair<char const*, std::function<AnXmlNode()>>> const rows = {
      {"empty holder", [&] { return AnXmlNode(&empty); }},
      {"null holder", [] { return AnXmlNode(static_cast<AnXml*>(nullptr)); }},
      {"null document", [] { return AnXmlNode(static_cast<AdvXMLParser::Document*>(nullptr)); }},
      {"null node", [] { return AnXmlNode(static_cast<AnXmlNode const*>(nullptr)); }},
      {"the sentinel of no element", [] { return AnXmlNode(AdvXMLParser::Element::null); }},
      {"set to the sentinel of no element",
       [] {
         AnXmlNode node;
         node.setToZuxmlElement(AdvXMLParser::Element::null);
         return node;
       }},
      {"set to empty holder",
       [&] {
         AnXmlNode node;
         node.setToRoot(&empty);
         return node;
       }},
      {"moved from a root to an empty holder",
       [&] {
         LoadedXml xml(L"<a/>");
         AnXmlNode node(&xml);
         node.setToRoot(&empty);
         return node;
       }},
      {"moved from a root to no holder",
       [&] {
         LoadedXml xml(L"<a/>");
         AnXmlNode node(&xml);
         node.setToRoot(nullptr);
         return node;
       }},
  };
  for (auto const& [name, make] : rows) {
    SCOPED_TRACE(name);
    AnXmlNode const node = make();
    LogRecorder log;
    EXPECT_FALSE(node.positionValid());
    EXPECT_EQ(log.records(), uninitializedNode());
  }
}

TEST(AnXmlNodeTest, CopiesStandOnTheSameElement) {
  Tree tree(L"<a/>");
  AnXmlNode copy(&tree.root);
  AnXmlNode assigned;
  assigned = copy;
  assigned.setValue(L"n", L"v");
  EXPECT_EQ(value(copy, L"n"), L"v");
  EXPECT_EQ(tree.text(), L"<a n=\"v\"/>");
}

TEST(AnXmlNodeTest, RootWithoutElementIsHarmless) {
  Tree tree(L"<a/>");
  tree.root.remove();
  AnXmlNode again(&tree.xml);
  EXPECT_EQ(again.getName().const_cpp_str(), L"");
  again.setValue(L"n", L"v");
  again.addChild(nullptr, L"b", nullptr, nullptr);
  again.remove();
  AString text(L"before");
  tree.xml.writeString(&text);
  EXPECT_EQ(text.const_cpp_str(), L"before");
}

// A cursor on none.

TEST(AnXmlNodeTest, OperationsOnNoneReportOnceAndGiveNothing) {
  LoadedXml xml(L"<r n=\"v\"><c/></r>");
  AnXmlNode root(&xml);
  AnXmlNode none;
  AnXmlNode found(&root);
  AString text(L"before");

  struct Row {
    char const* name;
    std::function<bool()> call;  // false expected
  };

  auto const quiet = [](auto const& call) {
    return [call] {
      call();
      return false;
    };
  };
  std::vector<Row> const rows = {
      {"positionValid", [&] { return none.positionValid(); }},
      {"getName", [&] { return none.getName().size() != 0; }},
      {"getValue", [&] { return none.getValue(true, L"n", &text); }},
      {"getValue of null", [&] { return none.getValue(true, nullptr, &text); }},
      {"getValue of the text", [&] { return none.getValue(false, L"", &text); }},
      {"getExistingValue", [&] { return none.getExistingValue(L"n", &text); }},
      {"tryGetValue", [&] { return none.tryGetValue(L"n", &text); }},
      {"setValue", quiet([&] { none.setValue(L"n", L"v"); })},
      {"setValue of the text", quiet([&] { none.setValue(L"", L"v"); })},
      {"hasValue", [&] { return none.hasValue(true, L"n", L"v"); }},
      {"hasValue of anything", [&] { return none.hasValue(false, L"n", nullptr); }},
      {"matchesValue", [&] { return none.matchesValue(true, &root, L"n", nullptr); }},
      {"matchesValue with none", [&] { return root.matchesValue(true, &none, L"n", nullptr); }},
      {"getChild",
       [&] { return none.getChild(true, &found, L"c", nullptr, nullptr, L"n", &text); }},
      {"getChild without cursor",
       [&] { return none.getChild(true, L"c", nullptr, nullptr, L"n", &text); }},
      {"tryGetChild",
       [&] { return none.tryGetChild(&found, nullptr, nullptr, nullptr, L"n", &text); }},
      {"getChildMove",
       [&] { return none.getChildMove(true, L"c", nullptr, nullptr, L"n", &text); }},
      {"setChild",
       quiet([&] { none.setChild(nullptr, L"c", nullptr, nullptr, nullptr, nullptr); })},
      {"addChild", quiet([&] { none.addChild(nullptr, L"c", nullptr, nullptr); })},
      {"remove", quiet([&] { none.remove(); })},
      {"containsValuesOf", [&] { return none.containsValuesOf(&root); }},
      {"containsValuesOf none", [&] { return root.containsValuesOf(&none); }},
      {"containsChildrenOf", [&] { return none.containsChildrenOf(&root); }},
      {"copyValues", quiet([&] { none.copyValues(&root); })},
      {"copyValues from none", quiet([&] { root.copyValues(&none); })},
      {"copyAsChild", quiet([&] { none.copyAsChild(&root); })},
      {"copyAsChild of none", quiet([&] { root.copyAsChild(&none); })},
      {"matchesValue with null", [&] { return root.matchesValue(true, nullptr, L"n", nullptr); }},
      {"containsValuesOf null", [&] { return root.containsValuesOf(nullptr); }},
      {"containsChildrenOf none", [&] { return root.containsChildrenOf(&none); }},
      {"containsChildrenOf null", [&] { return root.containsChildrenOf(nullptr); }},
      {"copyValues from null", quiet([&] { root.copyValues(nullptr); })},
      {"copyAsChild of null", quiet([&] { root.copyAsChild(nullptr); })},
      {"asLogString", [&] { return none.asLogString().size() != 0; }},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    LogRecorder log;
    EXPECT_FALSE(row.call());
    EXPECT_EQ(log.records(), uninitializedNode());
    EXPECT_EQ(text.const_cpp_str(), L"before");
    EXPECT_EQ(value(found, L"n"), L"v") << "the other cursor is not touched";
    EXPECT_EQ(written(xml), L"<r n=\"v\"><c/></r>");
  }
}

TEST(AnXmlNodeTest, NothingAddedLeavesTheCursorOnNone) {
  Tree tree(L"<r/>");
  AnXmlNode none;
  AnXmlNode added(&tree.root);
  none.addChild(&added, L"c", nullptr, nullptr);
  tree.log.clear();
  EXPECT_FALSE(added.positionValid());

  AnXmlNode found(&tree.root);
  none.setChild(&found, L"c", nullptr, nullptr, nullptr, nullptr);
  EXPECT_FALSE(found.positionValid());
}

// Values.

TEST(AnXmlNodeTest, NameOfTheElement) {
  Tree tree(L"<p:n\u00e9me><c/></p:n\u00e9me>");
  EXPECT_EQ(tree.root.getName().const_cpp_str(), L"p:n\u00e9me");
  EXPECT_EQ(child(tree.root, L"c").getName().const_cpp_str(), L"c");
}

struct ValueRow {
  char const* name;
  wchar_t const* valueName;
  bool found;
  wchar_t const* value;
};

TEST(AnXmlNodeTest, ValuesAreAttributesAndTheText) {
  constexpr ValueRow kRows[] = {
      {"attribute", L"a", true, L"1"},
      {"another attribute", L"B", true, L"x y"},
      {"empty attribute", L"e", true, L""},
      {"text", L"", true, L"text"},
      {"missing attribute", L"z", false, L"before"},
      {"attribute in other case", L"A", false, L"before"},
      {"longer name", L"aa", false, L"before"},
      {"the element's own name", L"r", false, L"before"},
  };
  for (ValueRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    std::vector<LogRecord> const missing =
        row.found
            ? nothing()
            : nodeError(std::wstring(L"getValue: required attribute not found: ") + row.valueName);
    Tree tree(L"<r a=\"1\" B=\"x y\" e=\"\">text</r>");
    AString text(L"before");
    EXPECT_EQ(tree.root.getValue(true, row.valueName, &text), row.found);
    EXPECT_EQ(text.const_cpp_str(), row.value);
    EXPECT_EQ(tree.log.plainErrors(), missing);

    tree.log.clear();
    text = L"before";
    EXPECT_EQ(tree.root.getExistingValue(row.valueName, &text), row.found);
    EXPECT_EQ(text.const_cpp_str(), row.value);
    EXPECT_EQ(tree.log.plainErrors(), missing);

    tree.log.clear();
    text = L"before";
    EXPECT_EQ(tree.root.getValue(false, row.valueName, &text), row.found);
    EXPECT_EQ(text.const_cpp_str(), row.value);
    text = L"before";
    EXPECT_EQ(tree.root.tryGetValue(row.valueName, &text), row.found);
    EXPECT_EQ(text.const_cpp_str(), row.value);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlNodeTest, MissingValueIsReportedWithTheTrace) {
  Tree tree(L"<r/>");
  EXPECT_FALSE(tree.root.getExistingValue(L"n", nullptr));
  EXPECT_EQ(tree.log.records(),
            errorInScopes(L"XmlNode", {}, L"getValue: required attribute not found: n"));
}

TEST(AnXmlNodeTest, TextOfAnElementWithChildElementsIsEmpty) {
  Tree tree(L"<r>t<c/>u</r>");
  AString text(L"before");
  EXPECT_TRUE(tree.root.getValue(true, L"", &text));
  EXPECT_EQ(text.const_cpp_str(), L"");
  child(tree.root, L"c").remove();
  EXPECT_TRUE(tree.root.getValue(true, L"", &text));
  EXPECT_EQ(text.const_cpp_str(), L"tu");
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlNodeTest, TextJoinsTheTextsBetweenOtherNodes) {
  Tree tree(L"<r> 1<!--no-->2<![CDATA[<3>]]>4<?no no?>5 </r>");
  EXPECT_EQ(value(tree.root, L""), L" 12<3>45 ");
}

TEST(AnXmlNodeTest, NullValueNameIsAnInternalError) {
  for (bool const required : {false, true}) {
    Tree tree(L"<r/>");
    AString text(L"before");
    EXPECT_FALSE(tree.root.getValue(required, nullptr, &text));
    EXPECT_EQ(text.const_cpp_str(), L"before");
    EXPECT_EQ(tree.log.records(), internalError(L"XmlNode", L"No attribute named NULL"));
  }
}

TEST(AnXmlNodeTest, NullOutputIsNotWritten) {
  Tree tree(L"<r n=\"v\"/>");
  EXPECT_TRUE(tree.root.getValue(true, L"n", nullptr));
  EXPECT_TRUE(tree.root.tryGetValue(L"", nullptr));
  EXPECT_FALSE(tree.root.tryGetValue(L"z", nullptr));
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlNodeTest, OutputMayHoldTheName) {
  Tree tree(L"<r n=\"v\"/>");
  AString text(L"n");
  EXPECT_TRUE(tree.root.getValue(true, text, &text));
  EXPECT_EQ(text.const_cpp_str(), L"v");
}

// Names are looked up by what they say, wherever they stand.
TEST(AnXmlNodeTest, NameInABufferMayChangeBetweenCalls) {
  Tree tree(L"<r aa=\"1\" ab=\"2\" \u00e9=\"3\"><ca n=\"4\"/><cb n=\"5\"/></r>");
  wchar_t name[] = L"aa";
  auto const rename = [&name](wchar_t const* to) { std::wmemcpy(name, to, std::size(name)); };
  EXPECT_EQ(value(tree.root, name), L"1");
  rename(L"ab");
  EXPECT_EQ(value(tree.root, name), L"2");
  rename(L"ac");
  EXPECT_EQ(value(tree.root, name), std::nullopt);
  tree.root.setValue(name, L"6");
  EXPECT_EQ(value(tree.root, name), L"6");
  rename(L"a");
  EXPECT_EQ(value(tree.root, name), std::nullopt);
  rename(L"\u00e9");
  EXPECT_EQ(value(tree.root, name), L"3");
  rename(L"ca");
  EXPECT_EQ(value(child(tree.root, name), L"n"), L"4");
  rename(L"cb");
  EXPECT_EQ(value(child(tree.root, name), L"n"), L"5");
  tree.root.addChild(nullptr, name, L"n", L"7");
  rename(L"cc");
  tree.root.addChild(nullptr, name, L"n", L"8");
  EXPECT_EQ(tree.text(),
            L"<r aa=\"1\" ab=\"2\" \u00e9=\"3\" ac=\"6\"><ca n=\"4\"/><cb n=\"5\"/>"
            L"<cb n=\"7\"/><cc n=\"8\"/></r>");
}

TEST(AnXmlNodeTest, NameThatIsNoUnicodeIsFoundAgain) {
  Tree tree(L"<r/>");
  for (wchar_t const* const text : {L"1", L"2"}) {
    tree.root.setValue(L"a\xD800", text);
    EXPECT_EQ(value(tree.root, L"a\xD800"), text);
  }
  AnXmlValueIndex index(&tree.root);
  EXPECT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_FALSE(index.moveNext(nullptr, nullptr)) << "there is one attribute";
}

struct SetRow {
  char const* name;
  wchar_t const* before;
  wchar_t const* valueName;
  wchar_t const* value;
  wchar_t const* after;
};

TEST(AnXmlNodeTest, SettingValues) {
  constexpr SetRow kRows[] = {
      {"new attribute", L"<r/>", L"n", L"v", L"<r n=\"v\"/>"},
      {"new attribute goes last", L"<r b=\"1\"/>", L"a", L"v", L"<r b=\"1\" a=\"v\"/>"},
      {"existing attribute keeps its place", L"<r a=\"1\" b=\"2\"/>", L"a", L"v",
       L"<r a=\"v\" b=\"2\"/>"},
      {"attributes differ by case", L"<r a=\"1\"/>", L"A", L"2", L"<r a=\"1\" A=\"2\"/>"},
      {"attribute becomes empty", L"<r a=\"1\"/>", L"a", L"", L"<r a=\"\"/>"},
      {"attribute keeps the children", L"<r a=\"1\">t<c/></r>", L"a", L"2",
       L"<r a=\"2\">t<c/></r>"},
      {"escapes in an attribute", L"<r/>", L"n", L"<\"&'", L"<r n=\"&lt;&quot;&amp;'\"/>"},
      {"text", L"<r/>", L"", L"t", L"<r>t</r>"},
      {"other text", L"<r n=\"v\">old</r>", L"", L"t", L"<r n=\"v\">t</r>"},
      {"text in place of child elements", L"<r>a<c><d/></c>b<c/></r>", L"", L"t", L"<r>t</r>"},
      {"text in place of all else", L"<r><!--c--><?p q?><![CDATA[x]]></r>", L"", L"t", L"<r>t</r>"},
      {"escapes in the text", L"<r/>", L"", L"<\"&'", L"<r>&lt;\"&amp;'</r>"},
      {"text becomes empty", L"<r>old</r>", L"", L"", L"<r/>"},
      {"children become empty text", L"<r><c/></r>", L"", L"", L"<r/>"},
  };
  for (SetRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    Tree tree(row.before);
    tree.root.setValue(row.valueName, row.value);
    EXPECT_EQ(tree.text(), row.after);
    EXPECT_EQ(value(tree.root, row.valueName), row.value);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlNodeTest, NullInSetValueIsAnInternalErrorAndSetsNothing) {
  struct Row {
    char const* name;
    wchar_t const* valueName;
    wchar_t const* value;
  };

  constexpr Row kRows[] = {
      {"null name", nullptr, L"v"},
      {"null value of a new attribute", L"n", nullptr},
      {"null value of an attribute", L"a", nullptr},
      {"null text", L"", nullptr},
      {"both", nullptr, nullptr},
  };
  for (Row const& row : kRows) {
    SCOPED_TRACE(row.name);
    Tree tree(L"<r a=\"1\"><c/>t</r>");
    tree.root.setValue(row.valueName, row.value);
    EXPECT_TRUE(isOneInternalError(tree.log.records(), L"XmlNode"));
    EXPECT_EQ(tree.text(), L"<r a=\"1\"><c/>t</r>");
  }
  Tree tree(L"<r/>");
  tree.root.setValue(nullptr, L"v");
  EXPECT_EQ(tree.log.records(), internalError(L"XmlNode", L"No attribute named NULL"));
}

struct HasRow {
  char const* name;
  wchar_t const* valueName;
  wchar_t const* expected;
  bool result;
  bool missing = false;
};

TEST(AnXmlNodeTest, HasValueComparesWithoutCase) {
  constexpr HasRow kRows[] = {
      {"equal", L"n", L"abC", true},
      {"other case", L"n", L"ABc", true},
      {"other value", L"n", L"abd", false},
      {"start of the value", L"n", L"ab", false},
      {"longer", L"n", L"abcd", false},
      {"empty", L"n", L"", false},
      {"any", L"n", nullptr, true},
      {"empty attribute is empty", L"e", L"", true},
      {"empty attribute is a value", L"e", nullptr, true},
      {"text", L"", L"TEXT", true},
      {"other text", L"", L"texts", false},
      {"any text", L"", nullptr, true},
      {"missing", L"z", L"abC", false, true},
      {"any, missing", L"z", nullptr, false, true},
      {"name in other case", L"N", L"abC", false, true},
  };
  for (HasRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    Tree tree(L"<r n=\"abC\" e=\"\">text</r>");
    EXPECT_EQ(tree.root.hasValue(false, row.valueName, row.expected), row.result);
    EXPECT_EQ(tree.log.records(), nothing());
    EXPECT_EQ(tree.root.hasValue(true, row.valueName, row.expected), row.result);
    EXPECT_EQ(tree.log.plainErrors(),
              row.missing ? nodeError(std::wstring(L"getValue: required attribute not found: ") +
                                      row.valueName)
                          : nothing());
  }
}

TEST(AnXmlNodeTest, HasValueOfNullNameIsAnInternalError) {
  Tree tree(L"<r/>");
  EXPECT_FALSE(tree.root.hasValue(false, nullptr, nullptr));
  EXPECT_EQ(tree.log.records(), internalError(L"XmlNode", L"No attribute named NULL"));
}

struct MatchRow {
  char const* name;
  wchar_t const* valueName;
  wchar_t const* otherName;
  bool result;
  wchar_t const* missing = nullptr;
};

TEST(AnXmlNodeTest, MatchesValueComparesWithoutCase) {
  constexpr MatchRow kRows[] = {
      {"same name", L"a", nullptr, true},
      {"same name, other value", L"b", nullptr, false},
      {"other name", L"a", L"c", true},
      {"other name, other value", L"a", L"b", false},
      {"text", L"", nullptr, true},
      {"attribute and text", L"t", L"", true},
      {"text and attribute", L"", L"t", true},
      {"missing here", L"there", nullptr, false, L"there"},
      {"missing here, other name", L"there", L"nowhere", false, L"there"},
      {"missing there", L"here", nullptr, false, L"here"},
      {"other name missing there", L"a", L"nowhere", false, L"nowhere"},
  };
  for (MatchRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    LoadedXml otherXml(L"<o a=\"ONE\" b=\"2\" c=\"oNe\" t=\"TEXT\" there=\"1\">text</o>");
    AnXmlNode const other(&otherXml);
    Tree tree(L"<r a=\"One\" b=\"1\" t=\"text\" here=\"1\">Text</r>");
    EXPECT_EQ(tree.root.matchesValue(false, &other, row.valueName, row.otherName), row.result);
    EXPECT_EQ(tree.log.records(), nothing());
    EXPECT_EQ(tree.root.matchesValue(true, &other, row.valueName, row.otherName), row.result);
    EXPECT_EQ(
        tree.log.plainErrors(),
        row.missing == nullptr
            ? nothing()
            : nodeError(std::wstring(L"getValue: required attribute not found: ") + row.missing));
  }
}

TEST(AnXmlNodeTest, MatchesValueOfNullNameIsAnInternalError) {
  Tree tree(L"<r n=\"v\"/>");
  EXPECT_FALSE(tree.root.matchesValue(false, &tree.root, nullptr, L"n"));
  EXPECT_EQ(tree.log.records(), internalError(L"XmlNode", L"No attribute named NULL"));
}

TEST(AnXmlNodeTest, NodeMatchesItself) {
  Tree tree(L"<r a=\"1\" b=\"1\"/>");
  EXPECT_TRUE(tree.root.matchesValue(true, &tree.root, L"a", nullptr));
  EXPECT_TRUE(tree.root.matchesValue(true, &tree.root, L"a", L"b"));
}

// Children.

// Each element tells by its attribute `id` which one it is.
constexpr wchar_t kFamily[] =
    L"<r> text <!-- no element -->"
    L"<a id=\"1\">one</a>"
    L"<a id=\"2\" s=\"x\">two</a>"
    L"<?no element?><![CDATA[<no/>]]>"
    L"<A id=\"3\" s=\"X\">One</A>"
    L"<a id=\"4\" s=\"X\" S=\"x\"><b id=\"5\" s=\"deep\">deep</b>hidden</a>"
    L"<b id=\"6\" s=\"\"/>"
    L"<a id=\"7\" s=\"y\">one</a>"
    L"</r>";

struct ChildRow {
  char const* name;
  wchar_t const* childName;
  wchar_t const* selName;
  wchar_t const* selValue;
  wchar_t const* id;  // null: none
};

constexpr ChildRow kChildRows[] = {
    {"any", nullptr, nullptr, nullptr, L"1"},
    {"any, selector not looked at", nullptr, L"s", nullptr, L"1"},
    {"any, value not looked at", nullptr, L"s", L"x", L"1"},
    {"any, text not looked at", nullptr, L"", L"two", L"1"},
    {"any, value alone not looked at", nullptr, nullptr, L"x", L"1"},
    {"name", L"a", nullptr, nullptr, L"1"},
    {"name in other case", L"A", nullptr, nullptr, L"3"},
    {"second name", L"b", nullptr, nullptr, L"6"},
    {"unknown name", L"c", nullptr, nullptr, nullptr},
    {"empty name", L"", nullptr, nullptr, nullptr},
    {"the parent's name", L"r", nullptr, nullptr, nullptr},
    {"start of a name", L"aa", nullptr, nullptr, nullptr},
    {"value without selector", L"a", nullptr, L"y", L"1"},
    {"with attribute", L"a", L"s", nullptr, L"2"},
    {"with attribute in other case", L"a", L"S", nullptr, L"4"},
    {"with attribute that none has", L"a", L"z", nullptr, nullptr},
    {"attribute of another name only", L"b", L"S", nullptr, nullptr},
    {"attribute and value", L"a", L"s", L"y", L"7"},
    {"value in other case", L"a", L"s", L"X", L"4"},
    {"value in no such case", L"a", L"s", L"Y", nullptr},
    {"start of a value", L"a", L"s", L"", nullptr},
    {"empty value", L"b", L"s", L"", L"6"},
    {"value of a grandchild", L"b", L"s", L"deep", nullptr},
    {"missing attribute with value", L"a", L"z", L"x", nullptr},
    {"missing attribute with empty value", L"a", L"z", L"", nullptr},
    {"any text", L"a", L"", nullptr, L"1"},
    {"text", L"a", L"", L"two", L"2"},
    {"first of equal texts", L"a", L"", L"one", L"1"},
    {"text in other case", L"A", L"", L"One", L"3"},
    {"text in no such case", L"a", L"", L"Two", nullptr},
    {"empty text of a child with children", L"a", L"", L"", L"4"},
    {"text beside children is not seen", L"a", L"", L"hidden", nullptr},
    {"empty text", L"b", L"", L"", L"6"},
    {"empty text of another name", L"A", L"", L"", nullptr},
};

// What getChild says that it did not find.
std::wstring childNotFound(ChildRow const& row, wchar_t const* valueName) {
  auto const shown = [](wchar_t const* text) {
    return std::wstring(text == nullptr ? L"(null)" : text);
  };
  return L"getChild: required child not found: " + shown(row.childName) + L"," +
         shown(row.selName) + L"," + shown(row.selValue) + L"," + shown(valueName);
}

TEST(AnXmlNodeTest, GetChildSelects) {
  for (ChildRow const& row : kChildRows) {
    for (bool const required : {false, true}) {
      SCOPED_TRACE(row.name);
      Tree tree(kFamily);
      AnXmlNode found(&tree.root);
      AString id(L"before");
      EXPECT_EQ(tree.root.getChild(required, &found, row.childName, row.selName, row.selValue,
                                   L"id", &id),
                row.id != nullptr);
      EXPECT_EQ(tree.log.records(), row.id == nullptr && required
                                        ? errorInScopes(L"XmlNode", {}, childNotFound(row, L"id"))
                                        : nothing());
      EXPECT_EQ(id.const_cpp_str(), row.id == nullptr ? L"before" : row.id);
      tree.log.clear();
      EXPECT_EQ(found.positionValid(), row.id != nullptr) << "cleared where there is none";
      if (row.id != nullptr) {
        EXPECT_EQ(value(found, L"id"), row.id);
      }
    }
  }
}

TEST(AnXmlNodeTest, GetChildWithoutCursorSelectsTheSame) {
  for (ChildRow const& row : kChildRows) {
    SCOPED_TRACE(row.name);
    Tree tree(kFamily);
    AString id(L"before");
    EXPECT_EQ(tree.root.getChild(true, row.childName, row.selName, row.selValue, L"id", &id),
              row.id != nullptr);
    EXPECT_EQ(id.const_cpp_str(), row.id == nullptr ? L"before" : row.id);
    EXPECT_EQ(tree.log.plainErrors(),
              row.id == nullptr ? nodeError(childNotFound(row, L"id")) : nothing());
    EXPECT_EQ(tree.root.getName().const_cpp_str(), L"r");
  }
}

TEST(AnXmlNodeTest, TryGetChildSelectsTheSameAndStaysQuiet) {
  for (ChildRow const& row : kChildRows) {
    SCOPED_TRACE(row.name);
    Tree tree(kFamily);
    AnXmlNode found;
    AString id(L"before");
    EXPECT_EQ(tree.root.tryGetChild(&found, row.childName, row.selName, row.selValue, L"id", &id),
              row.id != nullptr);
    EXPECT_EQ(id.const_cpp_str(), row.id == nullptr ? L"before" : row.id);
    EXPECT_EQ(tree.log.records(), nothing());
    EXPECT_EQ(found.positionValid(), row.id != nullptr);
  }
}

TEST(AnXmlNodeTest, GetChildMoveSelectsTheSameOrStays) {
  for (ChildRow const& row : kChildRows) {
    SCOPED_TRACE(row.name);
    Tree tree(kFamily);
    AnXmlNode node(&tree.root);
    AString id(L"before");
    EXPECT_EQ(node.getChildMove(true, row.childName, row.selName, row.selValue, L"id", &id),
              row.id != nullptr);
    EXPECT_EQ(tree.log.plainErrors(),
              row.id == nullptr ? nodeError(childNotFound(row, L"id")) : nothing());
    EXPECT_EQ(id.const_cpp_str(), row.id == nullptr ? L"before" : row.id);
    if (row.id == nullptr) {
      EXPECT_EQ(node.getName().const_cpp_str(), L"r");
    } else {
      EXPECT_EQ(value(node, L"id"), row.id);
    }
  }
}

TEST(AnXmlNodeTest, GetChildMoveStaysQuietWhereNotRequired) {
  Tree tree(L"<r/>");
  EXPECT_FALSE(tree.root.getChildMove(false, L"c", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlNodeTest, GetChildIntoTheVeryNodeMovesOrStays) {
  Tree tree(L"<r><c/></r>");
  AnXmlNode node(&tree.root);
  EXPECT_FALSE(node.getChild(false, &node, L"z", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(node.getName().const_cpp_str(), L"r");
  EXPECT_TRUE(node.getChild(true, &node, L"c", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(node.getName().const_cpp_str(), L"c");
}

TEST(AnXmlNodeTest, AnotherCursorOnTheSameElementIsCleared) {
  Tree tree(L"<r/>");
  AnXmlNode found(&tree.root);
  EXPECT_FALSE(tree.root.tryGetChild(&found, L"c", nullptr, nullptr, nullptr, nullptr));
  EXPECT_FALSE(found.positionValid());
  EXPECT_TRUE(tree.root.positionValid());
}

TEST(AnXmlNodeTest, GetChildOfNoChildrenFindsNone) {
  for (wchar_t const* const document : {L"<r/>", L"<r>text<!--c--><![CDATA[d]]><?p q?></r>"}) {
    Tree tree(document);
    EXPECT_FALSE(tree.root.getChild(true, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(tree.log.plainErrors(),
              nodeError(L"getChild: required child not found: (null),(null),(null),(null)"));
  }
}

struct ChildValueRow {
  char const* name;
  bool required;
  wchar_t const* valueName;
  wchar_t const* value;
  wchar_t const* error;  // null: none
};

TEST(AnXmlNodeTest, ValueMissingInTheChildDoesNotChangeTheResult) {
  constexpr ChildValueRow kRows[] = {
      {"there", true, L"n", L"v", nullptr},
      {"text", true, L"", L"t", nullptr},
      {"missing, required", true, L"z", L"before", L"getValue: required attribute not found: z"},
      {"missing, not required", false, L"z", L"before", nullptr},
      {"not asked for", true, nullptr, L"before", nullptr},
  };
  for (ChildValueRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    Tree tree(L"<r><c n=\"v\">t</c></r>");
    AnXmlNode found;
    AString text(L"before");
    EXPECT_TRUE(
        tree.root.getChild(row.required, &found, L"c", nullptr, nullptr, row.valueName, &text));
    EXPECT_EQ(text.const_cpp_str(), row.value);
    EXPECT_EQ(tree.log.plainErrors(), row.error == nullptr ? nothing() : nodeError(row.error));
    EXPECT_EQ(found.getName().const_cpp_str(), L"c");
  }
}

TEST(AnXmlNodeTest, ValueIsNotLookedForWithoutOutput) {
  Tree tree(L"<r><c/></r>");
  EXPECT_TRUE(tree.root.getChild(true, L"c", nullptr, nullptr, L"z", nullptr));
  EXPECT_EQ(tree.log.records(), nothing());
}

// Setting and adding children.

struct SetChildRow {
  char const* name;
  wchar_t const* before;
  wchar_t const* childName;
  wchar_t const* selName;
  wchar_t const* selValue;
  wchar_t const* valueName;
  wchar_t const* value;
  wchar_t const* after;
};

TEST(AnXmlNodeTest, SetChildFindsOrAdds) {
  constexpr SetChildRow kRows[] = {
      {"found by name", L"<r><c/></r>", L"c", nullptr, nullptr, L"n", L"v", L"<r><c n=\"v\"/></r>"},
      {"found by attribute", L"<r><c/><c s=\"1\"/><c s=\"2\"/></r>", L"c", L"s", L"2", L"n", L"v",
       L"<r><c/><c s=\"1\"/><c s=\"2\" n=\"v\"/></r>"},
      {"found by text", L"<r><c>a</c><c>b</c></r>", L"c", L"", L"b", L"n", L"v",
       L"<r><c>a</c><c n=\"v\">b</c></r>"},
      {"found, the selecting value changed", L"<r><c s=\"1\"/></r>", L"c", L"s", L"1", L"s", L"2",
       L"<r><c s=\"2\"/></r>"},
      {"found, text set", L"<r><c><d/></c></r>", L"c", nullptr, nullptr, L"", L"t",
       L"<r><c>t</c></r>"},
      {"found, nothing to set", L"<r><c/></r>", L"c", nullptr, nullptr, nullptr, L"v",
       L"<r><c/></r>"},
      {"found, no value to set", L"<r><c/></r>", L"c", nullptr, nullptr, L"n", nullptr,
       L"<r><c/></r>"},
      {"found whatever its name", L"<r><b/><c/></r>", nullptr, nullptr, nullptr, L"n", L"v",
       L"<r><b n=\"v\"/><c/></r>"},
      {"added", L"<r><b/></r>", L"c", nullptr, nullptr, L"n", L"v", L"<r><b/><c n=\"v\"/></r>"},
      {"added bare", L"<r/>", L"c", nullptr, nullptr, nullptr, nullptr, L"<r><c/></r>"},
      {"added with the selecting attribute", L"<r><c s=\"1\"/></r>", L"c", L"s", L"2", L"n", L"v",
       L"<r><c s=\"1\"/><c s=\"2\" n=\"v\"/></r>"},
      {"added where the case differs", L"<r><c s=\"a\"/></r>", L"c", L"s", L"A", nullptr, nullptr,
       L"<r><c s=\"a\"/><c s=\"A\"/></r>"},
      {"added with the selecting text", L"<r/>", L"c", L"", L"t", L"n", L"v",
       L"<r><c n=\"v\">t</c></r>"},
      {"added without selecting value", L"<r><c/></r>", L"c", L"s", nullptr, L"n", L"v",
       L"<r><c/><c n=\"v\"/></r>"},
      {"added, the selector is the value", L"<r/>", L"c", L"s", L"1", L"s", L"2",
       L"<r><c s=\"2\"/></r>"},
      {"added behind text", L"<r>t</r>", L"c", nullptr, nullptr, nullptr, nullptr, L"<r>t<c/></r>"},
  };
  for (SetChildRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    for (bool const withCursor : {false, true}) {
      Tree tree(row.before);
      AnXmlNode found;
      tree.root.setChild(withCursor ? &found : nullptr, row.childName, row.selName, row.selValue,
                         row.valueName, row.value);
      EXPECT_EQ(tree.text(), row.after);
      EXPECT_EQ(tree.log.records(), nothing());
      if (!withCursor) continue;
      found.setValue(L"", L"HERE");
      EXPECT_NE(tree.text().find(L">HERE</"), std::wstring::npos) << "the cursor is on the child";
    }
  }
}

TEST(AnXmlNodeTest, SetChildPointsTheCursorAtTheChild) {
  Tree tree(L"<r><c s=\"1\"/><c s=\"2\"/></r>");
  AnXmlNode found;
  tree.root.setChild(&found, L"c", L"s", L"2", nullptr, nullptr);
  EXPECT_EQ(value(found, L"s"), L"2");
  tree.root.setChild(&found, L"c", L"s", L"3", nullptr, nullptr);
  EXPECT_EQ(value(found, L"s"), L"3");
  EXPECT_EQ(tree.text(), L"<r><c s=\"1\"/><c s=\"2\"/><c s=\"3\"/></r>");
}

TEST(AnXmlNodeTest, SetChildIntoTheVeryNodeDescends) {
  Tree tree(L"<r/>");
  for (int i = 0; i < 3; ++i) {
    tree.root.setChild(&tree.root, L"c", nullptr, nullptr, L"n", L"v");
  }
  EXPECT_EQ(tree.text(), L"<r><c n=\"v\"><c n=\"v\"><c n=\"v\"/></c></c></r>");
}

TEST(AnXmlNodeTest, SetChildWithoutNameAddsNothing) {
  Tree tree(L"<r/>");
  AnXmlNode found(&tree.root);
  tree.root.setChild(&found, nullptr, nullptr, nullptr, L"n", L"v");
  EXPECT_TRUE(isOneInternalError(tree.log.records(), L"XmlNode"));
  EXPECT_FALSE(found.positionValid());
  EXPECT_EQ(tree.text(), L"<r/>");
}

struct AddChildRow {
  char const* name;
  wchar_t const* valueName;
  wchar_t const* value;
  wchar_t const* after;
};

TEST(AnXmlNodeTest, AddChildAppends) {
  constexpr AddChildRow kRows[] = {
      {"bare", nullptr, nullptr, L"<r>t<c/><c/></r>"},
      {"attribute", L"n", L"v", L"<r>t<c/><c n=\"v\"/></r>"},
      {"empty attribute", L"n", L"", L"<r>t<c/><c n=\"\"/></r>"},
      {"text", L"", L"x", L"<r>t<c/><c>x</c></r>"},
      {"name without value", L"n", nullptr, L"<r>t<c/><c/></r>"},
      {"value without name", nullptr, L"v", L"<r>t<c/><c/></r>"},
  };
  for (AddChildRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    for (bool const withCursor : {false, true}) {
      Tree tree(L"<r>t<c/></r>");
      AnXmlNode added;
      tree.root.addChild(withCursor ? &added : nullptr, L"c", row.valueName, row.value);
      EXPECT_EQ(tree.text(), row.after);
      EXPECT_EQ(tree.log.records(), nothing());
      if (!withCursor) continue;
      added.remove();
      EXPECT_EQ(tree.text(), L"<r>t<c/></r>") << "the cursor is on the new child";
    }
  }
}

TEST(AnXmlNodeTest, AddChildIntoTheVeryNodeDescends) {
  Tree tree(L"<r/>");
  tree.root.addChild(&tree.root, L"a", nullptr, nullptr);
  tree.root.addChild(&tree.root, L"b", L"n", L"v");
  EXPECT_EQ(tree.text(), L"<r><a><b n=\"v\"/></a></r>");
}

TEST(AnXmlNodeTest, AddChildWithoutNameIsAnInternalErrorAndClearsTheCursor) {
  Tree tree(L"<r/>");
  AnXmlNode added(&tree.root);
  tree.root.addChild(&added, nullptr, L"n", L"v");
  EXPECT_TRUE(isOneInternalError(tree.log.records(), L"XmlNode"));
  EXPECT_EQ(tree.text(), L"<r/>");
  EXPECT_FALSE(added.positionValid());
  tree.root.addChild(nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(tree.text(), L"<r/>");
}

// Removing.

TEST(AnXmlNodeTest, RemoveDeletesTheElementWithAllBelowIt) {
  Tree tree(L"<r>1<a/>2<b><c>3</c></b>4<d/>5</r>");
  AnXmlNode node = child(tree.root, L"b");
  node.remove();
  EXPECT_EQ(tree.text(), L"<r>1<a/>24<d/>5</r>");
  child(tree.root, L"a").remove();
  child(tree.root, L"d").remove();
  EXPECT_EQ(tree.text(), L"<r>1245</r>");
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlNodeTest, RemovingTwiceReportsTheSecondTime) {
  Tree tree(L"<r><a/><b/></r>");
  AnXmlNode node = child(tree.root, L"a");
  node.remove();
  EXPECT_EQ(tree.log.records(), nothing());
  node.remove();
  EXPECT_EQ(tree.log.records(), uninitializedNode());
  EXPECT_EQ(tree.text(), L"<r><b/></r>");
}

TEST(AnXmlNodeTest, OtherCursorsOnARemovedElementAreHarmless) {
  Tree tree(L"<r><a n=\"v\"><b>t</b></a><c/></r>");
  AnXmlNode a = child(tree.root, L"a");
  AnXmlNode other(&a);
  AnXmlNode below = child(a, L"b");
  a.remove();
  for (int round = 0; round < 2; ++round) {
    for (AnXmlNode* const node : {&other, &below}) {
      node->positionValid();
      node->getName();
      node->asLogString();
      AString text;
      node->tryGetValue(L"n", &text);
      node->tryGetValue(L"", &text);
      node->hasValue(false, L"n", L"v");
      AnXmlNode found;
      node->tryGetChild(&found, L"b", nullptr, nullptr, nullptr, nullptr);
      tree.root.containsValuesOf(node);
      tree.root.containsChildrenOf(node);
      AnXmlChildIndex children(node, nullptr);
      while (children.moveNext(nullptr, nullptr)) children.getName();
      AnXmlValueIndex values(node);
      while (values.moveNext(&text, &text)) text.size();
    }
    // What was freed may be used again by now.
    tree.root.addChild(nullptr, L"d", L"n", L"a longer value than the one before it was");
    tree.root.addChild(nullptr, L"e", L"", L"text");
  }
  EXPECT_TRUE(tree.text().starts_with(L"<r><c/><d n="));
}

TEST(AnXmlNodeTest, RemovingTheElementBelowWhichACursorStandsIsHarmless) {
  Tree tree(L"<r><a><b><c/></b></a></r>");
  AnXmlNode a = child(tree.root, L"a");
  AnXmlNode c = child(child(a, L"b"), L"c");
  a.remove();
  c.remove();
  EXPECT_EQ(tree.text(), L"<r/>");
}

// What is below a removed element is taken back piece by piece, as memory for
// later additions. How far that has come depends on the number of siblings.

// Removes an element that holds so many elements, and another one at last, on
// which the cursor stands that is returned.
AnXmlNode lastBelowARemovedElement(AnXmlNode root, int siblings) {
  AnXmlNode removed;
  root.addChild(&removed, L"removed", nullptr, nullptr);
  for (int i = 0; i < siblings; ++i) removed.addChild(nullptr, L"s", nullptr, nullptr);
  AnXmlNode last;
  removed.addChild(&last, L"last", nullptr, nullptr);
  removed.remove();
  return last;
}

TEST(AnXmlNodeTest, AddingBelowARemovedElementLeavesTheDocumentIntact) {
  LoadedXml fromXml(L"<x n=\"v\"><x>t</x></x>");
  AnXmlNode const from(&fromXml);
  std::vector<std::pair<char const*, std::function<void(AnXmlNode&)>>> const rows = {
      {"child", [](AnXmlNode& node) { node.addChild(nullptr, L"x", nullptr, nullptr); }},
      {"attribute", [](AnXmlNode& node) { node.setValue(L"x", L"v"); }},
      {"text", [](AnXmlNode& node) { node.setValue(L"", L"x"); }},
      {"values", [&](AnXmlNode& node) { node.copyValues(&from); }},
      {"copy", [&](AnXmlNode& node) { node.copyAsChild(&from); }},
  };
  for (auto const& [name, add] : rows) {
    for (int siblings = 0; siblings < 10; ++siblings) {
      SCOPED_TRACE(std::string(name) + " behind " + std::to_string(siblings));
      Tree tree(L"<r/>");
      AnXmlNode last = lastBelowARemovedElement(tree.root, siblings);
      add(last);
      AnXmlNode y;
      tree.root.addChild(&y, L"y", nullptr, nullptr);
      y.addChild(nullptr, L"z", L"n", L"v");
      EXPECT_EQ(tree.text(), L"<r><y><z n=\"v\"/></y></r>");
    }
  }
}

TEST(AnXmlNodeTest, RemovingWhatWasAddedBelowARemovedElementLeavesTheDocumentIntact) {
  for (int siblings = 0; siblings < 10; ++siblings) {
    SCOPED_TRACE(siblings);
    Tree tree(L"<r/>");
    AnXmlNode last = lastBelowARemovedElement(tree.root, siblings);
    AnXmlNode added;
    last.addChild(&added, L"x", nullptr, nullptr);
    AnXmlNode y;
    tree.root.addChild(&y, L"y", nullptr, nullptr);
    y.addChild(nullptr, L"z", nullptr, nullptr);
    added.remove();
    EXPECT_EQ(tree.text(), L"<r><y><z/></y></r>");
  }
}

// Comparing.

struct ContainsRow {
  char const* name;
  wchar_t const* here;
  wchar_t const* other;
  bool result;
};

TEST(AnXmlNodeTest, ContainsValuesOf) {
  constexpr ContainsRow kRows[] = {
      {"equal", L"<a n=\"1\" m=\"2\">t</a>", L"<a n=\"1\" m=\"2\">t</a>", true},
      {"other order", L"<a n=\"1\" m=\"2\"/>", L"<a m=\"2\" n=\"1\"/>", true},
      {"more attributes here", L"<a n=\"1\" m=\"2\"/>", L"<a m=\"2\"/>", true},
      {"no attributes there", L"<a n=\"1\"/>", L"<a/>", true},
      {"more attributes there", L"<a n=\"1\"/>", L"<a n=\"1\" m=\"2\"/>", false},
      {"other name", L"<a/>", L"<b/>", false},
      {"name in other case", L"<a/>", L"<A/>", false},
      {"other text", L"<a n=\"1\">t</a>", L"<a n=\"1\">u</a>", false},
      {"text in other case", L"<a>t</a>", L"<a>T</a>", false},
      {"text here only", L"<a>t</a>", L"<a/>", false},
      {"text there only", L"<a/>", L"<a>t</a>", false},
      {"texts beside children are empty", L"<a>t<b/></a>", L"<a>u<c/></a>", true},
      {"text beside children equals none", L"<a>t<b/></a>", L"<a/>", true},
      {"children do not matter", L"<a/>", L"<a><b/></a>", true},
      {"other value", L"<a n=\"1\"/>", L"<a n=\"2\"/>", false},
      {"value in other case", L"<a n=\"x\"/>", L"<a n=\"X\"/>", false},
      {"attribute in other case", L"<a n=\"1\"/>", L"<a N=\"1\"/>", false},
      {"value under another name", L"<a n=\"1\"/>", L"<a m=\"1\"/>", false},
      {"empty value", L"<a n=\"\"/>", L"<a n=\"\"/>", true},
      {"empty value is no missing one", L"<a/>", L"<a n=\"\"/>", false},
      {"same text in pieces", L"<a>1<![CDATA[2]]>3</a>", L"<a>12<!--c-->3</a>", true},
  };
  for (ContainsRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    LoadedXml otherXml(row.other);
    AnXmlNode other(&otherXml);
    Tree tree(row.here);
    EXPECT_EQ(tree.root.containsValuesOf(&other), row.result);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlNodeTest, NodeContainsItself) {
  Tree tree(L"<a n=\"1\"><b m=\"2\"><c>t</c></b></a>");
  EXPECT_TRUE(tree.root.containsValuesOf(&tree.root));
  EXPECT_TRUE(tree.root.containsChildrenOf(&tree.root));
  EXPECT_EQ(tree.log.records(), nothing());
}

// An element with `count` attributes, from the last to the first where
// `backwards`, one of which has another value.
std::wstring manyAttributes(std::size_t count, bool backwards,
                            std::optional<std::size_t> different = std::nullopt) {
  std::wstring text = L"<a";
  for (std::size_t i = 0; i < count; ++i) {
    std::size_t const number = backwards ? count - 1 - i : i;
    text += L" n" + std::to_wstring(number) + L"=\"" +
            (number == different ? L"x" : std::to_wstring(number)) + L"\"";
  }
  return text + L"/>";
}

TEST(AnXmlNodeTest, ElementsOfManyAttributesAreCompared) {
  for (std::size_t const count : {15U, 16U, 17U, 40U}) {
    SCOPED_TRACE(count);
    LoadedXml otherXml(manyAttributes(count, /*backwards=*/true));
    AnXmlNode other(&otherXml);
    Tree equal(manyAttributes(count, /*backwards=*/false));
    EXPECT_TRUE(equal.root.containsValuesOf(&other));
    Tree more(manyAttributes(count + 1, /*backwards=*/false));
    EXPECT_TRUE(more.root.containsValuesOf(&other));
    Tree fewer(manyAttributes(count - 1, /*backwards=*/false));
    EXPECT_FALSE(fewer.root.containsValuesOf(&other));
    for (std::size_t const different : {std::size_t{0}, count / 2, count - 1}) {
      Tree tree(manyAttributes(count, /*backwards=*/false, different));
      EXPECT_FALSE(tree.root.containsValuesOf(&other));
    }
  }
}

// Looking each one up among all would take billions of steps.
TEST(AnXmlNodeTest, AHundredThousandAttributesAreCopiedAndCompared) {
  constexpr std::size_t kCount = 100000;
  std::wstring const document = manyAttributes(kCount, /*backwards=*/false);
  LoadedXml fromXml(document);
  AnXmlNode from(&fromXml);
  Tree tree(manyAttributes(kCount, /*backwards=*/true));
  EXPECT_TRUE(tree.root.containsValuesOf(&from));
  from.setValue(L"n0", L"new");
  EXPECT_FALSE(tree.root.containsValuesOf(&from));
  tree.root.copyValues(&from);
  EXPECT_TRUE(tree.root.containsValuesOf(&from));
  Tree empty(L"<a/>");
  empty.root.copyValues(&from);
  EXPECT_TRUE(empty.text() == written(fromXml));
}

struct MissingRow {
  char const* name;
  wchar_t const* here;
  wchar_t const* other;
  bool result;
  std::vector<std::wstring> missing;
};

TEST(AnXmlNodeTest, ContainsChildrenOf) {
  std::vector<MissingRow> const rows = {
      {"no children there", L"<r><a/></r>", L"<r/>", true, {}},
      {"equal", L"<r><a/><b/></r>", L"<r><a/><b/></r>", true, {}},
      {"other order", L"<r><a/><b/></r>", L"<r><b/><a/></r>", true, {}},
      {"more here", L"<r><a/><b n=\"1\"/></r>", L"<r><b/></r>", true, {}},
      {"one child for two", L"<r><a/></r>", L"<r><a/><a/></r>", true, {}},
      {"the nodes themselves do not matter",
       L"<r n=\"1\"><a/></r>",
       L"<s m=\"2\"><a/></s>",
       true,
       {}},
      {"no elements do not matter", L"<r><a/></r>", L"<r>t<!--c--><?p q?><a/></r>", true, {}},
      {"deep", L"<r><a><b><c>t</c></b></a></r>", L"<r><a><b><c>t</c></b></a></r>", true, {}},
      {"second candidate fits",
       L"<r><a n=\"1\"/><a n=\"2\"/></r>",
       L"<r><a n=\"2\"/></r>",
       true,
       {}},
      {"missing child", L"<r/>", L"<r><a n=\"1\">t</a></r>", false, {L"<a n=\"1\">t</a>"}},
      {"other text", L"<r><a>1</a></r>", L"<r><a>2</a></r>", false, {L"<a>2</a>"}},
      {"name in other case", L"<r><A/></r>", L"<r><a/></r>", false, {L"<a></a>"}},
      {"first missing ends the search",
       L"<r><b/></r>",
       L"<r><b/><a/><c/></r>",
       false,
       {L"<a></a>"}},
      {"one record on each level, innermost first",
       L"<r><a n=\"1\"><b><x/></b></a></r>",
       L"<r><a n=\"1\"><b><c m=\"2\"/></b></a></r>",
       false,
       {L"<c m=\"2\"></c>", L"<b></b>", L"<a n=\"1\"></a>"}},
      {"a candidate that fails further down",
       L"<r><a/><a><b/></a></r>",
       L"<r><a><b/></a></r>",
       true,
       {L"<b></b>"}},
      {"each candidate that fails further down",
       L"<r><a i=\"1\"/><a i=\"2\"/></r>",
       L"<r><a><b/></a></r>",
       false,
       {L"<b></b>", L"<b></b>", L"<a></a>"}},
  };
  for (MissingRow const& row : rows) {
    SCOPED_TRACE(row.name);
    LoadedXml otherXml(row.other);
    AnXmlNode const other(&otherXml);
    std::vector<LogRecord> expected;
    for (std::wstring const& text : row.missing) {
      expected.push_back(errorRecord(L"XmlNode", L"missing " + text));
    }
    Tree tree(row.here);
    EXPECT_EQ(tree.root.containsChildrenOf(&other), row.result);
    EXPECT_EQ(tree.log.plainErrors(), expected);
  }
}

TEST(AnXmlNodeTest, MissingChildIsReportedWithTheTrace) {
  LoadedXml otherXml(L"<r><a/></r>");
  AnXmlNode const other(&otherXml);
  Tree tree(L"<r/>");
  EXPECT_FALSE(tree.root.containsChildrenOf(&other));
  EXPECT_EQ(tree.log.records(), errorInScopes(L"XmlNode", {}, L"missing <a></a>"));
}

// Copying.

struct CopyRow {
  char const* name;
  wchar_t const* here;
  wchar_t const* from;
  wchar_t const* after;
};

TEST(AnXmlNodeTest, CopyValues) {
  constexpr CopyRow kRows[] = {
      {"attributes and text", L"<r/>", L"<f n=\"1\" m=\"2\">t</f>", L"<r n=\"1\" m=\"2\">t</r>"},
      {"others stay", L"<r a=\"0\" n=\"9\"/>", L"<f n=\"1\" m=\"2\"/>",
       L"<r a=\"0\" n=\"1\" m=\"2\"/>"},
      {"text goes", L"<r>t</r>", L"<f/>", L"<r/>"},
      {"places stay", L"<r b=\"0\" a=\"0\"/>", L"<f a=\"1\" c=\"2\" b=\"3\"/>",
       L"<r b=\"3\" a=\"1\" c=\"2\"/>"},
      {"children go", L"<r>t<c/></r>", L"<f/>", L"<r/>"},
      {"children go for the text", L"<r><c/></r>", L"<f>t</f>", L"<r>t</r>"},
      {"children are not copied", L"<r/>", L"<f n=\"1\">t<c/></f>", L"<r n=\"1\"/>"},
      {"comments are not copied", L"<r/>", L"<f>1<!--c-->2</f>", L"<r>12</r>"},
      {"escapes", L"<r/>", L"<f n=\"&lt;&quot;\">&amp;</f>", L"<r n=\"&lt;&quot;\">&amp;</r>"},
  };
  for (CopyRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    LoadedXml fromXml(row.from);
    AnXmlNode const from(&fromXml);
    Tree tree(row.here);
    tree.root.copyValues(&from);
    EXPECT_EQ(tree.text(), row.after);
    EXPECT_EQ(written(fromXml), row.from);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlNodeTest, CopyValuesOntoItself) {
  Tree leaf(L"<r n=\"1\" m=\"2\">t</r>");
  leaf.root.copyValues(&leaf.root);
  EXPECT_EQ(leaf.text(), L"<r n=\"1\" m=\"2\">t</r>");
  Tree parent(L"<r n=\"1\">t<c/></r>");
  parent.root.copyValues(&parent.root);
  EXPECT_EQ(parent.text(), L"<r n=\"1\"/>")
      << "its text is empty, and setting it ends the children";
}

TEST(AnXmlNodeTest, CopyValuesFromARelative) {
  Tree down(L"<r n=\"1\"><c n=\"2\" m=\"3\">t</c></r>");
  AnXmlNode const c = child(down.root, L"c");
  down.root.copyValues(&c);
  EXPECT_EQ(down.text(), L"<r n=\"2\" m=\"3\">t</r>");
  Tree up(L"<r n=\"1\"><c>t</c></r>");
  child(up.root, L"c").copyValues(&up.root);
  EXPECT_EQ(up.text(), L"<r n=\"1\"><c n=\"1\"/></r>");
}

TEST(AnXmlNodeTest, CopyAsChild) {
  constexpr CopyRow kRows[] = {
      {"leaf", L"<r/>", L"<f n=\"1\">t</f>", L"<r><f n=\"1\">t</f></r>"},
      {"goes last", L"<r>x<c/></r>", L"<f/>", L"<r>x<c/><f/></r>"},
      {"tree", L"<r/>", L"<f><a n=\"1\"><b>t</b><b/></a><c>u</c></f>",
       L"<r><f><a n=\"1\"><b>t</b><b/></a><c>u</c></f></r>"},
      {"only elements and their texts", L"<r/>", L"<f>x<a>1<!--c-->2<?p q?></a>y</f>",
       L"<r><f><a>12</a></f></r>"},
  };
  for (CopyRow const& row : kRows) {
    SCOPED_TRACE(row.name);
    LoadedXml fromXml(row.from);
    AnXmlNode const from(&fromXml);
    Tree tree(row.here);
    tree.root.copyAsChild(&from);
    EXPECT_EQ(tree.text(), row.after);
    EXPECT_EQ(written(fromXml), row.from);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlNodeTest, CopyOutlivesTheDocumentItCameFrom) {
  Tree tree(L"<r/>");
  {
    LoadedXml fromXml(L"<f n=\"1\"><a>t</a></f>");
    AnXmlNode const from(&fromXml);
    tree.root.copyAsChild(&from);
    tree.root.copyValues(&from);
    tree.root.copyAsChild(&from);
  }
  EXPECT_EQ(tree.text(), L"<r n=\"1\"><f n=\"1\"><a>t</a></f></r>");
}

TEST(AnXmlNodeTest, CopyIntoItselfAppendsWhatItWas) {
  Tree tree(L"<r n=\"1\"><a/><b>t</b></r>");
  tree.root.copyAsChild(&tree.root);
  EXPECT_EQ(tree.text(), L"<r n=\"1\"><a/><b>t</b><r n=\"1\"><a/><b>t</b></r></r>");
  Tree bare(L"<r n=\"1\"/>");
  bare.root.copyAsChild(&bare.root);
  bare.root.copyAsChild(&bare.root);
  EXPECT_EQ(bare.text(), L"<r n=\"1\"><r n=\"1\"/><r n=\"1\"><r n=\"1\"/></r></r>");
}

TEST(AnXmlNodeTest, CopyOfALeafIntoItselfKeepsItsText) {
  Tree tree(L"<r>t</r>");
  tree.root.copyAsChild(&tree.root);
  EXPECT_EQ(tree.text(), L"<r>t<r>t</r></r>");
}

TEST(AnXmlNodeTest, CopyIntoItsOwnDescendantAppendsWhatItWas) {
  Tree tree(L"<r><a n=\"1\"><b><c/></b><d/></a></r>");
  AnXmlNode const a = child(tree.root, L"a");
  child(a, L"b").copyAsChild(&a);
  EXPECT_EQ(tree.text(), L"<r><a n=\"1\"><b><c/><a n=\"1\"><b><c/></b><d/></a></b><d/></a></r>");
}

TEST(AnXmlNodeTest, CopyOfAChildIntoItsParent) {
  Tree tree(L"<r><a n=\"1\"><b/></a></r>");
  AnXmlNode const a = child(tree.root, L"a");
  tree.root.copyAsChild(&a);
  EXPECT_EQ(tree.text(), L"<r><a n=\"1\"><b/></a><a n=\"1\"><b/></a></r>");
}

// One line for the log.

TEST(AnXmlNodeTest, LogStringIsNotEscaped) {
  constexpr std::pair<wchar_t const*, wchar_t const*> kRows[] = {
      {L"<a/>", L"<a></a>"},
      {L"<a>text</a>", L"<a>text</a>"},
      {L"<a n=\"1\" m=\"\">t</a>", L"<a n=\"1\" m=\"\">t</a>"},
      {L"<a n=\"&lt;&quot;&amp;\">&lt;&amp;</a>", L"<a n=\"<\"&\"><&</a>"},
      {L"<a>text<b n=\"1\"/></a>", L"<a></a>"},
      {L"<a>1<!--c-->2<![CDATA[3]]></a>", L"<a>123</a>"},
      {L"<a> x&#10;y </a>", L"<a> x\ny </a>"},
  };
  for (auto const& [document, line] : kRows) {
    Tree tree(document);
    EXPECT_EQ(tree.root.asLogString().const_cpp_str(), line);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

// Deep trees.

constexpr std::size_t kDeep = 1000000;

// A chain of `depth` elements below `node`, the last one with an attribute.
void growChain(AnXmlNode node, std::size_t depth, wchar_t const* lastValue) {
  for (std::size_t i = 0; i < depth; ++i) node.addChild(&node, L"c", nullptr, nullptr);
  node.setValue(L"last", lastValue);
}

// A holder of such a chain below the root "r".
class DeepXml : public AnXml {
public:
  DeepXml(std::size_t depth, wchar_t const* lastValue) {
    EXPECT_TRUE(useNew(L"r", nullptr, nullptr));
    growChain(AnXmlNode(this), depth, lastValue);
  }
};

struct Chain {
  std::size_t depth;  // of the elements below the first
  OptionalText lastValue;

  bool operator==(Chain const&) const = default;
};

// The way down from `node`, by the first child of each.
Chain chainBelow(AnXmlNode node) {
  std::size_t depth = 0;
  while (node.getChildMove(false, nullptr, nullptr, nullptr, nullptr, nullptr)) ++depth;
  return {depth, value(node, L"last")};
}

TEST(AnXmlDeepTreeTest, IsNotWrittenAndClosedOnASmallStack) {
  runOnSmallStack([] {
    DeepXml xml(kDeep, L"x");
    EXPECT_EQ(chainBelow(AnXmlNode(&xml)), (Chain{kDeep, L"x"}));
    LogRecorder log;
    AString text(L"before");
    xml.writeString(&text);
    EXPECT_EQ(text.const_cpp_str(), L"before");
    EXPECT_EQ(log.records(), errorInScopes(L"Xml", {},
                                           L"Exception writing string: elements are nested deeper "
                                           L"than 1000 levels"));
    xml.close();
  });
}

TEST(AnXmlDeepTreeTest, IsCopiedOnASmallStack) {
  runOnSmallStack([] {
    DeepXml xml(kDeep, L"x");
    DeepXml copy(0, L"r");
    AnXmlNode const from = child(AnXmlNode(&xml), L"c");
    AnXmlNode(&copy).copyAsChild(&from);
    EXPECT_EQ(chainBelow(AnXmlNode(&copy)), (Chain{kDeep, L"x"}));
  });
}

TEST(AnXmlDeepTreeTest, IsComparedOnASmallStack) {
  runOnSmallStack([] {
    DeepXml xml(kDeep, L"x");
    DeepXml other(kDeep, L"x");
    AnXmlNode root(&xml);
    AnXmlNode otherRoot(&other);
    LogRecorder log;
    EXPECT_TRUE(root.containsChildrenOf(&otherRoot));
    EXPECT_EQ(log.records(), nothing());
  });
}

TEST(AnXmlDeepTreeTest, DifferenceIsReportedOnEachLevelOnASmallStack) {
  runOnSmallStack([] {
    constexpr std::size_t kDepth = 100000;  // each level leaves a record
    DeepXml xml(kDepth, L"x");
    DeepXml other(kDepth, L"y");
    AnXmlNode root(&xml);
    AnXmlNode otherRoot(&other);
    LogRecorder log;
    EXPECT_FALSE(root.containsChildrenOf(&otherRoot));
    std::vector<LogRecord> const errors = log.plainErrors();
    ASSERT_EQ(errors.size(), kDepth);
    EXPECT_EQ(errors.front(), errorRecord(L"XmlNode", L"missing <c last=\"y\"></c>"));
    EXPECT_EQ(errors.back(), errorRecord(L"XmlNode", L"missing <c></c>"));
  });
}

TEST(AnXmlDeepTreeTest, IsRemovedAndCutOnASmallStack) {
  runOnSmallStack([] {
    DeepXml xml(kDeep, L"x");
    AnXmlNode root(&xml);
    child(root, L"c").remove();
    EXPECT_EQ(written(xml), L"<r/>");
    growChain(root, kDeep, L"x");
    root.setValue(L"", L"t");
    EXPECT_EQ(written(xml), L"<r>t</r>");
    growChain(root, kDeep, L"x");
    root.copyValues(&root);
    EXPECT_EQ(written(xml), L"<r/>");
  });
}

TEST(AnXmlDeepTreeTest, IsCopiedIntoItsLastElement) {
  runOnSmallStack([] {
    DeepXml xml(kDeep, L"x");
    AnXmlNode root(&xml);
    AnXmlNode last(&root);
    while (last.getChildMove(false, L"c", nullptr, nullptr, nullptr, nullptr)) {
    }
    last.copyAsChild(&root);
    EXPECT_EQ(chainBelow(last), (Chain{kDeep + 1, L"x"}));
    EXPECT_EQ(chainBelow(root), (Chain{2 * kDeep + 1, L"x"}));
  });
}

TEST(AnXmlNestingTest, AThousandLevelsAreParsed) {
  auto const nested = [](std::size_t levels) {
    std::wstring text;
    for (std::size_t i = 0; i < levels; ++i) text += L"<a>\n";
    for (std::size_t i = 0; i < levels; ++i) text += L"</a>";
    return text;
  };
  LogRecorder log;
  AnXml xml;
  EXPECT_TRUE(xml.useString(nested(1000).c_str(), L"a", nullptr, nullptr));
  EXPECT_EQ(log.errors(), nothing());
  EXPECT_TRUE(written(xml).size() > 1000 * 4);

  EXPECT_FALSE(xml.useString(nested(1001).c_str(), L"a", nullptr, nullptr));
  expectParseErrorAt(log, 1001, 1);
  EXPECT_EQ(takeDocument(xml), std::nullopt);
}

// Memory of long-lived documents.

class MemoryTest : public testing::Test {
protected:
  // What the tree may take for things that are in it no more.
  static constexpr std::size_t kSlackInBytes = 64 * 1024;

  // Calls `step(i)` many times; the first calls may still fill free lists.
  template <class Step>
  void expectNoGrowth(int count, Step const& step) {
    int const warmUp = count / 100;
    for (int i = 0; i < warmUp; ++i) step(i);
    std::size_t const before = document_->MemoryInUse();
    for (int i = 0; i < count; ++i) step(i);
    EXPECT_LE(document_->MemoryInUse(), before + kSlackInBytes);
  }

  std::unique_ptr<AdvXMLParser::Document> document_ =
      std::make_unique<AdvXMLParser::Document>(L"r");
  AnXmlNode root_{document_.get()};
};

TEST_F(MemoryTest, SettingAnAttributeForLongDoesNotGrow) {
  expectNoGrowth(1000000, [&](int i) {
    root_.setValue(L"status", i % 2 == 0 ? L"done" : L"a longer state than done");
  });
  EXPECT_EQ(value(root_, L"status"), L"a longer state than done");
}

TEST_F(MemoryTest, SettingAnAttributeToTextsOfAllLengthsDoesNotGrow) {
  std::wstring const text(2000, L'x');
  std::size_t length = 0;
  expectNoGrowth(200000, [&](int) {
    root_.setValue(L"status", text.c_str() + length);
    length = (length + 7) % text.size();
  });
}

TEST_F(MemoryTest, SettingTheTextForLongDoesNotGrow) {
  expectNoGrowth(200000, [&](int i) { root_.setValue(L"", i % 2 == 0 ? L"idle" : L"working"); });
}

TEST_F(MemoryTest, AddingAndRemovingChildrenForLongDoesNotGrow) {
  expectNoGrowth(200000, [&](int i) {
    AnXmlNode added;
    root_.addChild(&added, L"task", L"name", i % 3 == 0 ? L"scan" : L"a task with a longer name");
    added.addChild(nullptr, L"step", L"", L"text");
    added.remove();
  });
  EXPECT_EQ(document_->GenerateXML(false), L"<r/>");
}

TEST_F(MemoryTest, AQueueOfChildrenDoesNotGrow) {
  for (int i = 0; i < 10; ++i) root_.addChild(nullptr, L"task", L"", L"queued");
  expectNoGrowth(200000, [&](int) {
    root_.addChild(nullptr, L"task", L"", L"queued");
    AnXmlChildIndex index(&root_, L"task");
    index.moveNext(nullptr, nullptr);
    index.remove();
  });
}

TEST_F(MemoryTest, ReplacingSubtreesForLongDoesNotGrow) {
  LoadedXml fromXml(L"<f n=\"1\"><a>text</a><b m=\"2\"/></f>");
  AnXmlNode const from(&fromXml);
  expectNoGrowth(50000, [&](int) {
    root_.copyAsChild(&from);
    root_.setValue(L"", L"");
  });
}

}  // namespace
}  // namespace vrxutil::test
