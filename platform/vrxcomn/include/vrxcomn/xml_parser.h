// XML documents: a parser for wide text, a tree to walk and change, and reading
// and writing of files.
//
// The tree keeps elements, attributes, text, character data sections, comments
// and processing instructions, those outside the root element too, and the
// document type's name and identifiers. Entities are expanded and default
// attributes added while parsing; the declarations themselves are not kept.
//
// What hostile input meets: external entities are never loaded (a reference to
// one is an error); nesting ends at 1,000 levels; what entities and default
// attributes add is bounded; nothing recurses with the depth of the input.
//
// Names and values are wide text without NUL. Pointers and references to nodes,
// names and values belong to the document. A value's pointer is valid until the
// node changes or is deleted. A deleted node may be read until the document is
// changed again.
// Errors: as the functions say; std::bad_alloc passes everywhere.
// Threads: a document belongs to one thread at a time; the free functions may
// run anywhere.

#pragma once

#include <vrxcomn/export.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <type_traits>

namespace AdvXMLParser {

class Attribute;
class Document;
class Element;
struct Name;
struct Store;

/// Encodings of files and byte strings. Only UTF_8 is ever asked for; reading
/// reports which one a file turned out to be in.
enum UTF_ENCODINGS : int {
  UTF_16_BE = 0,
  UTF_16_LE = 1,
  UTF_32_BE = 2,
  UTF_32_LE = 3,
  UTF_8 = 4,
};

/// A text that is no well-formed document, or one that is refused.
class VRXCOMN_EXPORT ParsingException : public std::exception {
public:
  /// The position counts from 1, in characters.
  ParsingException(unsigned long line, unsigned long column, std::wstring message);
  ~ParsingException() override;

  /// Where, counted from 1, in characters.
  ///@{
  unsigned long GetLine() const { return line_; }

  unsigned long GetColumn() const { return column_; }

  ///@}

  /// Why, as a text for the log.
  wchar_t const* GetErrorMessage() const { return message_->c_str(); }

  /// A fixed text; GetErrorMessage() has the reason.
  char const* what() const noexcept override;

private:
  unsigned long line_;
  unsigned long column_;
  std::shared_ptr<std::wstring const> message_;  // copying an exception may not throw
};

/// A document that cannot be expressed, or a file that cannot be written.
/// GetLastXmlErrorMessage() says why.
class VRXCOMN_EXPORT ReadWriteException : public std::exception {
public:
  ~ReadWriteException() override;
  /// A fixed text.
  char const* what() const noexcept override;
};

/// Anything in a tree.
///
/// A null node is one of the sentinels: what a lookup gives for something that
/// is not there. It has empty names and values; changing it does nothing.
class VRXCOMN_EXPORT Node {
public:
  /// Which of the classes below a node is of.
  enum class Kind : std::uint8_t { element, attribute, text, cdata, comment, pi };

  Node(Node const&) = delete;
  Node& operator=(Node const&) = delete;

  /// What the node is, a sentinel too.
  Kind GetKind() const { return kind_; }

  /// Whether it is a sentinel.
  bool IsNull() const { return isNull_; }

  /// Takes the node, with everything below it, out of the document, in constant
  /// time.
  void Delete() noexcept;

protected:
  /// For derived classes alone; the store makes all nodes but the sentinels.
  constexpr Node(Kind kind, bool isNull) : kind_(kind), isNull_(isNull) {}

  ~Node() = default;

private:
  friend struct Store;
  friend class Element;
  friend class Attribute;
  friend class Serializer;
  friend class TextNode;
  friend class TreeBuilder;
  template <class T>
  friend class Iterator;

  void unlink() noexcept;

  Element* parent_ = nullptr;
  Node* previous_ = nullptr;
  Node* next_ = nullptr;
  Kind kind_;
  bool isNull_;
  bool isDeleted_ = false;
  std::uint8_t capacityClass_ = 0;  // of a text's memory; Store
  std::uint32_t length_ = 0;        // of a text
};

/// Character data of one kind: a text, a character data section, a comment or a
/// processing instruction.
class VRXCOMN_EXPORT TextNode : public Node {
public:
  /// The characters and a NUL.
  wchar_t const* GetValue() const { return value_; }

  /// Number of characters of GetValue().
  std::uint32_t GetLength() const { return length_; }

protected:
  /// For derived classes alone.
  constexpr TextNode(Kind kind, bool isNull) : Node(kind, isNull) {}

private:
  friend struct Store;
  friend class Attribute;
  friend class Element;

  wchar_t const* value_ = L"";
};

/// Character data of an element as it reads once references are replaced.
class VRXCOMN_EXPORT Text : public TextNode {
  friend struct Store;

  constexpr explicit Text(bool isNull) : TextNode(Kind::text, isNull) {}
};

/// Character data that stood between `<![CDATA[` and `]]>`.
class VRXCOMN_EXPORT CData : public TextNode {
public:
  /// The one that stands for none.
  static CData null;

private:
  friend struct Store;

  constexpr explicit CData(bool isNull) : TextNode(Kind::cdata, isNull) {}
};

/// A comment; its value is what stands between `<!--` and `-->`.
class VRXCOMN_EXPORT Comment : public TextNode {
public:
  /// The one that stands for none.
  static Comment null;

private:
  friend struct Store;

  constexpr explicit Comment(bool isNull) : TextNode(Kind::comment, isNull) {}
};

/// Its value is the target and, where there are data, a blank and these.
class VRXCOMN_EXPORT Pi : public TextNode {
public:
  /// The one that stands for none.
  static Pi null;

private:
  friend struct Store;

  constexpr explicit Pi(bool isNull) : TextNode(Kind::pi, isNull) {}
};

/// An attribute. Its children are one text, its value.
class VRXCOMN_EXPORT Attribute : public TextNode {
public:
  /// The one that stands for none.
  static Attribute null;

  /// Valid as long as the document.
  wchar_t const* GetName() const;

  /// Empties the value.
  void DeleteChildren() noexcept;

  /// Appends to the value. `text` may not point into the document.
  void AddText(wchar_t const* text);

private:
  friend struct Store;
  friend class Element;
  friend class Serializer;

  constexpr explicit Attribute(bool isNull) : TextNode(Kind::attribute, isNull) {}

  Name const* name_ = nullptr;
};

/// An element.
class VRXCOMN_EXPORT Element : public Node {
public:
  /// The one that stands for none.
  static Element null;

  /// Valid as long as the document.
  wchar_t const* GetName() const;

  /// The interned form of `name` if anything in this document has borne it,
  /// else null. Looking it up once makes many comparisons cheap.
  Name const* FindName(wchar_t const* name) const;

  /// Whether FindName() gave `name` for this element's name.
  bool HasName(Name const* name) const { return name_ == name; }

  /// The attribute, or Attribute::null.
  ///@{
  Attribute& GetAttribute(wchar_t const* name) const;
  Attribute& GetAttribute(Name const* name) const;
  ///@}

  /// Appends an attribute with an empty value and returns it; the one that
  /// exists, if there is one.
  Attribute& CreateAttribute(wchar_t const* name);

  /// CreateAttribute() without looking for the one that exists: there must be
  /// none.
  Attribute& AppendAttribute(wchar_t const* name);

  /// Appends an element.
  Element& AddElementInto(wchar_t const* name);

  /// Appends a text. `text` may not point into the document.
  void AddText(wchar_t const* text);

  /// Deletes all children; attributes stay.
  void DeleteChildren() noexcept;

  /// Whether any child is an element.
  bool HasChildElements() const;

  /// Whether the texts and character data sections among the children, one
  /// after the other, read as `text`.
  bool TextEquals(wchar_t const* text) const;

  /// Appends those texts to `text`.
  void AppendTextTo(std::wstring& text) const;

private:
  friend struct Store;
  friend class Attribute;
  friend class Document;
  friend class Node;
  friend class Serializer;
  friend class TreeBuilder;
  template <class T>
  friend class Iterator;

  constexpr explicit Element(bool isNull) : Node(Kind::element, isNull) {}

  bool takesAdditions() const noexcept;
  std::shared_ptr<void const> lease() const;

  Name const* name_ = nullptr;
  Node* firstChild_ = nullptr;
  Node* lastChild_ = nullptr;
  Attribute* firstAttribute_ = nullptr;
  Attribute* lastAttribute_ = nullptr;
  Store* store_ = nullptr;
};

/// A position among the element children or the attributes of an element, in
/// document order.
///
/// It survives deletion of the node that it stands on: it then stands on the
/// next one. As long as an iterator lives, the memory of what is deleted from
/// its document is not used again. Its own end needs no document any more.
template <class T>
class Iterator {
public:
  /// At the end of nothing.
  Iterator() = default;

  /// At the first, or at the end where there is none.
  explicit Iterator(Element const& owner) : owner_(&owner), node_(first()), lease_(owner.lease()) {}

  /// Whether it stands on nothing.
  bool AtEnd() const { return settled() == nullptr; }

  /// Whether no element child, or attribute, comes before.
  bool AtBegin() const { return owner_ == nullptr || Iterator(*owner_).settled() == settled(); }

  /// Not at the end.
  T& operator*() const { return static_cast<T&>(*settled()); }

  /// Not at the end.
  T* operator->() const { return &**this; }

  /// Does nothing at the end.
  Iterator& operator++() {
    if (settled() != nullptr) node_ = node_->next_;
    return *this;
  }

  /// From the end, to the last. Does nothing at the first.
  Iterator& operator--() {
    Node* before = settled() != nullptr ? node_->previous_ : last();
    while (before != nullptr && before->kind_ != kKind) before = before->previous_;
    if (before != nullptr) node_ = before;
    return *this;
  }

private:
  static constexpr bool kIsAttribute = std::is_same_v<T, Attribute>;
  static constexpr Node::Kind kKind = kIsAttribute ? Node::Kind::attribute : Node::Kind::element;

  Node* first() const {
    if constexpr (kIsAttribute) {
      return owner_->firstAttribute_;
    } else {
      return owner_->firstChild_;
    }
  }

  Node* last() const {
    if (owner_ == nullptr) return nullptr;
    if constexpr (kIsAttribute) {
      return owner_->lastAttribute_;
    } else {
      return owner_->lastChild_;
    }
  }

  /// Moves on from what is not, or no longer, a T of the owner's.
  Node* settled() const {
    while (node_ != nullptr && (node_->kind_ != kKind || node_->parent_ != owner_)) {
      node_ = node_->next_;
    }
    return node_;
  }

  Element const* owner_ = nullptr;
  mutable Node* node_ = nullptr;
  std::shared_ptr<void const> lease_;
};

/// A document, which owns its tree.
class VRXCOMN_EXPORT Document {
public:
  /// A document with a root element called `rootName`.
  explicit Document(wchar_t const* rootName);
  virtual ~Document();
  Document(Document const&) = delete;
  Document& operator=(Document const&) = delete;

  /// The root element; Element::null after its deletion.
  Element& GetRoot() const;

  /// The document as text that parses to the same tree.
  ///
  /// `indented` writes an XML declaration first and puts elements on lines of
  /// their own, two blanks a level for 32 levels, except where an element holds
  /// text other than white space beside elements; blank text between elements is
  /// dropped, so that indenting again changes nothing. Otherwise the tree is
  /// written as it stands.
  ///
  /// ReadWriteException for what could not be read again: a missing root, a name
  /// that is no XML name, a character that XML cannot hold, and elements nested
  /// deeper than 1,000 levels.
  std::wstring GenerateXML(bool indented) const;

  /// Bytes of memory that the tree takes, names and texts included.
  std::size_t MemoryInUse() const;

private:
  friend class Parser;

  Document();

  std::unique_ptr<Store> store_;
};

/// Parses documents, one after the other.
class VRXCOMN_EXPORT Parser {
public:
  Parser();
  // NOLINTNEXTLINE(performance-trivially-destructible): part of the binary interface
  ~Parser();
  Parser(Parser const&) = delete;
  Parser& operator=(Parser const&) = delete;

  /// A new document, owned by the caller, from `length` characters. A declared
  /// encoding is ignored, since the text is wide already. ParsingException for a
  /// text that is not well-formed XML 1.0, a NUL character and a character that
  /// is no Unicode scalar value among the reasons.
  Document* Parse(wchar_t const* text, int length);
};

/// What ReadBufferFromFileNoExp returns for a file that does not exist.
inline constexpr long kFileMissing = -44;

// Files. `fileName` is converted to the C locale's encoding. Reading takes UTF-8,
// or UTF-16 and UTF-32 with a byte-order mark; a mark is dropped. An encrypted
// file starts with a header of its own (docs/formats.md); for such a file
// `decode` turns the rest into what is read, and without `decode` reading fails.
// `encoding` must be UTF_8 and is set to what the file was in; `sizeInBytes`,
// unless null, to the file's size. The result is negative on failure, else 0;
// the output is unspecified after a failure. GetLastXmlErrorMessage() says why.
// Files beyond 512 MiB are refused.

/// Reads a file into wide text.
VRXCOMN_EXPORT long ReadBufferFromFileNoExp(std::wstring const& fileName, std::wstring& text,
                                            UTF_ENCODINGS& encoding, unsigned long* sizeInBytes,
                                            bool (*decode)(std::string const&, std::string&));

/// Reads a file into UTF-8, whatever it is in.
VRXCOMN_EXPORT long ReadUtf8BufferFromFileNoExp(std::wstring const& fileName, std::string& utf8,
                                                UTF_ENCODINGS& encoding, unsigned long* sizeInBytes,
                                                bool (*decode)(std::string const&, std::string&));

/// Writes `text` in UTF-8 without a mark; ReadWriteException on failure. With
/// `encode` what it makes of the bytes is written, after the header of encrypted
/// files. `inspect`, unless null, is shown the bytes before that, may change
/// them, and stops the writing by returning false.
///
/// A regular file is replaced by rename after its successor has been flushed to
/// disk, keeping mode and, where allowed, owner; a new one gets 0666 less the
/// umask. A symbolic link is followed. What is no regular file is written in
/// place.
VRXCOMN_EXPORT void WriteBufferToFile(std::wstring const& fileName, std::wstring const& text,
                                      UTF_ENCODINGS encoding,
                                      bool (*encode)(std::string const&, std::string&),
                                      bool (*inspect)(std::string&));

/// Converts `sizeInBytes` bytes of UTF-8, dropping a mark. Negative, with `text`
/// unchanged, when they are not valid (RFC 3629).
VRXCOMN_EXPORT long ConvertBufferToUnicode(char const* utf8, unsigned long sizeInBytes,
                                           std::wstring& text, UTF_ENCODINGS& encoding);

/// Converts to UTF-8 without a mark. False, with `utf8` unchanged, for a
/// character that is no Unicode scalar value.
VRXCOMN_EXPORT bool ConvertBufferToUtf8(std::wstring const& text, std::string& utf8,
                                        UTF_ENCODINGS& encoding);

/// Why the last function of this header failed on this thread; empty at first.
/// Valid until the next failure.
VRXCOMN_EXPORT wchar_t const* GetLastXmlErrorMessage();

}  // namespace AdvXMLParser
