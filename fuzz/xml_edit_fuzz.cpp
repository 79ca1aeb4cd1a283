// Any sequence of changes to a document, against a model made of standard
// containers: after each, both write the same text, and lookups find the same.
// What is deleted comes back for later additions in the document, but not in the
// model.
//
// An input is a program: a byte says what is done at the cursor, the next ones
// with which name and value.

#include "fuzz/support.h"

#include <vrxutil/xml.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using vrxutil::fuzz::require;

constexpr std::array<wchar_t const*, 4> kNames{L"a", L"task", L"ns:item", L"\u00E9"};
constexpr std::array<wchar_t const*, 6> kValues{
    L"",
    L"1",
    L"true",
    L"of middling length, sixteen bytes a word",
    L"\u20AC\U0001F600",
    L"A value that has more characters than what it replaces, so that it has to move; and it is "
    L"long enough not to fit where a short one was."};

/// Beyond this, a copy of a tree into itself would soon fill the memory.
constexpr std::size_t kMostElements = 2000;

/// Deeper documents are not written.
constexpr std::size_t kMostLevels = 1000;

/// An element as the model keeps it. Text comes first: setting it deletes all
/// children.
struct Model {
  std::wstring name;
  std::vector<std::pair<std::wstring, std::wstring>> attributes;
  std::wstring text;
  std::list<std::unique_ptr<Model>> children;
  Model* parent = nullptr;

  std::wstring* value(std::wstring const& attribute) {
    for (auto& [key, held] : attributes) {
      if (key == attribute) return &held;
    }
    return nullptr;
  }

  void set(std::wstring const& attribute, std::wstring const& newValue) {
    if (attribute.empty()) {
      children.clear();
      text = newValue;
    } else if (std::wstring* const held = value(attribute)) {
      *held = newValue;
    } else {
      attributes.emplace_back(attribute, newValue);
    }
  }

  Model* add(std::wstring const& childName) {
    children.push_back(std::make_unique<Model>());
    children.back()->name = childName;
    children.back()->parent = this;
    return children.back().get();
  }

  /// The text as a cursor shows it.
  std::wstring shownText() const { return children.empty() ? text : L""; }

  // Recursive: at most kMostLevels deep.
  // NOLINTBEGIN(misc-no-recursion)
  void write(std::wstring& out) const {
    out += L"<" + name;
    for (auto const& [key, held] : attributes) {
      out.append(L" ").append(key).append(L"=\"").append(held).append(L"\"");
    }
    if (text.empty() && children.empty()) {
      out += L"/>";
      return;
    }
    out += L">" + text;
    for (auto const& child : children) child->write(out);
    out += L"</" + name + L">";
  }

  std::unique_ptr<Model> copy() const {
    auto result = std::make_unique<Model>();
    result->name = name;
    result->attributes = attributes;
    result->text = shownText();
    for (auto const& child : children) {
      result->children.push_back(child->copy());
      result->children.back()->parent = result.get();
    }
    return result;
  }

  std::size_t size() const {
    std::size_t count = 1;
    for (auto const& child : children) count += child->size();
    return count;
  }

  /// Levels of elements, this one's included.
  std::size_t height() const {
    std::size_t below = 0;
    for (auto const& child : children) below = std::max(below, child->height());
    return below + 1;
  }

  // NOLINTEND(misc-no-recursion)
};

/// The document and the model, each with a cursor on the same element.
class Pair {
public:
  Pair() {
    require(xml_.useNew(L"root", nullptr, nullptr), "a document is made");
    node_.setToRoot(&xml_);
    root_.name = L"root";
  }

  void setValue(wchar_t const* name, wchar_t const* value) {
    node_.setValue(name, value);
    at_->set(name, value);
  }

  void addChild(wchar_t const* name, wchar_t const* valueName, wchar_t const* value) {
    if (!hasRoomFor(1, 1)) return;
    AnXmlNode added;
    node_.addChild(&added, name, valueName, value);
    at_->add(name)->set(valueName, value);
    requireSame(added, *at_->children.back());
  }

  void findChild(wchar_t const* name, wchar_t const* selName, wchar_t const* selValue, bool move) {
    auto const matches = [&](std::unique_ptr<Model> const& child) {
      if (child->name != name) return false;
      std::wstring const* const held = child->value(selName);
      return held != nullptr && *held == selValue;
    };
    auto const child = std::find_if(at_->children.begin(), at_->children.end(), matches);
    AnXmlNode found;
    bool const isFound = node_.tryGetChild(&found, name, selName, selValue, nullptr, nullptr);
    require(isFound == (child != at_->children.end()), "a child is found where there is one");
    if (!isFound) return;
    requireSame(found, **child);
    if (move) moveTo(found, child->get());
  }

  void setChild(wchar_t const* name, wchar_t const* selName, wchar_t const* selValue,
                wchar_t const* value) {
    if (!hasRoomFor(1, 1)) return;
    node_.setChild(nullptr, name, selName, selValue, L"set", value);
    auto const matches = [&](std::unique_ptr<Model> const& child) {
      std::wstring const* const held = child->value(selName);
      return child->name == name && held != nullptr && *held == selValue;
    };
    auto const child = std::find_if(at_->children.begin(), at_->children.end(), matches);
    Model* target = child != at_->children.end() ? child->get() : nullptr;
    if (target == nullptr) {
      target = at_->add(name);
      target->set(selName, selValue);
    }
    target->set(L"set", value);
  }

  /// Walks the children and deletes those whose bit in `mask` is set.
  void removeChildren(unsigned mask) {
    AnXmlChildIndex index(&node_, nullptr);
    unsigned bit = 0;
    for (auto child = at_->children.begin(); child != at_->children.end(); ++bit) {
      require(index.moveNext(nullptr, nullptr), "the walk comes to all children");
      requireSame(index, **child);
      if ((mask >> (bit % 8) & 1) == 0) {
        ++child;
        continue;
      }
      require(index.remove(), "a child is removed");
      child = at_->children.erase(child);
    }
    require(!index.moveNext(nullptr, nullptr), "the walk ends with the children");
  }

  /// Deletes the element at the cursor, which then is on the root.
  void removeHere() {
    if (at_ == &root_) return;
    node_.remove();
    Model* const gone = std::exchange(at_, &root_);
    gone->parent->children.remove_if([&](auto const& child) { return child.get() == gone; });
    node_.setToRoot(&xml_);
  }

  void copyRootHere() {
    if (!hasRoomFor(root_.size(), root_.height())) return;
    AnXmlNode const source(&xml_);
    node_.copyAsChild(&source);
    auto copy = root_.copy();
    copy->parent = at_;
    at_->children.push_back(std::move(copy));
  }

  void copyRootValuesHere() {
    AnXmlNode const source(&xml_);
    node_.copyValues(&source);
    std::wstring const text = root_.shownText();
    auto const attributes = root_.attributes;
    for (auto const& [name, value] : attributes) at_->set(name, value);
    at_->set(L"", text);
  }

  void toRoot() { moveTo(AnXmlNode(&xml_), &root_); }

  /// Replaces the document with what is read from its text.
  void reload() {
    AString text;
    xml_.writeString(&text);
    require(xml_.useString(text, nullptr, nullptr, nullptr), "what was written can be read");
    toRoot();
  }

  void check() {
    std::wstring expected;
    root_.write(expected);
    AString text(L"not written");
    xml_.writeString(&text);
    require(text.const_cpp_str() == expected, "the document reads as the model");
    requireSame(node_, *at_);
  }

private:
  /// Whether so much may be added at the cursor.
  bool hasRoomFor(std::size_t elements, std::size_t levels) const {
    for (Model const* model = at_; model != nullptr; model = model->parent) ++levels;
    return root_.size() + elements <= kMostElements && levels <= kMostLevels;
  }

  void moveTo(AnXmlNode const& node, Model* model) {
    node_ = node;
    at_ = model;
  }

  static void requireSame(AnXmlNode const& node, Model& model) {
    require(node.getName().const_cpp_str() == model.name, "the name at the cursor");
    AString value;
    require(node.tryGetValue(L"", &value) && value.const_cpp_str() == model.shownText(),
            "the text at the cursor");
    AnXmlValueIndex values(&node);
    AString name;
    for (auto const& [key, held] : model.attributes) {
      require(values.moveNext(&name, &value) && name.const_cpp_str() == key &&
                  value.const_cpp_str() == held,
              "the attributes at the cursor");
    }
    require(!values.moveNext(&name, &value), "no more attributes at the cursor");
  }

  AnXml xml_;
  AnXmlNode node_;
  Model root_;
  Model* at_ = &root_;
};

/// Reads the program.
class Program {
public:
  Program(std::uint8_t const* data, std::size_t size) : next_(data), end_(data + size) {}

  bool atEnd() const { return next_ == end_; }

  unsigned byte() { return atEnd() ? 0 : *next_++; }

  wchar_t const* name() { return kNames[byte() % kNames.size()]; }

  wchar_t const* value() { return kValues[byte() % kValues.size()]; }

private:
  std::uint8_t const* next_;
  std::uint8_t const* end_;
};

void step(Program& program, Pair& pair) {
  // In this order the arguments are read.
  unsigned const operation = program.byte();
  wchar_t const* const first = program.name();
  wchar_t const* const second = program.name();
  wchar_t const* const value = program.value();
  switch (operation % 13) {
    case 0:
      return pair.addChild(first, second, value);
    case 1:
      return pair.setValue(first, value);
    case 2:
      return pair.setValue(L"", value);
    case 3:
      return pair.findChild(first, second, value, /*move=*/false);
    case 4:
      return pair.findChild(first, second, value, /*move=*/true);
    case 5:
      return pair.setChild(first, second, value, program.value());
    case 6:
      return pair.removeChildren(program.byte());
    case 7:
      return pair.removeHere();
    case 8:
      return pair.copyRootHere();
    case 9:
      return pair.copyRootValuesHere();
    case 10:
      return pair.reload();
    case 11:
      return pair.addChild(first, second, value);
    default:
      return pair.toRoot();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static vrxutil::fuzz::QuietLogger const logger;
  Program program(data, size);
  Pair pair;
  while (!program.atEnd()) {
    step(program, pair);
    pair.check();
  }
  return 0;
}
