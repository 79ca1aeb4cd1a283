#include "platform/vrxcomn/xml_error.h"
#include "platform/vrxcomn/xml_store.h"

#include <vrxcomn/xml_parser.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace AdvXMLParser {

namespace {

/// Deeper elements are indented no further: two blanks for each of a thousand
/// levels would make a small hostile document a huge one.
constexpr std::size_t kDeepestIndent = 32;

/// How a character is written: as it is, as something else, or not at all.
enum class Treatment : unsigned char { plain, special, impossible };

using Treatments = std::array<Treatment, 0x80>;

constexpr Treatments treatmentsOf(std::string_view special) {
  Treatments table{};
  for (std::size_t c = 0; c < 0x20; ++c) table[c] = Treatment::impossible;
  table['\t'] = table['\n'] = table['\r'] = Treatment::plain;
  for (char const c : special) table[static_cast<unsigned char>(c)] = Treatment::special;
  return table;
}

// A carriage return would read back as a line feed; in an attribute line feeds
// and tabs would read back as blanks.
constexpr Treatments kInText = treatmentsOf("&<>\r");
constexpr Treatments kInAttribute = treatmentsOf("&<>\"\t\n\r");
constexpr Treatments kVerbatim = treatmentsOf("");

Treatment treatmentOf(wchar_t c, Treatments const& table) {
  auto const code = static_cast<char32_t>(c);
  if (code < table.size()) return table[code];
  bool const isSurrogate = code >= 0xD800 && code < 0xE000;
  bool const isPossible = !isSurrogate && code != 0xFFFE && code != 0xFFFF && code <= 0x10FFFF;
  return isPossible ? Treatment::plain : Treatment::impossible;
}

std::wstring_view referenceTo(wchar_t c) {
  switch (c) {
    case L'&':
      return L"&amp;";
    case L'<':
      return L"&lt;";
    case L'>':
      return L"&gt;";
    case L'"':
      return L"&quot;";
    case L'\t':
      return L"&#9;";
    case L'\n':
      return L"&#10;";
    default:
      return L"&#13;";
  }
}

bool isBlank(std::wstring_view text) {
  return text.find_first_not_of(L" \t\r\n") == std::wstring_view::npos;
}

std::wstring hexadecimal(wchar_t c) {
  std::wstring digits;
  auto code = static_cast<char32_t>(c);
  do {
    digits.insert(digits.begin(), L"0123456789ABCDEF"[code % 16]);
    code /= 16;
  } while (code != 0 || digits.size() < 4);
  return digits;
}

[[noreturn]] void refuse(std::wstring const& reason) {
  vrxutil::detail::setLastXmlError(reason);
  throw ReadWriteException();
}

}  // namespace

/// Writes a tree, element by element, without recursion.
class Serializer {
public:
  Serializer(Store const& store, bool indented) : store_(store), indented_(indented) {
    text_.reserve(store.arena.sizeInBytes() / (2 * sizeof(wchar_t)));
  }

  std::wstring document() {
    if (indented_) text_ += L"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    if (store_.doctypeFollows == nullptr) doctype();
    for (Node const* node = store_.top.firstChild_; node != nullptr; node = node->next_) {
      tree(*node);
      if (indented_) text_ += L'\n';
      if (node == store_.doctypeFollows) doctype();
    }
    return std::move(text_);
  }

private:
  void doctype() {
    text_ += store_.doctype;
    if (indented_ && !store_.doctype.empty()) text_ += L'\n';
  }

  /// A node and all below it. `verbatim_` is the outermost element whose
  /// contents may not be indented, while that is open.
  void tree(Node const& top) {
    Node const* node = &top;
    for (;;) {
      if (Node const* const below = open(*node)) {
        node = below;
        continue;
      }
      for (; node != &top && node->next_ == nullptr; node = node->parent_) close(*node->parent_);
      if (node == &top) return;
      node = node->next_;
    }
  }

  /// Writes a node, of an element the start; returns the first child that is to
  /// be written next.
  Node const* open(Node const& node) {
    if (node.kind_ != Node::Kind::element) {
      leaf(static_cast<TextNode const&>(node));
      return nullptr;
    }
    auto const& element = static_cast<Element const&>(node);
    if (depth_ == kDeepestNesting) refuse(kTooDeep);
    newLineUnlessAtTop();
    startTag(element);
    if (!hasContents(element)) {
      text_ += L"/>";
      return nullptr;
    }
    text_ += L'>';
    ++depth_;
    if (indented_ && verbatim_ == nullptr && !holdsElementsOnly(element)) verbatim_ = &element;
    return element.firstChild_;
  }

  void close(Element const& element) {
    --depth_;
    if (verbatim_ == &element) {
      verbatim_ = nullptr;
    } else {
      newLine();
    }
    text_.append(L"</").append(element.name_->text).append(L">");
  }

  void leaf(TextNode const& node) {
    owner_ = node.parent_;
    std::wstring_view const value(node.GetValue(), node.GetLength());
    switch (node.kind_) {
      case Node::Kind::text:
        // Text of what is indented is blank: layout, which is made anew.
        if (!indented_ || verbatim_ != nullptr) characters(value, kInText);
        break;
      case Node::Kind::cdata:
        enclosed(L"<![CDATA[", value, L"]]>");
        break;
      case Node::Kind::comment:
        newLineUnlessAtTop();
        enclosed(L"<!--", value, L"-->");
        break;
      default:
        newLineUnlessAtTop();
        enclosed(L"<?", value, L"?>");
    }
  }

  void enclosed(std::wstring_view before, std::wstring_view value, std::wstring_view after) {
    text_ += before;
    characters(value, kVerbatim);
    text_ += after;
  }

  void newLine() {
    if (!indented_ || verbatim_ != nullptr) return;
    text_.append(1, L'\n').append(2 * std::min(depth_, kDeepestIndent), L' ');
  }

  /// document() itself puts what is outside the root on lines.
  void newLineUnlessAtTop() {
    if (depth_ > 0) newLine();
  }

  void startTag(Element const& element) {
    owner_ = &element;
    text_ += L'<';
    name(*element.name_);
    for (Node const* node = element.firstAttribute_; node != nullptr; node = node->next_) {
      auto const& attribute = static_cast<Attribute const&>(*node);
      text_ += L' ';
      name(*attribute.name_);
      text_ += L"=\"";
      characters({attribute.GetValue(), attribute.GetLength()}, kInAttribute);
      text_ += L'"';
    }
  }

  void name(Name const& name) {
    if (!name.isXmlName) refuse(L"\"" + std::wstring(name.text) + L"\" is no XML name");
    text_ += name.text;
  }

  void characters(std::wstring_view value, Treatments const& table) {
    std::size_t written = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
      Treatment const treatment = treatmentOf(value[i], table);
      if (treatment == Treatment::plain) continue;
      if (treatment == Treatment::impossible) refuseCharacter(value[i]);
      text_.append(value.substr(written, i - written)).append(referenceTo(value[i]));
      written = i + 1;
    }
    text_ += value.substr(written);
  }

  [[noreturn]] void refuseCharacter(wchar_t c) const {
    refuse(L"character U+" + hexadecimal(c) + L" in element \"" +
           (owner_ != nullptr ? owner_->GetName() : L"") + L"\" cannot be written as XML");
  }

  static bool hasContents(Element const& element) {
    for (Node const* node = element.firstChild_; node != nullptr; node = node->next_) {
      bool const isEmpty = node->kind_ == Node::Kind::text && node->length_ == 0;
      if (!isEmpty) return true;
    }
    return false;
  }

  /// Whether white space among the children is layout: there are elements, and
  /// no text beside them.
  static bool holdsElementsOnly(Element const& element) {
    bool hasElements = false;
    for (Node const* node = element.firstChild_; node != nullptr; node = node->next_) {
      if (node->kind_ == Node::Kind::element) hasElements = true;
      if (node->kind_ == Node::Kind::cdata) return false;
      if (node->kind_ == Node::Kind::text) {
        auto const& text = static_cast<TextNode const&>(*node);
        if (!isBlank({text.GetValue(), text.GetLength()})) return false;
      }
    }
    return hasElements;
  }

  Store const& store_;
  bool indented_;
  std::wstring text_;
  std::size_t depth_ = 0;
  Element const* verbatim_ = nullptr;
  Element const* owner_ = nullptr;
};

std::wstring Document::GenerateXML(bool indented) const {
  if (GetRoot().IsNull()) refuse(L"the document has no root element");
  return Serializer(*store_, indented).document();
}

}  // namespace AdvXMLParser
