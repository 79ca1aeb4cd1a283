// XML: a document holder that loads and writes files, a cursor on elements, and
// iterators over children and attributes.
//
//   AnXml config;
//   if (!config.useExistingFile(L"/etc/agent.xml", L"agent", nullptr, nullptr)) return false;
//   AnXmlNode root(&config);
//   AnXmlChildIndex tasks(&root, L"task");
//   AString command;
//   while (tasks.moveNext(L"command", &command)) run(command);
//   AnXmlNode task;
//   if (root.tryGetChild(&task, L"task", L"name", L"backup", nullptr, nullptr))
//     task.setValue(L"status", L"done");
//   config.writeFile(L"/etc/agent.xml", /*encrypt=*/true, /*generateFlag=*/true);
//
// A value of an element is one of its attributes or, under the empty name "",
// its own text. Names and values compare case-sensitively unless said otherwise.
// An element with child elements has the empty text, and setting the text of an
// element deletes all its children.
//
// Errors: operations log why they failed, under "Xml", "XmlNode", "XmlIndx" or
// "XmlValx", and return false. What was not loaded or not written is as it was.
// Null outputs are accepted: nothing is written there. A null file name reads
// "(null)". Only std::bad_alloc and what a crypto service throws pass through.
// Lifetime: cursors and iterators point into a document that must outlive them.
// Removing an element leaves other cursors on it and below it without a meaning:
// they do no harm as long as the document lives, but changes through them may be
// lost, and they may stand on another element by then.
// Threads: a document, with all its cursors, belongs to one thread at a time.

#pragma once

#include <vrxutil/binary.h>
#include <vrxutil/export.h>
#include <vrxutil/text.h>

#include <string>
#include <string_view>

namespace AdvXMLParser {
class Attribute;
class Document;
class Element;
template <class T>
class Iterator;
}  // namespace AdvXMLParser

/// Holds one document, or none.
class VRXUTIL_EXPORT AnXml {
public:
  /// Holds none.
  AnXml() = default;

  /// close().
  ~AnXml();
  AnXml(AnXml const&) = delete;
  AnXml& operator=(AnXml const&) = delete;

  /// Destroys the document, if there is one.
  void close();

  /// Gives the document, or null, to the caller, who must delete it.
  AdvXMLParser::Document* relinquishDocument();

  // The selectors of the use... operations: the root element must be named
  // `rootName`, it must have the attribute `attributeName`, whose value must be
  // `attributeValue`. A selector is checked only if it and those before it are
  // not null. A mismatch is an error; the document stays loaded, so that the
  // caller can still look at it.

  /// Parses `text`, where null is an empty text, in place of the current
  /// document. False after "Parse error line: N column: M MESSAGE" (both count
  /// from 1, in characters) or, beyond INT_MAX characters, "Parse failed", then
  /// without a document; or after a mismatch.
  bool useString(wchar_t const* text, wchar_t const* rootName, wchar_t const* attributeName,
                 wchar_t const* attributeValue);

  /// Reads the file, decrypting it where it is encrypted, and parses it as
  /// useString() does. A file that cannot be read is an error and leaves the
  /// current document; a missing one is an error only if `reportMissing`. A NUL
  /// character in the file is a parse error.
  bool useFile(bool reportMissing, wchar_t const* fileName, wchar_t const* rootName,
               wchar_t const* attributeName, wchar_t const* attributeValue);

  /// useFile() that stays quiet when the file is missing.
  bool tryUseFile(wchar_t const* fileName, wchar_t const* rootName, wchar_t const* attributeName,
                  wchar_t const* attributeValue);

  /// useFile() that reports a missing file.
  bool useExistingFile(wchar_t const* fileName, wchar_t const* rootName,
                       wchar_t const* attributeName, wchar_t const* attributeValue);

  /// tryUseFile(); where that fails, for whatever reason, useNew().
  bool useFileAlways(wchar_t const* fileName, wchar_t const* rootName, wchar_t const* attributeName,
                     wchar_t const* attributeValue);

  /// A new document: a root element with, unless its name is null, one attribute.
  /// A null `attributeValue` adds no attribute and is reported as
  /// AnXmlNode::setValue() does. A null `rootName` is an error and leaves the
  /// current document.
  bool useNew(wchar_t const* rootName, wchar_t const* attributeName, wchar_t const* attributeValue);

  /// Reads a file as text into `text`: UTF-8, or UTF-16 and UTF-32 with their
  /// mark; decrypts where it is encrypted. A byte-order mark is dropped. NUL
  /// characters are kept. `text` is unspecified after a failure.
  static bool internalReadFile(bool reportMissing, wchar_t const* fileName, std::wstring& text);

  /// internalReadFile() that reports a missing file.
  static bool readExistingFile(AString const& fileName, AString& text);

  /// As readExistingFile(), into UTF-8.
  static bool readExistingFileUtf8(AString const& fileName, AnObjectBuffer<unsigned char>& bytes);

  /// Converts UTF-8 up to its NUL. Null is an empty text here. Invalid UTF-8 is
  /// an error and leaves `text`.
  static bool convertUtf8ToUnicode(char const* utf8, AString& text);

  /// Converts wide text up to its NUL. Null is an empty text here. A character
  /// that is no Unicode scalar value is an error and leaves `bytes`.
  static bool convertUnicodeToUtf8(wchar_t const* text, AnObjectBuffer<unsigned char>& bytes);

  /// Writes the document in UTF-8, encrypted if `encrypt`; with `generateFlag`
  /// after an XML declaration and indented, else compactly as it stands. The
  /// file is replaced as a whole: after a failure, even a crash, it is the old
  /// one. A document that could not be read again is not written: one that holds
  /// what XML cannot express (a name with a blank, a control character), or is
  /// nested deeper than 1,000 levels. Failures are logged as
  /// "Exception writing file: REASON"; an empty holder is an internal error.
  bool writeFile(wchar_t const* fileName, bool encrypt, bool generateFlag);

  /// Puts the document into `text`, compactly as it stands. What writeFile()
  /// does not write is an error here too, "Exception writing string: REASON",
  /// and leaves `text`; so does an empty holder, an internal error.
  void writeString(AString* text);

private:
  friend class AnXmlNode;

  bool useText(std::wstring_view text, wchar_t const* rootName, wchar_t const* attributeName,
               wchar_t const* attributeValue);

  AdvXMLParser::Document* document = nullptr;
};

/// A cursor on one element of a document, or on none; copied by pointer.
///
/// Operations on a cursor that stands on none log the internal error "Used
/// uninitialized node" under "XmlNode" and return false, an empty text, or
/// nothing.
class VRXUTIL_EXPORT AnXmlNode {
public:
  /// Stands on none.
  AnXmlNode() = default;

  /// The document's root element; none for a null or empty holder.
  ///@{
  AnXmlNode(AnXml* xml);
  AnXmlNode(AdvXMLParser::Document* xmlDocument);
  ///@}
  /// This element; none for Element::null.
  AnXmlNode(AdvXMLParser::Element& xmlElement);
  /// The element that `other` stands on; none for null.
  AnXmlNode(AnXmlNode const* other);

  /// Moves the cursor to what the constructor of this argument gives.
  ///@{
  void setToRoot(AnXml* xml);
  void setToZuxmlElement(AdvXMLParser::Element& xmlElement);
  ///@}

  /// Whether the cursor stands on an element; reports it where not.
  bool positionValid() const;

  /// The element's name.
  AString getName() const;

  /// Reads the attribute `name`, or the text where `name` is "". False, with
  /// `value` unchanged, when there is no such attribute: an error if `required`.
  bool getValue(bool required, wchar_t const* name, AString* value) const;

  /// getValue() that reports a missing attribute.
  bool getExistingValue(wchar_t const* name, AString* value) const;

  /// getValue() that stays quiet.
  bool tryGetValue(wchar_t const* name, AString* value) const;

  /// Sets the attribute `name`, added where it is missing, or the text where
  /// `name` is "". A null name or value is an internal error and sets nothing.
  /// `value` may not point into the document.
  void setValue(wchar_t const* name, wchar_t const* value);

  /// Whether the value reads as `expected`, without regard to case. A null
  /// `expected` asks whether there is a value.
  bool hasValue(bool required, wchar_t const* name, wchar_t const* expected) const;

  /// Whether this node's value `name` and the other's `otherName` (null: the
  /// same name) are equal without regard to case.
  bool matchesValue(bool required, AnXmlNode const* other, wchar_t const* name,
                    wchar_t const* otherName) const;

  // The children that the operations below look for: element children in
  // document order, named `childName` (null: any name; then nothing else is
  // looked at), that have an attribute `selName` (null: not looked at; "": the
  // text) with the value `selValue` (null: any).

  /// Finds a child and, unless null, sets `found` to it and reads `valueName`
  /// from it into `value`; a value missing there is reported if `required`, but
  /// does not change the result. Where there is no such child: false, an error
  /// if `required`, and `found` stands on none unless it is this very node.
  ///@{
  bool getChild(bool required, AnXmlNode* found, wchar_t const* childName, wchar_t const* selName,
                wchar_t const* selValue, wchar_t const* valueName, AString* value) const;
  bool getChild(bool required, wchar_t const* childName, wchar_t const* selName,
                wchar_t const* selValue, wchar_t const* valueName, AString* value) const;
  ///@}

  /// getChild() that stays quiet.
  bool tryGetChild(AnXmlNode* found, wchar_t const* childName, wchar_t const* selName,
                   wchar_t const* selValue, wchar_t const* valueName, AString* value) const;

  /// Moves this cursor to the child; it stays where it is when there is none.
  bool getChildMove(bool required, wchar_t const* childName, wchar_t const* selName,
                    wchar_t const* selValue, wchar_t const* valueName, AString* value);

  /// Finds a child or adds it, as addChild() does, with the selecting value; then
  /// sets `valueName` there, unless it or `value` is null, and `found`, unless
  /// null, which stands on none where nothing is found or added.
  void setChild(AnXmlNode* found, wchar_t const* childName, wchar_t const* selName,
                wchar_t const* selValue, wchar_t const* valueName, wchar_t const* value);

  /// Appends a child, sets `valueName` there, unless it or `value` is null, and
  /// `added`, unless null, which stands on none where nothing is added. A null
  /// `childName` is an internal error and adds nothing.
  void addChild(AnXmlNode* added, wchar_t const* childName, wchar_t const* valueName,
                wchar_t const* value);

  /// Deletes the element, in constant time; this cursor then stands on none. A
  /// document without its root is not written any more.
  void remove();

  /// Whether the other element has the same name and text, and this one all its
  /// attributes with their values.
  bool containsValuesOf(AnXmlNode* other);

  /// Whether each child of `other` has a counterpart here that contains its
  /// values and, in turn, its children. The first that has none is an error
  /// "missing " + asLogString(), one record on each level; candidates that were
  /// tried on the way leave theirs too, whatever the result. Takes time in
  /// proportion to the product of the sizes at worst.
  bool containsChildrenOf(AnXmlNode const* other);

  /// Sets the attributes of `from` here, then its text, which deletes all
  /// children of this element. With itself as `from` an element loses its child
  /// elements.
  void copyValues(AnXmlNode const* from);

  /// Appends a copy of `from` and of the elements below it, each with its
  /// attributes and text. `from` may be this element or one around it: it is
  /// copied as it was.
  void copyAsChild(AnXmlNode const* from);

  /// The element as one line, unescaped: `<name attribute="value">text</name>`.
  AString asLogString();

protected:
  friend class AnXmlChildIndex;
  friend class AnXmlValueIndex;

  /// Null where the cursor stands on none.
  AdvXMLParser::Element* element = nullptr;
};

/// Visits the element children of a node in document order. It is itself a
/// cursor, on the child visited last.
///
/// Removing that child while walking is what remove() is for. Adding children to
/// the parent while walking is not supported: they may or may not be visited.
class VRXUTIL_EXPORT AnXmlChildIndex : public AnXmlNode {
public:
  /// Visits nothing until set() is called.
  AnXmlChildIndex() = default;
  /// set() with the same arguments.
  AnXmlChildIndex(AnXmlNode const* parentNode, wchar_t const* name);
  ~AnXmlChildIndex();
  AnXmlChildIndex(AnXmlChildIndex const&) = delete;
  AnXmlChildIndex& operator=(AnXmlChildIndex const&) = delete;

  /// Starts before the first child named `name`; null or "" means any name.
  /// False, with an internal error under "XmlIndx", for a parent that stands on
  /// none.
  bool set(AnXmlNode const* parentNode, wchar_t const* name);

  /// Moves to the next child and, unless null, reads `valueName` from it into
  /// `value`, which stays as it is when there is no such value. False at the
  /// end; the cursor then stays on the child visited last.
  bool moveNext(wchar_t const* valueName, AString* value);

  /// Makes the next child current, whatever its name, as moveNext() does. Does
  /// nothing at the end.
  void setReturn(wchar_t const* valueName, AString* value);

  /// Deletes the child visited last, in constant time; the walk goes on with
  /// the one that followed it, and the cursor stands on none until then. False,
  /// with the internal error "remove without moveNext" under "XmlIndx", when
  /// moveNext() has not found one since set() or it was removed already.
  bool remove();

  /// Ends the walk; set() starts another. The cursor stays where it is.
  void close();

private:
  AdvXMLParser::Iterator<AdvXMLParser::Element>* cursor = nullptr;
  AdvXMLParser::Element* parent = nullptr;
  AString nameFilter;
};

/// Visits the attributes of a node in document order.
class VRXUTIL_EXPORT AnXmlValueIndex {
public:
  /// Visits nothing until set() is called.
  AnXmlValueIndex() = default;
  /// set() with the same argument.
  AnXmlValueIndex(AnXmlNode const* node);
  ~AnXmlValueIndex();
  AnXmlValueIndex(AnXmlValueIndex const&) = delete;
  AnXmlValueIndex& operator=(AnXmlValueIndex const&) = delete;

  /// Starts before the first attribute. An internal error under "XmlValx" for a
  /// node that stands on none; moveNext() then returns false.
  void set(AnXmlNode const* node);

  /// Moves to the next attribute and gives its name and value. False at the end.
  bool moveNext(AString* name, AString* value);

  /// Ends the walk; set() starts another.
  void close();

private:
  AdvXMLParser::Element* element = nullptr;
  AdvXMLParser::Iterator<AdvXMLParser::Attribute>* cursor = nullptr;
};
