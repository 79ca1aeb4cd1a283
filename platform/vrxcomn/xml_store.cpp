#include "platform/vrxcomn/xml_store.h"

#include "platform/common/ascii.h"
#include "platform/common/utf8.h"
#include "platform/vrxcomn/xml_name.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <cwchar>
#include <new>
#include <utility>

namespace AdvXMLParser {

namespace {

constexpr std::size_t kFirstBlock = 4096;
constexpr std::size_t kLargestBlock = 1U << 20;

constexpr std::size_t kFirstSlots = 64;

/// Steps of taking discarded nodes back before each addition. A node takes at
/// most two, so that they cannot pile up.
constexpr int kReclaimedAtOnce = 4;

/// Of the text memory classes, the least that has room for a link.
constexpr unsigned kLeastClass = std::bit_width(sizeof(void*)) - 1;

bool isBlankText(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == ' ' || c == '\n' || c == '\t'; });
}

/// Converts UTF-8 that is known to be valid, with a NUL; returns the number of
/// characters, which is at most that of the bytes.
std::size_t toWide(std::string_view utf8, wchar_t* target) {
  std::size_t length = utf8.size();
  if (!vrxutil::detail::widenIfAscii(utf8.data(), utf8.size(), target)) {
    length = vrxutil::detail::decodeUtf8(utf8, target).written;
  }
  target[length] = 0;
  return length;
}

}  // namespace

// Arena

void* Arena::allocateBlock(std::size_t size) {
  std::size_t const usual = std::clamp(sizeInBytes_ / 4, kFirstBlock, kLargestBlock);
  bool const isOfItsOwn = size > usual / 4;
  std::size_t const blockSize = isOfItsOwn ? size : usual;
  blocks_.push_back(std::make_unique_for_overwrite<char[]>(blockSize));
  sizeInBytes_ += blockSize;
  char* const block = blocks_.back().get();
  if (isOfItsOwn) return block;
  end_ = block + blockSize;
  next_ = block + size;
  return block;
}

// NameTable

NameTable::NameTable(Arena& arena) : arena_(arena), slots_(kFirstSlots) {}

std::uint64_t NameTable::hashOf(std::string_view utf8) const {
  constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
  // The address makes collisions hard to prepare for.
  std::uint64_t hash = reinterpret_cast<std::uintptr_t>(this) ^ utf8.size();
  for (; utf8.size() > sizeof(hash); utf8.remove_prefix(sizeof(hash))) {
    std::uint64_t word = 0;
    std::memcpy(&word, utf8.data(), sizeof(word));
    hash = (hash ^ word) * kMultiplier;
    hash ^= hash >> 32;
  }
  std::uint64_t rest = 0;
  std::memcpy(&rest, utf8.data(), utf8.size());
  hash = (hash ^ rest) * kMultiplier;
  return hash ^ (hash >> 32);
}

/// The slot that holds the name, or the empty one where it belongs.
std::size_t NameTable::slotOf(std::string_view utf8, std::uint64_t hash) const {
  std::size_t const mask = slots_.size() - 1;
  std::size_t slot = static_cast<std::size_t>(hash) & mask;
  while (slots_[slot] != nullptr && (slots_[slot]->hash != hash || slots_[slot]->utf8 != utf8)) {
    slot = (slot + 1) & mask;
  }
  return slot;
}

/// Where a name that comes from this address is remembered.
Name const*& NameTable::remembered(wchar_t const* name) {
  return remembered_[(reinterpret_cast<std::uintptr_t>(name) >> 3) % remembered_.size()];
}

Name const* NameTable::find(wchar_t const* name) {
  if (name == nullptr) name = L"";
  Name const*& known = remembered(name);
  if (known != nullptr && std::wcscmp(known->text, name) == 0) return known;
  Utf8Name const utf8(name);
  Name const* const found = slots_[slotOf(utf8, hashOf(utf8))];
  if (found != nullptr) known = found;
  return found;
}

Name const* NameTable::intern(wchar_t const* name) {
  if (Name const* const known = find(name)) return known;
  return remembered(name) = intern(Utf8Name(name), /*isParsed=*/false);
}

Name const* NameTable::intern(std::string_view utf8, bool isParsed) {
  std::uint64_t const hash = hashOf(utf8);
  if (Name const* const known = slots_[slotOf(utf8, hash)]) return known;
  if (2 * (count_ + 1) > slots_.size()) grow();

  auto* const wide = static_cast<wchar_t*>(arena_.allocate((utf8.size() + 1) * sizeof(wchar_t)));
  toWide(utf8, wide);
  auto* const narrow = static_cast<char*>(arena_.allocate(utf8.size() + 1));
  std::copy(utf8.begin(), utf8.end(), narrow);
  narrow[utf8.size()] = '\0';
  auto* const name = new (arena_.allocate(sizeof(Name)))
      Name{wide, {narrow, utf8.size()}, hash, isParsed || isXmlName(utf8)};
  slots_[slotOf(utf8, hash)] = name;
  ++count_;
  return name;
}

void NameTable::grow() {
  std::vector<Name const*> const old =
      std::exchange(slots_, std::vector<Name const*>(slots_.size() * 2));
  for (Name const* const name : old) {
    if (name != nullptr) slots_[slotOf(name->utf8, name->hash)] = name;
  }
}

// Store

Store::Store() { top.store_ = this; }

template <class T>
T* Store::newNode(Node*& freeList) {
  if (freeList == nullptr) return new (arena.allocate(sizeof(T))) T(/*isNull=*/false);
  Node* const node = std::exchange(freeList, freeList->previous_);
  return new (static_cast<void*>(node)) T(/*isNull=*/false);
}

Element* Store::newElement(Name const* name) {
  auto* const element = newNode<Element>(freeElements_);
  element->name_ = name;
  element->store_ = this;
  return element;
}

Attribute* Store::newAttribute(Name const* name) {
  auto* const attribute = newNode<Attribute>(freeAttributes_);
  attribute->name_ = name;
  return attribute;
}

TextNode* Store::newText(Node::Kind kind) {
  static_assert(sizeof(Text) == sizeof(TextNode) && sizeof(CData) == sizeof(TextNode) &&
                sizeof(Comment) == sizeof(TextNode) && sizeof(Pi) == sizeof(TextNode));
  auto* const node = newNode<Text>(freeTexts_);
  node->kind_ = kind;
  return node;
}

void Store::append(Element& parent, Node& child) {
  child.parent_ = &parent;
  child.previous_ = parent.lastChild_;
  (parent.lastChild_ != nullptr ? parent.lastChild_->next_ : parent.firstChild_) = &child;
  parent.lastChild_ = &child;
}

void Store::append(Element& parent, Attribute& attribute) {
  attribute.parent_ = &parent;
  attribute.previous_ = parent.lastAttribute_;
  if (parent.lastAttribute_ != nullptr) {
    parent.lastAttribute_->next_ = &attribute;
  } else {
    parent.firstAttribute_ = &attribute;
  }
  parent.lastAttribute_ = &attribute;
}

// Texts. A text of capacity class n has at least 2^n bytes of its own; class 0
// has none: it is empty, or shared.

void Store::setParsedText(TextNode& node, std::string_view utf8) {
  if (utf8.empty()) return;
  if (node.kind_ == Node::Kind::text && isBlankText(utf8)) {
    node.value_ = sharedBlank(utf8);
    node.length_ = static_cast<std::uint32_t>(utf8.size());
    return;
  }
  std::size_t const size = (utf8.size() + 1) * sizeof(wchar_t);
  auto* const text = static_cast<wchar_t*>(arena.allocate(size));
  node.length_ = static_cast<std::uint32_t>(toWide(utf8, text));
  node.value_ = text;
  node.capacityClass_ = static_cast<std::uint8_t>(std::bit_width(size) - 1);
}

wchar_t const* Store::sharedBlank(std::string_view utf8) {
  Blank& blank = blanks_[utf8.size() % blanks_.size()];
  if (blank.text == nullptr || blank.utf8 != utf8) {
    auto* const text = static_cast<wchar_t*>(arena.allocate((utf8.size() + 1) * sizeof(wchar_t)));
    toWide(utf8, text);
    blank = {std::string(utf8), text};
  }
  return blank.text;
}

/// Memory of exactly the class's size, so that it can serve other texts later.
wchar_t* Store::newTextMemory(unsigned capacityClass) {
  void*& freeMemory = freeTextMemory_[capacityClass];
  if (freeMemory == nullptr) {
    return static_cast<wchar_t*>(arena.allocate(std::size_t{1} << capacityClass));
  }
  void* const memory = freeMemory;
  std::memcpy(&freeMemory, memory, sizeof(freeMemory));
  return static_cast<wchar_t*>(memory);
}

void Store::releaseTextMemory(TextNode& node) noexcept {
  if (node.capacityClass_ >= kLeastClass) {
    void* const memory = const_cast<wchar_t*>(node.value_);
    void*& freeMemory = freeTextMemory_[node.capacityClass_];
    std::memcpy(memory, &freeMemory, sizeof(freeMemory));
    freeMemory = memory;
  }
  node.capacityClass_ = 0;
  node.value_ = L"";
  node.length_ = 0;
}

void Store::appendText(TextNode& node, std::wstring_view text) {
  std::size_t const length = node.length_ + text.size();
  std::size_t const size = (length + 1) * sizeof(wchar_t);
  if (size > UINT32_MAX) throw std::bad_alloc();
  bool const hasRoom = node.capacityClass_ != 0 && size <= (std::size_t{1} << node.capacityClass_);
  if (!hasRoom) moveText(node, size);
  auto* const memory = const_cast<wchar_t*>(node.value_);
  std::copy(text.begin(), text.end(), memory + node.length_);
  memory[length] = 0;
  node.length_ = static_cast<std::uint32_t>(length);
}

/// Moves the node's text to memory of its own of at least `size` bytes.
void Store::moveText(TextNode& node, std::size_t size) {
  auto const capacityClass =
      std::max<unsigned>(kLeastClass, static_cast<unsigned>(std::bit_width(size - 1)));
  wchar_t* const memory = newTextMemory(capacityClass);
  std::uint32_t const length = node.length_;
  std::copy_n(node.value_, length, memory);
  releaseTextMemory(node);
  node.value_ = memory;
  node.length_ = length;
  node.capacityClass_ = static_cast<std::uint8_t>(capacityClass);
}

// Deleted nodes

void Store::recycle(Node& node) noexcept {
  node.parent_ = nullptr;
  node.isDeleted_ = true;
  node.previous_ = std::exchange(discarded_, &node);
}

void Store::reclaim() noexcept {
  if (discarded_ == nullptr || lease.use_count() > 1) return;
  for (int i = 0; i < kReclaimedAtOnce && discarded_ != nullptr; ++i) {
    if (Node* const node = nextDiscarded()) release(*node);
  }
}

/// Takes one node out of what is discarded: a leaf, or an element of which
/// nothing is left. Null when the step only went down into an element.
Node* Store::nextDiscarded() noexcept {
  Node* const node = discarded_;
  if (node->kind_ == Node::Kind::element) {
    auto* const element = static_cast<Element*>(node);
    if (element->firstAttribute_ != nullptr || element->firstChild_ != nullptr) {
      Node* const below = element->firstAttribute_ != nullptr
                              ? static_cast<Node*>(element->firstAttribute_)
                              : element->firstChild_;
      below->unlink();
      if (below->kind_ != Node::Kind::element) return below;
      recycle(*below);
      return nullptr;
    }
  }
  discarded_ = node->previous_;
  return node;
}

void Store::release(Node& node) noexcept {
  node.parent_ = nullptr;
  node.isDeleted_ = true;
  Node** freeList = &freeElements_;
  if (node.kind_ != Node::Kind::element) {
    releaseTextMemory(static_cast<TextNode&>(node));
    freeList = node.kind_ == Node::Kind::attribute ? &freeAttributes_ : &freeTexts_;
  }
  node.previous_ = std::exchange(*freeList, &node);
}

}  // namespace AdvXMLParser
