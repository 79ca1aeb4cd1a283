#include "platform/vrxcomn/xml_store.h"

#include <vrxcomn/xml_parser.h>

#include <cwchar>

namespace AdvXMLParser {

namespace {

bool holdsText(Node const& node) {
  return node.GetKind() == Node::Kind::text || node.GetKind() == Node::Kind::cdata;
}

}  // namespace

constinit CData CData::null(/*isNull=*/true);
constinit Comment Comment::null(/*isNull=*/true);
constinit Pi Pi::null(/*isNull=*/true);
constinit Attribute Attribute::null(/*isNull=*/true);
constinit Element Element::null(/*isNull=*/true);

// Node

void Node::Delete() noexcept {
  if (parent_ == nullptr) return;  // null, or deleted already
  Store& store = *parent_->store_;
  unlink();
  store.recycle(*this);
}

/// Closes the list that the node is in. The node's own link to what follows
/// stays, for iterators that stand on it.
void Node::unlink() noexcept {
  Element& parent = *parent_;
  if (previous_ != nullptr) {
    previous_->next_ = next_;
  } else if (kind_ == Kind::attribute) {
    parent.firstAttribute_ = static_cast<Attribute*>(next_);
  } else {
    parent.firstChild_ = next_;
  }
  if (next_ != nullptr) {
    next_->previous_ = previous_;
  } else if (kind_ == Kind::attribute) {
    parent.lastAttribute_ = static_cast<Attribute*>(previous_);
  } else {
    parent.lastChild_ = previous_;
  }
}

// Attribute

wchar_t const* Attribute::GetName() const { return name_ != nullptr ? name_->text : L""; }

void Attribute::DeleteChildren() noexcept {
  if (parent_ == nullptr) return;
  if (capacityClass_ != 0) {
    const_cast<wchar_t*>(value_)[0] = 0;
  } else {
    value_ = L"";
  }
  length_ = 0;
}

void Attribute::AddText(wchar_t const* text) {
  if (parent_ != nullptr) parent_->store_->appendText(*this, text);
}

// Element

wchar_t const* Element::GetName() const { return name_ != nullptr ? name_->text : L""; }

Name const* Element::FindName(wchar_t const* name) const {
  return store_ != nullptr ? store_->names.find(name) : nullptr;
}

Attribute& Element::GetAttribute(Name const* name) const {
  for (Node* node = firstAttribute_; node != nullptr; node = node->next_) {
    auto& attribute = static_cast<Attribute&>(*node);
    if (attribute.name_ == name) return attribute;
  }
  return Attribute::null;
}

Attribute& Element::GetAttribute(wchar_t const* name) const {
  Name const* const known = FindName(name);
  return known != nullptr ? GetAttribute(known) : Attribute::null;
}

/// False for the null element and for one that has been deleted. To be asked
/// before each addition.
bool Element::takesAdditions() const noexcept {
  if (store_ == nullptr) return false;
  store_->reclaim();  // which may come to this element, below a deleted one
  return !isDeleted_;
}

Attribute& Element::CreateAttribute(wchar_t const* name) {
  Attribute& existing = GetAttribute(name);
  return existing.IsNull() ? AppendAttribute(name) : existing;
}

Attribute& Element::AppendAttribute(wchar_t const* name) {
  if (!takesAdditions()) return Attribute::null;
  Attribute& attribute = *store_->newAttribute(store_->names.intern(name));
  store_->append(*this, attribute);
  return attribute;
}

Element& Element::AddElementInto(wchar_t const* name) {
  if (!takesAdditions()) return Element::null;
  Element& element = *store_->newElement(store_->names.intern(name));
  store_->append(*this, element);
  return element;
}

void Element::AddText(wchar_t const* text) {
  if (!takesAdditions()) return;
  TextNode& node = *store_->newText(Kind::text);
  store_->append(*this, node);
  store_->appendText(node, text);
}

void Element::DeleteChildren() noexcept {
  while (firstChild_ != nullptr) firstChild_->Delete();
}

std::shared_ptr<void const> Element::lease() const {
  return store_ != nullptr ? store_->lease : nullptr;
}

bool Element::HasChildElements() const {
  Node const* node = firstChild_;
  while (node != nullptr && node->kind_ != Kind::element) node = node->next_;
  return node != nullptr;
}

bool Element::TextEquals(wchar_t const* text) const {
  std::size_t rest = std::wcslen(text);
  for (Node const* node = firstChild_; node != nullptr; node = node->next_) {
    if (!holdsText(*node)) continue;
    auto const& part = static_cast<TextNode const&>(*node);
    if (part.length_ > rest || std::wmemcmp(part.value_, text, part.length_) != 0) return false;
    text += part.length_;
    rest -= part.length_;
  }
  return rest == 0;
}

void Element::AppendTextTo(std::wstring& text) const {
  for (Node const* node = firstChild_; node != nullptr; node = node->next_) {
    if (!holdsText(*node)) continue;
    auto const& part = static_cast<TextNode const&>(*node);
    text.append(part.value_, part.length_);
  }
}

// Document

Document::Document() : store_(std::make_unique<Store>()) {}

Document::Document(wchar_t const* rootName) : Document() { store_->top.AddElementInto(rootName); }

Document::~Document() = default;

Element& Document::GetRoot() const {
  Iterator<Element> const root(store_->top);
  return root.AtEnd() ? Element::null : *root;
}

std::size_t Document::MemoryInUse() const { return sizeof(Store) + store_->arena.sizeInBytes(); }

// Exceptions

ParsingException::ParsingException(unsigned long line, unsigned long column, std::wstring message)
    : line_(line),
      column_(column),
      message_(std::make_shared<std::wstring const>(std::move(message))) {}

ParsingException::~ParsingException() = default;

char const* ParsingException::what() const noexcept { return "XML text is not well-formed"; }

}  // namespace AdvXMLParser
