#include "xml/xml_access.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <algorithm>
#include <cwchar>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using AdvXMLParser::Attribute;
using AdvXMLParser::Element;
using AdvXMLParser::Iterator;
using AdvXMLParser::Name;
using vrxutil::detail::assign;
using vrxutil::detail::kUninitializedNode;
using vrxutil::detail::valueOf;

constexpr wchar_t kGroup[] = L"XmlNode";

bool isEmpty(wchar_t const* text) { return *text == L'\0'; }

/// The element, or null where it is the parser's sentinel.
Element* existing(Element& element) { return element.IsNull() ? nullptr : &element; }

Element* rootOf(AdvXMLParser::Document const* document) {
  return document == nullptr ? nullptr : existing(document->GetRoot());
}

bool isValid(AnXmlNode const* node) {
  if (node != nullptr) return node->positionValid();
  logInternalError(kGroup, kUninitializedNode);
  return false;
}

/// The text as nodes show it: empty where there are child elements.
std::wstring textOf(Element const& element) {
  std::wstring text;
  if (!element.HasChildElements()) element.AppendTextTo(text);
  return text;
}

bool textEquals(Element const& element, wchar_t const* text) {
  return element.HasChildElements() ? isEmpty(text) : element.TextEquals(text);
}

/// Replaces the value of an attribute, or the children of an element. `text` may
/// not point into the document.
template <class Container>
void setText(Container& container, wchar_t const* text) {
  container.DeleteChildren();
  if (!isEmpty(text)) container.AddText(text);
}

/// What is asked of a child's value.
class ValueTest {
public:
  /// For the children of `parent`; null arguments as in AnXmlNode::getChild().
  ValueTest(Element const& parent, wchar_t const* name, wchar_t const* expected)
      : kind_(kindOf(name)), expected_(expected) {
    if (kind_ == Kind::attribute) name_ = parent.FindName(name);
    if (expected != nullptr) expectedLength_ = std::wcslen(expected);
  }

  [[nodiscard]] bool passes(Element const& child) const {
    if (kind_ == Kind::none) return true;
    if (kind_ == Kind::text) return expected_ == nullptr || textEquals(child, expected_);
    if (name_ == nullptr) return false;
    Attribute const& attribute = child.GetAttribute(name_);
    return !attribute.IsNull() &&
           (expected_ == nullptr ||
            valueOf(attribute) == std::wstring_view(expected_, expectedLength_));
  }

private:
  enum class Kind { none, text, attribute };

  static Kind kindOf(wchar_t const* name) {
    if (name == nullptr) return Kind::none;
    return isEmpty(name) ? Kind::text : Kind::attribute;
  }

  Kind kind_;
  Name const* name_ = nullptr;  // null where the document has no such attribute
  wchar_t const* expected_;
  std::size_t expectedLength_ = 0;
};

/// The child that getChild() is to find, or null.
Element* findChild(Element const& parent, wchar_t const* childName, wchar_t const* selName,
                   wchar_t const* selValue) {
  Iterator<Element> child(parent);
  if (childName == nullptr) return child.AtEnd() ? nullptr : &*child;
  Name const* const name = parent.FindName(childName);
  if (name == nullptr) return nullptr;
  ValueTest const test(parent, selName, selValue);
  for (; !child.AtEnd(); ++child) {
    if (child->HasName(name) && test.passes(*child)) return &*child;
  }
  return nullptr;
}

/// The attributes of an element, for looking up many of them: each lookup in the
/// element itself goes over all.
using AttributesByName = std::map<std::wstring_view, Attribute*>;

AttributesByName attributesOf(Element const& element) {
  AttributesByName attributes;
  for (Iterator<Attribute> attribute(element); !attribute.AtEnd(); ++attribute) {
    attributes.emplace(attribute->GetName(), &*attribute);
  }
  return attributes;
}

/// The name, text and attributes of an element, looked for in others.
class ValuesTest {
public:
  /// For elements of the document that `any` belongs to.
  ValuesTest(Element const& any, Element const& wanted)
      : name_(any.FindName(wanted.GetName())), text_(textOf(wanted)) {
    for (Iterator<Attribute> attribute(wanted); !attribute.AtEnd(); ++attribute) {
      wchar_t const* const name = attribute->GetName();
      attributes_.push_back({name, any.FindName(name), valueOf(*attribute)});
    }
  }

  [[nodiscard]] bool passes(Element const& element) const {
    return element.HasName(name_) && textEquals(element, text_.c_str()) &&
           (attributes_.size() > kFewAttributes ? hasManyAttributes(element)
                                                : hasAttributes(element));
  }

private:
  static constexpr std::size_t kFewAttributes = 16;

  struct Value {
    std::wstring_view name;
    Name const* interned;  // null where the document has no such name
    std::wstring_view text;
  };

  bool hasAttributes(Element const& element) const {
    return std::all_of(attributes_.begin(), attributes_.end(), [&](Value const& wanted) {
      Attribute const& attribute = element.GetAttribute(wanted.interned);
      return !attribute.IsNull() && valueOf(attribute) == wanted.text;
    });
  }

  bool hasManyAttributes(Element const& element) const {
    AttributesByName const held = attributesOf(element);
    return std::all_of(attributes_.begin(), attributes_.end(), [&](Value const& wanted) {
      auto const attribute = held.find(wanted.name);
      return attribute != held.end() && valueOf(*attribute->second) == wanted.text;
    });
  }

  Name const* name_;
  std::wstring text_;
  std::vector<Value> attributes_;
};

/// One level of containsChildrenOf(): the child of the other element that a
/// counterpart is looked for, and how far the search has come.
class CounterpartSearch {
public:
  CounterpartSearch(Element const& own, Element const& other) : own_(&own), wanted_(other) {
    start();
  }

  /// Whether each child of the other element has its counterpart.
  [[nodiscard]] bool isComplete() const { return wanted_.AtEnd(); }

  Element& wanted() const { return *wanted_; }

  Element& candidate() const { return *candidate_; }

  /// Stops at the first child, from the candidate on, that contains the values
  /// of wanted().
  bool findCandidate() {
    while (!candidate_.AtEnd() && !test_->passes(*candidate_)) ++candidate_;
    return !candidate_.AtEnd();
  }

  /// Goes on when it is known whether the candidate contains the children of
  /// wanted() too.
  void proceed(bool candidateIsCounterpart) {
    if (candidateIsCounterpart) {
      ++wanted_;
      start();
    } else {
      ++candidate_;
    }
  }

private:
  void start() {
    if (isComplete()) return;
    candidate_ = Iterator<Element>(*own_);
    test_.emplace(*own_, *wanted_);
  }

  Element const* own_;
  Iterator<Element> wanted_;
  Iterator<Element> candidate_;
  std::optional<ValuesTest> test_;
};

void copyAttributes(Element const& source, Element& target) {
  AttributesByName const existing = attributesOf(target);
  std::wstring value;
  for (Iterator<Attribute> attribute(source); !attribute.AtEnd(); ++attribute) {
    wchar_t const* const name = attribute->GetName();
    auto const same = existing.find(name);
    value = valueOf(*attribute);
    setText(same != existing.end() ? *same->second : target.AppendAttribute(name), value.c_str());
  }
}

/// Copies an element with everything below it, as it is at the start, to below
/// `target`, which may be part of what is copied.
class TreeCopy {
public:
  explicit TreeCopy(Element& target) : target_(&target), targetText_(textOf(target)) {}

  void copy(Element const& source) {
    top_ = addCopy(source, *target_);
    levels_.push_back({Iterator<Element>(source), top_});
    while (!levels_.empty()) copyNext();
  }

private:
  struct Level {
    Iterator<Element> next;
    Element* copy;
  };

  void copyNext() {
    Level& level = levels_.back();
    if (level.next.AtEnd()) return levels_.pop_back();
    Element const& source = *level.next;
    ++level.next;
    if (&source == top_) return;  // not there at the start
    Element* const copy = addCopy(source, *level.copy);
    levels_.push_back({Iterator<Element>(source), copy});
  }

  Element* addCopy(Element const& source, Element& parent) {
    Element& copy = parent.AddElementInto(source.GetName());
    copyAttributes(source, copy);
    // The top copy, being a child of the target, hides its text.
    setText(copy, (&source == target_ ? targetText_ : textOf(source)).c_str());
    return &copy;
  }

  Element* target_;
  std::wstring targetText_;
  Element* top_ = nullptr;
  std::vector<Level> levels_;
};

}  // namespace

AnXmlNode::AnXmlNode(AnXml* xml) { setToRoot(xml); }

AnXmlNode::AnXmlNode(AdvXMLParser::Document* xmlDocument) : element(rootOf(xmlDocument)) {}

AnXmlNode::AnXmlNode(AdvXMLParser::Element& xmlElement) : element(existing(xmlElement)) {}

AnXmlNode::AnXmlNode(AnXmlNode const* other)
    : element(other == nullptr ? nullptr : other->element) {}

void AnXmlNode::setToRoot(AnXml* xml) {
  element = xml == nullptr ? nullptr : rootOf(xml->document);
}

void AnXmlNode::setToZuxmlElement(AdvXMLParser::Element& xmlElement) {
  element = existing(xmlElement);
}

bool AnXmlNode::positionValid() const {
  if (element == nullptr) logInternalError(kGroup, kUninitializedNode);
  return element != nullptr;
}

AString AnXmlNode::getName() const {
  return positionValid() ? AString(element->GetName()) : AString();
}

bool AnXmlNode::getValue(bool required, wchar_t const* name, AString* value) const {
  if (!positionValid()) return false;
  if (name == nullptr) {
    logInternalError(kGroup, L"No attribute named NULL");
    return false;
  }
  if (isEmpty(name)) {
    if (value != nullptr) value->cpp_str() = textOf(*element);
    return true;
  }
  Attribute const& attribute = element->GetAttribute(name);
  if (!attribute.IsNull()) {
    assign(value, valueOf(attribute));
    return true;
  }
  if (required) {
    logError(kGroup, AString(L"getValue: required attribute not found: ") << name);
  }
  return false;
}

bool AnXmlNode::getExistingValue(wchar_t const* name, AString* value) const {
  return getValue(/*required=*/true, name, value);
}

bool AnXmlNode::tryGetValue(wchar_t const* name, AString* value) const {
  return getValue(/*required=*/false, name, value);
}

void AnXmlNode::setValue(wchar_t const* name, wchar_t const* value) {
  if (!positionValid()) return;
  if (name == nullptr) return logInternalError(kGroup, L"No attribute named NULL");
  if (value == nullptr) return logInternalError(kGroup, L"No value to set");
  if (isEmpty(name)) {
    setText(*element, value);
  } else {
    setText(element->CreateAttribute(name), value);
  }
}

bool AnXmlNode::hasValue(bool required, wchar_t const* name, wchar_t const* expected) const {
  AString value;
  if (!getValue(required, name, &value)) return false;
  return expected == nullptr || wcsicmp(value, expected) == 0;
}

bool AnXmlNode::matchesValue(bool required, AnXmlNode const* other, wchar_t const* name,
                             wchar_t const* otherName) const {
  AString value;
  if (!getValue(required, name, &value)) return false;
  return isValid(other) &&
         other->hasValue(required, otherName == nullptr ? name : otherName, value);
}

bool AnXmlNode::getChild(bool required, AnXmlNode* found, wchar_t const* childName,
                         wchar_t const* selName, wchar_t const* selValue, wchar_t const* valueName,
                         AString* value) const {
  if (!positionValid()) return false;
  if (Element* const child = findChild(*element, childName, selName, selValue)) {
    if (valueName != nullptr && value != nullptr) {
      AnXmlNode(*child).getValue(required, valueName, value);
    }
    if (found != nullptr) found->element = child;
    return true;
  }
  if (found != nullptr && found != this) found->element = nullptr;
  if (required) {
    AStringList wanted(L",", /*afterEach=*/false);
    wanted << childName << selName << selValue << valueName;
    logError(kGroup, AString(L"getChild: required child not found: ") << wanted);
  }
  return false;
}

bool AnXmlNode::getChild(bool required, wchar_t const* childName, wchar_t const* selName,
                         wchar_t const* selValue, wchar_t const* valueName, AString* value) const {
  return getChild(required, nullptr, childName, selName, selValue, valueName, value);
}

bool AnXmlNode::tryGetChild(AnXmlNode* found, wchar_t const* childName, wchar_t const* selName,
                            wchar_t const* selValue, wchar_t const* valueName,
                            AString* value) const {
  return getChild(/*required=*/false, found, childName, selName, selValue, valueName, value);
}

bool AnXmlNode::getChildMove(bool required, wchar_t const* childName, wchar_t const* selName,
                             wchar_t const* selValue, wchar_t const* valueName, AString* value) {
  return getChild(required, this, childName, selName, selValue, valueName, value);
}

void AnXmlNode::setChild(AnXmlNode* found, wchar_t const* childName, wchar_t const* selName,
                         wchar_t const* selValue, wchar_t const* valueName, wchar_t const* value) {
  AnXmlNode child;
  if (positionValid() && !tryGetChild(&child, childName, selName, selValue, nullptr, nullptr)) {
    addChild(&child, childName, selName, selValue);
  }
  if (child.element != nullptr && valueName != nullptr && value != nullptr) {
    child.setValue(valueName, value);
  }
  if (found != nullptr) found->element = child.element;
}

void AnXmlNode::addChild(AnXmlNode* added, wchar_t const* childName, wchar_t const* valueName,
                         wchar_t const* value) {
  AnXmlNode child;
  if (positionValid()) {
    if (childName == nullptr) {
      logInternalError(kGroup, L"No child named NULL");
    } else {
      child.element = existing(element->AddElementInto(childName));
    }
  }
  if (child.element != nullptr && valueName != nullptr && value != nullptr) {
    child.setValue(valueName, value);
  }
  if (added != nullptr) added->element = child.element;
}

void AnXmlNode::remove() {
  if (!positionValid()) return;
  std::exchange(element, nullptr)->Delete();
}

bool AnXmlNode::containsValuesOf(AnXmlNode* other) {
  if (!positionValid() || !isValid(other)) return false;
  return ValuesTest(*element, *other->element).passes(*element);
}

bool AnXmlNode::containsChildrenOf(AnXmlNode const* other) {
  if (!positionValid() || !isValid(other)) return false;
  // The levels of the search stand on a stack of their own: a tree may be deep.
  std::vector<CounterpartSearch> levels;
  levels.emplace_back(*element, *other->element);
  while (true) {
    CounterpartSearch& level = levels.back();
    bool const isComplete = level.isComplete();
    if (!isComplete && level.findCandidate()) {
      levels.emplace_back(level.candidate(), level.wanted());
      continue;
    }
    if (!isComplete) {
      logError(kGroup, AString(L"missing ") << AnXmlNode(level.wanted()).asLogString());
    }
    levels.pop_back();
    if (levels.empty()) return isComplete;
    levels.back().proceed(/*candidateIsCounterpart=*/isComplete);
  }
}

void AnXmlNode::copyValues(AnXmlNode const* from) {
  if (!positionValid() || !isValid(from)) return;
  copyAttributes(*from->element, *element);
  setText(*element, textOf(*from->element).c_str());
}

void AnXmlNode::copyAsChild(AnXmlNode const* from) {
  if (!positionValid() || !isValid(from)) return;
  TreeCopy(*element).copy(*from->element);
}

AString AnXmlNode::asLogString() {
  if (!positionValid()) return {};
  AString line(L"<");
  line << element->GetName();
  for (Iterator<Attribute> attribute(*element); !attribute.AtEnd(); ++attribute) {
    line << L" " << attribute->GetName() << L"=\"" << attribute->GetValue() << L"\"";
  }
  line << L">" << textOf(*element).c_str() << L"</" << element->GetName() << L">";
  return line;
}
