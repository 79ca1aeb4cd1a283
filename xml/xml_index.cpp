#include "xml/xml_access.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <utility>

using AdvXMLParser::Attribute;
using AdvXMLParser::Element;
using AdvXMLParser::Iterator;
using AdvXMLParser::Name;
using vrxutil::detail::assign;
using vrxutil::detail::kUninitializedNode;
using vrxutil::detail::valueOf;

namespace {

constexpr wchar_t kChildGroup[] = L"XmlIndx";
constexpr wchar_t kValueGroup[] = L"XmlValx";

/// What an AnXmlChildIndex has as its cursor: the position just past the child
/// visited last, and what else the walk remembers.
struct ChildWalk : Iterator<Element> {
  explicit ChildWalk(Element const& parent) : Iterator<Element>(parent) {}

  /// Steps past the next child, which counts as visited.
  Element& visit() {
    place = *this;
    visited = &**this;
    ++*this;
    return *visited;
  }

  /// The child visited last; null when there is none or it has been deleted,
  /// here or elsewhere: `place` stands on the child that followed it, then.
  Element* current() const { return !place.AtEnd() && &*place == visited ? visited : nullptr; }

  Iterator<Element> place;
  Element* visited = nullptr;
  Name const* filter = nullptr;  // null until the document has that name
};

ChildWalk* walkOf(Iterator<Element>* cursor) { return static_cast<ChildWalk*>(cursor); }

}  // namespace

AnXmlChildIndex::AnXmlChildIndex(AnXmlNode const* parentNode, wchar_t const* name) {
  set(parentNode, name);
}

AnXmlChildIndex::~AnXmlChildIndex() { close(); }

bool AnXmlChildIndex::set(AnXmlNode const* parentNode, wchar_t const* name) {
  close();
  parent = parentNode == nullptr ? nullptr : parentNode->element;
  if (parent == nullptr) {
    logInternalError(kChildGroup, kUninitializedNode);
    return false;
  }
  if (name != nullptr) nameFilter = name;
  cursor = new ChildWalk(*parent);
  return true;
}

bool AnXmlChildIndex::moveNext(wchar_t const* valueName, AString* value) {
  ChildWalk* const walk = walkOf(cursor);
  if (walk == nullptr) return false;
  if (nameFilter.size() != 0) {
    if (walk->filter == nullptr) walk->filter = parent->FindName(nameFilter);
    while (!walk->AtEnd() && !(*walk)->HasName(walk->filter)) ++*walk;
  }
  if (walk->AtEnd()) return false;
  setReturn(valueName, value);
  return true;
}

void AnXmlChildIndex::setReturn(wchar_t const* valueName, AString* value) {
  if (cursor == nullptr || cursor->AtEnd()) return;
  element = &walkOf(cursor)->visit();
  if (valueName != nullptr && value != nullptr) tryGetValue(valueName, value);
}

bool AnXmlChildIndex::remove() {
  Element* const current = cursor == nullptr ? nullptr : walkOf(cursor)->current();
  if (current == nullptr) {
    logInternalError(kChildGroup, L"remove without moveNext");
    return false;
  }
  current->Delete();
  element = nullptr;
  return true;
}

void AnXmlChildIndex::close() {
  delete walkOf(std::exchange(cursor, nullptr));
  nameFilter.cpp_str().clear();
}

AnXmlValueIndex::AnXmlValueIndex(AnXmlNode const* node) { set(node); }

AnXmlValueIndex::~AnXmlValueIndex() { close(); }

void AnXmlValueIndex::set(AnXmlNode const* node) {
  close();
  element = node == nullptr ? nullptr : node->element;
  if (element == nullptr) return logInternalError(kValueGroup, kUninitializedNode);
  cursor = new Iterator<Attribute>(*element);
}

bool AnXmlValueIndex::moveNext(AString* name, AString* value) {
  if (cursor == nullptr || cursor->AtEnd()) return false;
  Attribute const& attribute = **cursor;
  assign(name, attribute.GetName());
  assign(value, valueOf(attribute));
  ++*cursor;
  return true;
}

void AnXmlValueIndex::close() { delete std::exchange(cursor, nullptr); }
