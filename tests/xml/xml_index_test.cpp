#include "tests/support/log_recorder.h"
#include "tests/xml/xml_support.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

using Names = std::vector<std::wstring>;

std::vector<LogRecord> nothing() { return {}; }

std::vector<LogRecord> removeWithoutMove() {
  return internalError(L"XmlIndx", L"remove without moveNext");
}

// A document, a cursor on its root, and a recorder that started after both.
struct Tree {
  explicit Tree(std::wstring const& document) : xml(document), root(&xml) {}

  std::wstring text() { return written(xml); }

  LoadedXml xml;
  AnXmlNode root;
  LogRecorder log;
};

// The values `id` of the children that the index has yet to visit.
Names remainingIds(AnXmlChildIndex& index) {
  Names ids;
  AString id;
  while (index.moveNext(L"id", &id)) ids.push_back(id.const_cpp_str());
  return ids;
}

constexpr wchar_t kMixed[] =
    L"<r>t<!--c--><b id=\"1\"/><?p q?><c id=\"2\"/> <b id=\"3\"><b id=\"4\"/></b><![CDATA[d]]>"
    L"<B id=\"5\"/><b id=\"6\"/>u</r>";

// Walking.

struct WalkRow {
  char const* name;
  wchar_t const* filter;
  Names ids;
};

TEST(AnXmlChildIndexTest, VisitsTheElementChildrenOfTheName) {
  std::vector<WalkRow> const rows = {
      {"null means any", nullptr, {L"1", L"2", L"3", L"5", L"6"}},
      {"empty means any", L"", {L"1", L"2", L"3", L"5", L"6"}},
      {"name", L"b", {L"1", L"3", L"6"}},
      {"name in other case", L"B", {L"5"}},
      {"one in the middle", L"c", {L"2"}},
      {"unknown name", L"d", {}},
      {"start of no name", L"bb", {}},
      {"the parent's name", L"r", {}},
  };
  for (WalkRow const& row : rows) {
    SCOPED_TRACE(row.name);
    Tree tree(kMixed);
    AnXmlChildIndex made(&tree.root, row.filter);
    EXPECT_EQ(remainingIds(made), row.ids);
    AnXmlChildIndex index;
    EXPECT_TRUE(index.set(&tree.root, row.filter));
    EXPECT_EQ(remainingIds(index), row.ids);
    EXPECT_EQ(tree.log.records(), nothing());
    EXPECT_EQ(tree.text(), kMixed);
  }
}

TEST(AnXmlChildIndexTest, VisitsNoChildOfTextsAlone) {
  for (wchar_t const* const document :
       {L"<r/>", L"<r>text</r>", L"<r>t<!--c--><?p q?><![CDATA[<d/>]]></r>"}) {
    Tree tree(document);
    AnXmlChildIndex index;
    EXPECT_TRUE(index.set(&tree.root, nullptr));
    EXPECT_FALSE(index.moveNext(nullptr, nullptr));
    EXPECT_FALSE(index.moveNext(nullptr, nullptr));
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlChildIndexTest, IsACursorOnTheChildVisitedLast) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"b");
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(index, L"id"), L"1");
  index.setValue(L"seen", L"yes");
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(index, L"id"), L"3");
  EXPECT_EQ(value(child(index, L"b"), L"id"), L"4");
  AnXmlNode const copy(&index);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(copy, L"id"), L"3");
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(index, L"id"), L"6") << "the cursor stays at the end";
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(index, L"id"), L"6");
  EXPECT_EQ(value(child(tree.root, L"b"), L"seen"), L"yes");
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlChildIndexTest, StandsOnNoneBeforeTheFirstMove) {
  Tree tree(kMixed);
  AnXmlChildIndex const index(&tree.root, nullptr);
  EXPECT_FALSE(index.positionValid());
  EXPECT_EQ(tree.log.records(), uninitializedNode());
}

TEST(AnXmlChildIndexTest, MoveReadsTheValueWhereThereIsOne) {
  Tree tree(L"<r><a n=\"1\">x</a><a/><a n=\"\">y</a></r>");
  AnXmlChildIndex index(&tree.root, L"a");
  AString text(L"before");
  EXPECT_TRUE(index.moveNext(L"n", &text));
  EXPECT_EQ(text.const_cpp_str(), L"1");
  EXPECT_TRUE(index.moveNext(L"n", &text));
  EXPECT_EQ(text.const_cpp_str(), L"1") << "it stays as it is";
  EXPECT_TRUE(index.moveNext(L"n", &text));
  EXPECT_EQ(text.const_cpp_str(), L"");
  EXPECT_FALSE(index.moveNext(L"n", &text));
  EXPECT_EQ(text.const_cpp_str(), L"");

  EXPECT_TRUE(index.set(&tree.root, nullptr));
  EXPECT_TRUE(index.moveNext(L"", &text));
  EXPECT_EQ(text.const_cpp_str(), L"x");
  EXPECT_TRUE(index.moveNext(nullptr, &text));
  EXPECT_EQ(text.const_cpp_str(), L"x");
  EXPECT_TRUE(index.moveNext(L"n", nullptr));
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlChildIndexTest, SetReturnTakesTheNextChildWhateverItsName) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"c");
  AString id(L"before");
  index.setReturn(L"id", &id);
  EXPECT_EQ(id.const_cpp_str(), L"1");
  index.setReturn(L"none", &id);
  EXPECT_EQ(id.const_cpp_str(), L"1");
  EXPECT_EQ(value(index, L"id"), L"2");
  EXPECT_FALSE(index.moveNext(L"id", &id)) << "the one child of the name lies behind";
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlChildIndexTest, SetReturnAtTheEndChangesNothing) {
  Tree tree(L"<r><a id=\"1\"/></r>");
  AnXmlChildIndex index(&tree.root, nullptr);
  AString id;
  ASSERT_TRUE(index.moveNext(L"id", &id));
  id = L"before";
  index.setReturn(L"id", &id);
  EXPECT_EQ(id.const_cpp_str(), L"before");
  EXPECT_EQ(value(index, L"id"), L"1");
  EXPECT_EQ(tree.text(), L"<r><a id=\"1\"/></r>");
}

TEST(AnXmlChildIndexTest, SetStartsAfresh) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"b");
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_TRUE(index.set(&tree.root, nullptr));
  EXPECT_EQ(remainingIds(index), (Names{L"1", L"2", L"3", L"5", L"6"}));
  EXPECT_TRUE(index.set(&tree.root, L"c"));
  EXPECT_EQ(remainingIds(index), Names{L"2"});
  LoadedXml otherXml(L"<o><x id=\"9\"/></o>");
  AnXmlNode const other(&otherXml);
  EXPECT_TRUE(index.set(&other, nullptr));
  EXPECT_EQ(remainingIds(index), Names{L"9"});
}

TEST(AnXmlChildIndexTest, SetToItselfDescends) {
  Tree tree(L"<r><a id=\"1\"><b id=\"2\"><c id=\"3\"/></b></a></r>");
  AnXmlChildIndex index(&tree.root, nullptr);
  Names ids;
  AString id;
  while (index.moveNext(L"id", &id)) {
    ids.push_back(id.const_cpp_str());
    EXPECT_TRUE(index.set(&index, nullptr));
  }
  EXPECT_EQ(ids, (Names{L"1", L"2", L"3"}));
}

TEST(AnXmlChildIndexTest, SeveralWalkAtOnce) {
  Tree tree(kMixed);
  AnXmlChildIndex first(&tree.root, L"b");
  AnXmlChildIndex second(&tree.root, L"b");
  ASSERT_TRUE(first.moveNext(nullptr, nullptr));
  ASSERT_TRUE(first.moveNext(nullptr, nullptr));
  EXPECT_EQ(remainingIds(second), (Names{L"1", L"3", L"6"}));
  EXPECT_EQ(remainingIds(first), Names{L"6"});
}

// Misuse.

TEST(AnXmlChildIndexTest, SetOnNoneIsAnInternalError) {
  LogRecorder log;
  AnXmlNode const none;
  AnXmlChildIndex const made(&none, nullptr);
  EXPECT_EQ(log.records(), internalError(L"XmlIndx", L"Used uninitialized node"));

  log.clear();
  AnXmlChildIndex index;
  EXPECT_FALSE(index.set(&none, L"a"));
  EXPECT_EQ(log.records(), internalError(L"XmlIndx", L"Used uninitialized node"));

  log.clear();
  EXPECT_FALSE(index.set(nullptr, L"a"));
  EXPECT_EQ(log.records(), internalError(L"XmlIndx", L"Used uninitialized node"));
}

TEST(AnXmlChildIndexTest, FailedSetEndsTheWalkBefore) {
  Tree tree(kMixed);
  AnXmlNode const none;
  AnXmlChildIndex index(&tree.root, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_FALSE(index.set(&none, nullptr));
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  tree.log.clear();
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(tree.log.records(), removeWithoutMove());
  EXPECT_EQ(tree.text(), kMixed);
  EXPECT_TRUE(index.set(&tree.root, L"c"));
  EXPECT_EQ(remainingIds(index), Names{L"2"});
}

TEST(AnXmlChildIndexTest, WithoutSetItVisitsNothing) {
  LogRecorder log;
  AnXmlChildIndex index;
  AString text(L"before");
  EXPECT_FALSE(index.moveNext(L"n", &text));
  index.setReturn(L"n", &text);
  EXPECT_EQ(text.const_cpp_str(), L"before");
  log.clear();
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(log.records(), removeWithoutMove());
  index.close();
  index.close();
}

TEST(AnXmlChildIndexTest, CloseEndsTheWalk) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"b");
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  index.close();
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(index, L"id"), L"1") << "the cursor stays where it is";
  EXPECT_EQ(tree.log.records(), nothing());
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(tree.log.records(), removeWithoutMove());
  EXPECT_EQ(tree.text(), kMixed);
  index.close();
  EXPECT_TRUE(index.set(&tree.root, L"b"));
  EXPECT_EQ(remainingIds(index), (Names{L"1", L"3", L"6"}));
}

// Removing.

TEST(AnXmlChildIndexTest, RemovingAfterEachMoveDeletesEachOnce) {
  std::vector<std::pair<wchar_t const*, std::wstring>> const rows = {
      {nullptr, L"<r>t<!--c--><?p q?> <![CDATA[d]]>u</r>"},
      {L"b", L"<r>t<!--c--><?p q?><c id=\"2\"/> <![CDATA[d]]><B id=\"5\"/>u</r>"},
      {L"B",
       L"<r>t<!--c--><b id=\"1\"/><?p q?><c id=\"2\"/> <b id=\"3\"><b id=\"4\"/></b><![CDATA[d]]>"
       L"<b id=\"6\"/>u</r>"},
  };
  for (auto const& [filter, after] : rows) {
    Tree tree(kMixed);
    AnXmlChildIndex all(&tree.root, filter);
    Names const expected = remainingIds(all);
    AnXmlChildIndex index(&tree.root, filter);
    Names visited;
    AString id;
    while (index.moveNext(L"id", &id)) {
      visited.push_back(id.const_cpp_str());
      EXPECT_TRUE(index.remove());
    }
    EXPECT_EQ(visited, expected);
    EXPECT_EQ(tree.text(), after);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

// Each subset of six children is removed while walking over all of them.
TEST(AnXmlChildIndexTest, RemovingSomeVisitsAll) {
  constexpr unsigned kChildren = 6;
  for (unsigned subset = 0; subset < (1U << kChildren); ++subset) {
    Tree tree(
        L"<r><a id=\"0\"/>x<a id=\"1\"/><a id=\"2\"/>y<!--c--><a id=\"3\"/><a id=\"4\"/>"
        L"<a id=\"5\"/></r>");
    AnXmlChildIndex index(&tree.root, subset % 2 == 0 ? L"a" : nullptr);
    Names kept;
    AString id;
    for (unsigned i = 0; i < kChildren; ++i) {
      ASSERT_TRUE(index.moveNext(L"id", &id));
      EXPECT_EQ(id.const_cpp_str(), std::to_wstring(i));
      if ((subset >> i & 1U) != 0) {
        EXPECT_TRUE(index.remove());
      } else {
        kept.push_back(id.const_cpp_str());
      }
    }
    EXPECT_FALSE(index.moveNext(nullptr, nullptr));
    AnXmlChildIndex left(&tree.root, nullptr);
    EXPECT_EQ(remainingIds(left), kept);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlChildIndexTest, RemoveRightAfterSetIsAnInternalError) {
  for (wchar_t const* const filter : {static_cast<wchar_t const*>(nullptr), L"b", L"c", L"none"}) {
    Tree tree(kMixed);
    AnXmlChildIndex index(&tree.root, filter);
    EXPECT_FALSE(index.remove());
    EXPECT_EQ(tree.log.records(), removeWithoutMove());
    EXPECT_EQ(tree.text(), kMixed);
  }
}

TEST(AnXmlChildIndexTest, RemoveWhereNothingWasFoundIsAnInternalError) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"none");
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(tree.log.records(), removeWithoutMove());
  EXPECT_EQ(tree.text(), kMixed);
}

TEST(AnXmlChildIndexTest, RemoveAfterAnotherSetIsAnInternalError) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"b");
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  ASSERT_TRUE(index.set(&tree.root, L"b"));
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(tree.log.records(), removeWithoutMove());
  EXPECT_EQ(tree.text(), kMixed);
}

TEST(AnXmlChildIndexTest, RemovingTwiceInARowIsAnInternalError) {
  for (int moves = 1; moves <= 5; ++moves) {
    SCOPED_TRACE(moves);
    Tree tree(kMixed);
    AnXmlChildIndex index(&tree.root, nullptr);
    for (int i = 0; i < moves; ++i) ASSERT_TRUE(index.moveNext(nullptr, nullptr));
    EXPECT_TRUE(index.remove());
    EXPECT_EQ(tree.log.records(), nothing());
    std::wstring const once = tree.text();
    EXPECT_FALSE(index.remove());
    EXPECT_EQ(tree.log.records(), removeWithoutMove());
    EXPECT_EQ(tree.text(), once);
    EXPECT_EQ(remainingIds(index).size(), static_cast<std::size_t>(5 - moves));
  }
}

TEST(AnXmlChildIndexTest, CursorStandsOnNoneBetweenRemovalAndMove) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  ASSERT_TRUE(index.remove());
  EXPECT_FALSE(index.positionValid());
  EXPECT_EQ(tree.log.records(), uninitializedNode());
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(value(index, L"id"), L"2");
}

// The memory of what was removed may serve what is added.
TEST(AnXmlChildIndexTest, RemovingTwiceSparesWhatWasAddedInBetween) {
  for (bool const atTheParent : {false, true}) {
    Tree tree(L"<r><a/><b/><c/></r>");
    AnXmlNode added = atTheParent ? tree.root : child(tree.root, L"c");
    AnXmlChildIndex index(&tree.root, nullptr);
    ASSERT_TRUE(index.moveNext(nullptr, nullptr));
    EXPECT_TRUE(index.remove());
    added.addChild(nullptr, L"new", nullptr, nullptr);
    EXPECT_FALSE(index.remove());
    EXPECT_EQ(tree.log.records(), removeWithoutMove());
    EXPECT_EQ(tree.text(), atTheParent ? L"<r><b/><c/><new/></r>" : L"<r><b/><c><new/></c></r>");
    EXPECT_TRUE(index.moveNext(nullptr, nullptr));
    EXPECT_EQ(index.getName().const_cpp_str(), L"b");
  }
}

TEST(AnXmlChildIndexTest, ChildRemovedByAnotherCursorSparesWhatWasAddedInBetween) {
  for (bool const atTheParent : {false, true}) {
    Tree tree(L"<r><a/><b/><c/></r>");
    AnXmlNode added = atTheParent ? tree.root : child(tree.root, L"c");
    AnXmlChildIndex index(&tree.root, nullptr);
    ASSERT_TRUE(index.moveNext(nullptr, nullptr));
    child(tree.root, L"a").remove();
    added.addChild(nullptr, L"new", nullptr, nullptr);
    EXPECT_FALSE(index.remove());
    EXPECT_EQ(tree.log.records(), removeWithoutMove());
    EXPECT_EQ(tree.text(), atTheParent ? L"<r><b/><c/><new/></r>" : L"<r><b/><c><new/></c></r>");
  }
}

// The walk goes on with the child that followed, also when the memory of the one
// in between is used again before.
TEST(AnXmlChildIndexTest, NextChildRemovedByAnotherCursorAndElementsAddedElsewhere) {
  Tree tree(L"<r><a/><b/><c/><d/></r>");
  AnXmlNode const d = child(tree.root, L"d");
  AnXmlChildIndex index(&tree.root, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  child(tree.root, L"b").remove();
  AnXmlNode(&d).addChild(nullptr, L"new", nullptr, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(index.getName().const_cpp_str(), L"c");
}

TEST(AnXmlChildIndexTest, RemoveAtTheEndDeletesTheChildVisitedLast) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"c");
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  ASSERT_FALSE(index.moveNext(nullptr, nullptr));
  EXPECT_TRUE(index.remove());
  EXPECT_EQ(tree.log.records(), nothing());
  AnXmlChildIndex left(&tree.root, nullptr);
  EXPECT_EQ(remainingIds(left), (Names{L"1", L"3", L"5", L"6"}));
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(tree.log.records(), removeWithoutMove());
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
}

TEST(AnXmlChildIndexTest, RemovingTheLastAndOnlyChild) {
  Tree tree(L"<r><a/></r>");
  AnXmlChildIndex index(&tree.root, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_TRUE(index.remove());
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  EXPECT_EQ(tree.text(), L"<r/>");
}

TEST(AnXmlChildIndexTest, RemoveAfterSetReturn) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, L"b");
  index.setReturn(nullptr, nullptr);
  index.setReturn(nullptr, nullptr);
  EXPECT_TRUE(index.remove());
  EXPECT_EQ(remainingIds(index), (Names{L"3", L"6"}));
  AnXmlChildIndex left(&tree.root, nullptr);
  EXPECT_EQ(remainingIds(left), (Names{L"1", L"3", L"5", L"6"}));
}

TEST(AnXmlChildIndexTest, ChildrenRemovedByOthersAreNotVisited) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  child(tree.root, L"c").remove();
  EXPECT_EQ(remainingIds(index), (Names{L"3", L"5", L"6"}));

  AnXmlChildIndex again(&tree.root, nullptr);
  ASSERT_TRUE(again.moveNext(nullptr, nullptr));
  child(tree.root, L"B").remove();
  child(tree.root, L"b").remove();  // the one just visited
  EXPECT_EQ(remainingIds(again), (Names{L"3", L"6"}));
}

TEST(AnXmlChildIndexTest, ChildRemovedByAnotherCursorIsNotRemovedAgain) {
  Tree tree(kMixed);
  AnXmlChildIndex index(&tree.root, nullptr);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  AnXmlNode copy(&index);
  copy.remove();
  std::wstring const once = tree.text();
  EXPECT_FALSE(index.remove());
  EXPECT_EQ(tree.log.records(), removeWithoutMove());
  EXPECT_EQ(tree.text(), once);
  EXPECT_EQ(remainingIds(index), (Names{L"3", L"5", L"6"}));
}

TEST(AnXmlChildIndexTest, TwoWalksRemoveInTurn) {
  Tree tree(kMixed);
  AnXmlChildIndex first(&tree.root, nullptr);
  AnXmlChildIndex second(&tree.root, nullptr);
  Names visited;
  AString id;
  while (first.moveNext(L"id", &id)) {
    visited.push_back(id.const_cpp_str());
    EXPECT_TRUE(first.remove());
    if (!second.moveNext(L"id", &id)) break;
    visited.push_back(id.const_cpp_str());
    EXPECT_TRUE(second.remove());
  }
  EXPECT_EQ(visited, (Names{L"1", L"2", L"3", L"5", L"6"}));
  EXPECT_EQ(childNames(tree.root), Names{});
}

TEST(AnXmlChildIndexTest, IndexIsUsableAfterItRemovedAll) {
  Tree tree(L"<r><a/><a/></r>");
  AnXmlChildIndex index(&tree.root, L"a");
  while (index.moveNext(nullptr, nullptr)) index.remove();
  tree.root.addChild(nullptr, L"a", L"id", L"9");
  EXPECT_TRUE(index.set(&tree.root, L"a"));
  EXPECT_EQ(remainingIds(index), Names{L"9"});
}

// Each removal is constant in time: searching the list each time would take
// billions of steps.
TEST(AnXmlChildIndexTest, RemovesAHundredThousandChildrenOneByOne) {
  constexpr std::size_t kChildren = 100000;
  for (wchar_t const* const filter : {static_cast<wchar_t const*>(nullptr), L"a"}) {
    AnXml xml;
    ASSERT_TRUE(xml.useNew(L"r", nullptr, nullptr));
    AnXmlNode root(&xml);
    for (std::size_t i = 0; i < kChildren; ++i) {
      root.addChild(nullptr, L"a", L"id", std::to_wstring(i).c_str());
    }
    LogRecorder log;
    AnXmlChildIndex index(&root, filter);
    AString id;
    std::size_t visited = 0;
    while (index.moveNext(L"id", &id)) {
      ASSERT_EQ(id.const_cpp_str(), std::to_wstring(visited));
      ASSERT_TRUE(index.remove());
      ++visited;
    }
    EXPECT_EQ(visited, kChildren);
    EXPECT_EQ(written(xml), L"<r/>");
    EXPECT_EQ(log.records(), nothing());
  }
}

TEST(AnXmlChildIndexTest, RemovesEverySecondOfManyChildren) {
  constexpr std::size_t kChildren = 100000;
  AnXml xml;
  ASSERT_TRUE(xml.useNew(L"r", nullptr, nullptr));
  AnXmlNode root(&xml);
  for (std::size_t i = 0; i < kChildren; ++i) {
    root.addChild(nullptr, i % 2 == 0 ? L"a" : L"b", nullptr, nullptr);
  }
  AnXmlChildIndex index(&root, L"a");
  std::size_t removed = 0;
  while (index.moveNext(nullptr, nullptr)) removed += index.remove() ? 1U : 0U;
  EXPECT_EQ(removed, kChildren / 2);
  EXPECT_EQ(childNames(root), Names(kChildren / 2, L"b"));
}

// Attributes.

using Pairs = std::vector<std::pair<std::wstring, std::wstring>>;

Pairs remainingValues(AnXmlValueIndex& index) {
  Pairs pairs;
  AString name;
  AString text;
  while (index.moveNext(&name, &text))
    pairs.emplace_back(name.const_cpp_str(), text.const_cpp_str());
  return pairs;
}

TEST(AnXmlValueIndexTest, VisitsTheAttributesInOrder) {
  std::vector<std::pair<wchar_t const*, Pairs>> const rows = {
      {L"<r/>", {}},
      {L"<r>text<c n=\"v\"/></r>", {}},
      {L"<r z=\"1\" a=\"2\" M=\"\" m=\"&lt;\">t</r>",
       {{L"z", L"1"}, {L"a", L"2"}, {L"M", L""}, {L"m", L"<"}}},
      {L"<!DOCTYPE r [<!ATTLIST r d CDATA \"default\">]><r a=\"1\"/>",
       {{L"a", L"1"}, {L"d", L"default"}}},
  };
  for (auto const& [document, pairs] : rows) {
    Tree tree(document);
    AnXmlValueIndex made(&tree.root);
    EXPECT_EQ(remainingValues(made), pairs);
    EXPECT_FALSE(made.moveNext(nullptr, nullptr)) << "it stays at the end";
    AnXmlValueIndex index;
    index.set(&tree.root);
    EXPECT_EQ(remainingValues(index), pairs);
    EXPECT_EQ(tree.log.records(), nothing());
  }
}

TEST(AnXmlValueIndexTest, AddedAttributesComeLast) {
  Tree tree(L"<r b=\"1\"/>");
  tree.root.setValue(L"a", L"2");
  tree.root.setValue(L"b", L"3");
  AnXmlValueIndex index(&tree.root);
  EXPECT_EQ(remainingValues(index), (Pairs{{L"b", L"3"}, {L"a", L"2"}}));
}

TEST(AnXmlValueIndexTest, OutputsStayAtTheEnd) {
  Tree tree(L"<r/>");
  AnXmlValueIndex index(&tree.root);
  AString name(L"before");
  AString text(L"before");
  EXPECT_FALSE(index.moveNext(&name, &text));
  EXPECT_EQ(name.const_cpp_str(), L"before");
  EXPECT_EQ(text.const_cpp_str(), L"before");
}

TEST(AnXmlValueIndexTest, NullOutputsAreNotWritten) {
  Tree tree(L"<r a=\"1\" b=\"2\" c=\"3\"/>");
  AnXmlValueIndex index(&tree.root);
  AString text;
  EXPECT_TRUE(index.moveNext(nullptr, &text));
  EXPECT_EQ(text.const_cpp_str(), L"1");
  EXPECT_TRUE(index.moveNext(&text, nullptr));
  EXPECT_EQ(text.const_cpp_str(), L"b");
  EXPECT_TRUE(index.moveNext(nullptr, nullptr));
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
}

TEST(AnXmlValueIndexTest, SetStartsAfresh) {
  Tree tree(L"<r a=\"1\" b=\"2\"><c d=\"3\"/></r>");
  AnXmlValueIndex index(&tree.root);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  index.set(&tree.root);
  EXPECT_EQ(remainingValues(index), (Pairs{{L"a", L"1"}, {L"b", L"2"}}));
  AnXmlNode const c = child(tree.root, L"c");
  index.set(&c);
  EXPECT_EQ(remainingValues(index), (Pairs{{L"d", L"3"}}));
}

TEST(AnXmlValueIndexTest, TakesAChildIndexAsNode) {
  Tree tree(L"<r><a n=\"1\"/><b m=\"2\"/></r>");
  AnXmlChildIndex children(&tree.root, nullptr);
  Pairs all;
  AnXmlValueIndex values;
  while (children.moveNext(nullptr, nullptr)) {
    values.set(&children);
    for (auto const& pair : remainingValues(values)) all.push_back(pair);
  }
  EXPECT_EQ(all, (Pairs{{L"n", L"1"}, {L"m", L"2"}}));
}

TEST(AnXmlValueIndexTest, SetOnNoneIsAnInternalError) {
  LogRecorder log;
  AnXmlNode const none;
  AnXmlValueIndex made(&none);
  EXPECT_EQ(log.records(), internalError(L"XmlValx", L"Used uninitialized node"));
  EXPECT_FALSE(made.moveNext(nullptr, nullptr));

  log.clear();
  AnXmlValueIndex index;
  index.set(&none);
  EXPECT_EQ(log.records(), internalError(L"XmlValx", L"Used uninitialized node"));
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));

  log.clear();
  index.set(nullptr);
  EXPECT_EQ(log.records(), internalError(L"XmlValx", L"Used uninitialized node"));
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
}

TEST(AnXmlValueIndexTest, FailedSetReleasesTheWalkBeforeOnce) {
  Tree tree(L"<r a=\"1\" b=\"2\"/>");
  AnXmlNode const none;
  AnXmlValueIndex index(&tree.root);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  index.set(&none);
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  index.set(&none);
  index.close();
  index.close();
  index.set(&tree.root);
  EXPECT_EQ(remainingValues(index).size(), 2U);
}

TEST(AnXmlValueIndexTest, CloseEndsTheWalk) {
  Tree tree(L"<r a=\"1\" b=\"2\"/>");
  AnXmlValueIndex index(&tree.root);
  ASSERT_TRUE(index.moveNext(nullptr, nullptr));
  index.close();
  AString name(L"before");
  EXPECT_FALSE(index.moveNext(&name, nullptr));
  EXPECT_EQ(name.const_cpp_str(), L"before");
  index.close();
  EXPECT_EQ(tree.log.records(), nothing());
}

TEST(AnXmlValueIndexTest, WithoutSetItVisitsNothing) {
  LogRecorder log;
  AnXmlValueIndex index;
  EXPECT_FALSE(index.moveNext(nullptr, nullptr));
  index.close();
}

TEST(AnXmlValueIndexTest, ValuesMayBeSetWhileWalking) {
  Tree tree(L"<r a=\"1\" b=\"2\"/>");
  AnXmlValueIndex index(&tree.root);
  AString name;
  while (index.moveNext(&name, nullptr)) tree.root.setValue(name, L"a value of another length");
  EXPECT_EQ(tree.text(), L"<r a=\"a value of another length\" b=\"a value of another length\"/>");
}

}  // namespace
}  // namespace vrxutil::test
