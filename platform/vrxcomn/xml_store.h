// The memory behind a document: nodes, texts and names, in blocks that are freed
// as a whole when the document goes.
//
// What is deleted from the tree comes back for later additions, so that a
// document that is edited for months does not grow. A deleted node stays a
// valid node: whoever still holds it reads it, or the one that took its place.

#pragma once

#include <vrxcomn/xml_parser.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace AdvXMLParser {

/// How deep elements may be nested in a text, and the reason given for refusing
/// more. A tree may be deeper, but is not written then: nobody could read it.
inline constexpr std::size_t kDeepestNesting = 1000;
inline constexpr wchar_t kTooDeep[] = L"elements are nested deeper than 1000 levels";

/// A name as its document keeps it: once, so that names are equal exactly if
/// their addresses are.
struct Name {
  wchar_t const* text;
  std::string_view utf8;
  std::uint64_t hash;
  bool isXmlName;  // whether a document may hold it
};

/// Hands out memory that is freed as a whole.
class Arena {
public:
  /// `size` bytes, aligned for pointers.
  void* allocate(std::size_t size) {
    size = (size + kAlignment - 1) & ~(kAlignment - 1);
    if (size > static_cast<std::size_t>(end_ - next_)) return allocateBlock(size);
    return std::exchange(next_, next_ + size);
  }

  std::size_t sizeInBytes() const { return sizeInBytes_; }

private:
  static constexpr std::size_t kAlignment = alignof(void*);

  void* allocateBlock(std::size_t size);

  std::vector<std::unique_ptr<char[]>> blocks_;
  char* next_ = nullptr;
  char* end_ = nullptr;
  std::size_t sizeInBytes_ = 0;
};

/// All names of a document.
class NameTable {
public:
  explicit NameTable(Arena& arena);

  /// The name, added where it is missing. One that comes from a parsed document
  /// is an XML name; others are examined.
  Name const* intern(std::string_view utf8, bool isParsed);

  /// The name as it is looked up and interned from wide text, or null. What is no
  /// Unicode counts as U+FFFD, which no XML name holds. Quick for a text that is
  /// asked for at the same address again, as literals are.
  Name const* find(wchar_t const* name);

  /// The name, added where it is missing.
  Name const* intern(wchar_t const* name);

private:
  Name const*& remembered(wchar_t const* name);
  std::size_t slotOf(std::string_view utf8, std::uint64_t hash) const;
  std::uint64_t hashOf(std::string_view utf8) const;
  void grow();

  Arena& arena_;
  std::vector<Name const*> slots_;  // open addressing; a power of two
  std::size_t count_ = 0;
  std::array<Name const*, 64> remembered_{};
};

/// A document's nodes and all that they point to.
struct Store {
  Store();

  Element* newElement(Name const* name);
  Attribute* newAttribute(Name const* name);

  /// A text, character data section, comment or processing instruction.
  TextNode* newText(Node::Kind kind);

  /// Sets the text of a new node from UTF-8 that is known to be valid.
  void setParsedText(TextNode& node, std::string_view utf8);

  /// Appends to the text of a node, in place where there is room.
  void appendText(TextNode& node, std::wstring_view text);

  /// Takes a node that is out of the tree back, with what is below it.
  void recycle(Node& node) noexcept;

  /// Makes some of what was taken back available to new nodes, unless an iterator
  /// lives. To be called before additions, not between them: the element that
  /// is added to may itself be below what was deleted.
  void reclaim() noexcept;

  void append(Element& parent, Node& child);
  void append(Element& parent, Attribute& attribute);

  Arena arena;
  NameTable names{arena};

  /// Held by each iterator, too: what it may stand on is not used again.
  std::shared_ptr<void const> lease = std::make_shared<char>();

  /// Holds the root element, and what stands before and after it, as children.
  Element top{/*isNull=*/false};

  /// "<!DOCTYPE NAME IDENTIFIERS>", or empty, and the node that it follows.
  std::wstring doctype;
  Node const* doctypeFollows = nullptr;

private:
  template <class T>
  T* newNode(Node*& freeList);

  Node* nextDiscarded() noexcept;
  void release(Node& node) noexcept;

  wchar_t* newTextMemory(unsigned capacityClass);
  void releaseTextMemory(TextNode& node) noexcept;
  void moveText(TextNode& node, std::size_t size);
  wchar_t const* sharedBlank(std::string_view utf8);

  // Free nodes and discarded ones, whose parts are still to be taken back, are
  // linked by previous_.
  Node* freeElements_ = nullptr;
  Node* freeAttributes_ = nullptr;
  Node* freeTexts_ = nullptr;
  Node* discarded_ = nullptr;

  /// Free texts of at least 2^index bytes, linked through their first bytes.
  std::array<void*, 40> freeTextMemory_{};

  struct Blank {
    std::string utf8;
    wchar_t const* text;
  };

  /// The white space between elements, which repeats.
  std::array<Blank, 16> blanks_{};
};

}  // namespace AdvXMLParser
