#include "platform/common/ascii.h"
#include "platform/common/utf8.h"
#include "platform/vrxcomn/xml_store.h"

#include <vrxcomn/xml_parser.h>

#include <expat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace AdvXMLParser {

namespace {

using vrxutil::detail::kMaxUtf8Size;

/// Entities that refer to others. The parser library descends into each.
constexpr int kMostNestedEntities = 64;

/// What entities and default attributes may make of a document: so much at
/// least, or this factor of its own length.
constexpr std::size_t kLeastGrowth = 8U << 20;
constexpr std::size_t kMostGrowth = 10;

/// What a node counts beside its text; no less than what its markup takes when
/// a document spells it out.
constexpr std::size_t kNodeWeight = 4;

/// Characters that are converted at once. The parser library goes over each
/// block but the last once more, to keep count of lines: most documents are to
/// fit in one.
constexpr std::size_t kBlockLength = 2U << 20;

/// What blocks grow to inside a token that does not end: the parser library goes
/// over it from its start with each block. Its buffer may take 1 GiB.
constexpr std::size_t kLongestBlock = 64U << 20;

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

using ParserHandle = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserDeleter>;

/// Interned names by the address at which the parser library hands them out,
/// which repeats for names that repeat.
class NameCache {
public:
  explicit NameCache(NameTable& names) : names_(names) {}

  Name const* intern(char const* utf8) {
    Name const*& cached = cache_[(reinterpret_cast<std::uintptr_t>(utf8) >> 3) % cache_.size()];
    if (cached == nullptr || std::strcmp(cached->utf8.data(), utf8) != 0) {
      cached = names_.intern(utf8, /*isParsed=*/true);
    }
    return cached;
  }

private:
  NameTable& names_;
  std::array<Name const*, 256> cache_{};
};

}  // namespace

/// Builds a tree from the parser library's events.
class TreeBuilder {
public:
  TreeBuilder(Store& store, XML_Parser parser, std::size_t documentLength);

  /// Throws what stopped the parser, if a handler did.
  void rethrow() const;

private:
  template <auto Handler>
  struct Guarded;

  /// A member as a handler of the parser library, which no exception may cross.
  template <class... Arguments, void (TreeBuilder::*Handler)(Arguments...)>
  struct Guarded<Handler> {
    static void call(void* builder, Arguments... arguments) {
      auto& self = *static_cast<TreeBuilder*>(builder);
      if (self.failure_ != nullptr) return;
      try {
        (self.*Handler)(arguments...);
      } catch (...) {
        self.failure_ = std::current_exception();
        XML_StopParser(self.parser_, XML_FALSE);
      }
    }
  };

  void startElement(char const* name, char const** attributes);
  void endElement();
  void characters(char const* text, int size);
  void startCdata();
  void endCdata();
  void comment(char const* text);
  void processingInstruction(char const* target, char const* data);
  void startDoctype(char const* name, char const* systemId, char const* publicId, int hasSubset);
  void entityDeclaration(char const* name, int isParameter, char const* value, int size,
                         char const* base, char const* systemId, char const* publicId,
                         char const* notation);
  void attributeDeclaration(char const* element, char const* attribute, char const* type,
                            char const* defaultValue, int isRequired);
  void skippedEntity(char const* name, int isParameter);
  static int refuseParameterEntities(void* builder);

  void addMarkup(Node::Kind kind, std::string_view utf8);
  void addText(Node::Kind kind, std::string_view utf8);
  void flushText();
  void addAttributes(char const** attributes);

  struct Event {
    std::string_view input;
    std::size_t size = 0;
  };

  Event suspiciousEvent() const;
  void checkReferences(std::string_view markup);
  void grow(std::size_t weight);
  [[noreturn]] void stop(std::wstring message) const;

  Store& store_;
  XML_Parser parser_;
  NameCache names_;
  Element* current_;
  std::size_t depth_ = 0;
  int nestedEntities_ = 0;
  bool inDoctype_ = false;
  bool hasExternalSubset_ = false;
  std::set<std::string, std::less<>> declaredEntities_{"lt", "gt", "amp", "apos", "quot"};
  std::string pendingText_;
  std::size_t size_ = 0;
  std::size_t largestSize_;
  std::exception_ptr failure_;
};

namespace {

unsigned long currentLine(XML_Parser parser) { return XML_GetCurrentLineNumber(parser); }

unsigned long currentColumn(XML_Parser parser) { return XML_GetCurrentColumnNumber(parser) + 1; }

int refuseExternalEntity(XML_Parser /*parser*/, char const* /*context*/, char const* /*base*/,
                         char const* /*systemId*/, char const* /*publicId*/) {
  return XML_STATUS_ERROR;
}

}  // namespace

TreeBuilder::TreeBuilder(Store& store, XML_Parser parser, std::size_t documentLength)
    : store_(store),
      parser_(parser),
      names_(store.names),
      current_(&store.top),
      largestSize_(std::max(kLeastGrowth, documentLength * kMostGrowth)) {
  XML_SetUserData(parser, this);
  XML_SetElementHandler(
      parser, Guarded<&TreeBuilder::startElement>::call,
      [](void* self, char const* /*name*/) { Guarded<&TreeBuilder::endElement>::call(self); });
  XML_SetCharacterDataHandler(parser, Guarded<&TreeBuilder::characters>::call);
  XML_SetCdataSectionHandler(parser, Guarded<&TreeBuilder::startCdata>::call,
                             Guarded<&TreeBuilder::endCdata>::call);
  XML_SetCommentHandler(parser, Guarded<&TreeBuilder::comment>::call);
  XML_SetProcessingInstructionHandler(parser, Guarded<&TreeBuilder::processingInstruction>::call);
  XML_SetStartDoctypeDeclHandler(parser, Guarded<&TreeBuilder::startDoctype>::call);
  XML_SetEntityDeclHandler(parser, Guarded<&TreeBuilder::entityDeclaration>::call);
  XML_SetAttlistDeclHandler(parser, Guarded<&TreeBuilder::attributeDeclaration>::call);
  XML_SetSkippedEntityHandler(parser, Guarded<&TreeBuilder::skippedEntity>::call);
  XML_SetExternalEntityRefHandler(parser, refuseExternalEntity);
  XML_SetNotStandaloneHandler(parser, refuseParameterEntities);
}

void TreeBuilder::rethrow() const {
  if (failure_ != nullptr) std::rethrow_exception(failure_);
}

void TreeBuilder::stop(std::wstring message) const {
  throw ParsingException(currentLine(parser_), currentColumn(parser_), std::move(message));
}

void TreeBuilder::grow(std::size_t weight) {
  size_ += weight;
  if (size_ > largestSize_) stop(L"entities or default attributes expand to too much");
}

void TreeBuilder::startElement(char const* name, char const** attributes) {
  flushText();
  if (depth_ == kDeepestNesting) stop(kTooDeep);
  Event const tag = suspiciousEvent();
  checkReferences(tag.input.substr(0, tag.size));
  Element& element = *store_.newElement(names_.intern(name));
  store_.append(*current_, element);
  current_ = &element;
  ++depth_;
  addAttributes(attributes);
}

void TreeBuilder::addAttributes(char const** attributes) {
  std::size_t weight = kNodeWeight;
  for (; attributes[0] != nullptr; attributes += 2) {
    std::string_view const value = attributes[1];
    weight += kNodeWeight + value.size();
    if (size_ + weight > largestSize_) break;  // grow() reports it
    Attribute& attribute = *store_.newAttribute(names_.intern(attributes[0]));
    store_.append(*current_, attribute);
    store_.setParsedText(attribute, value);
  }
  grow(weight);
}

/// The input from the current event on, and how much of it is the event. Empty
/// where no reference can have been dropped: in a document with a document type
/// that is not loaded, the parser library drops references to entities that
/// might be declared there from attribute values, and tells nobody.
TreeBuilder::Event TreeBuilder::suspiciousEvent() const {
  int offset = 0;
  int available = 0;
  if (!hasExternalSubset_) return {};
  char const* const input = XML_GetInputContext(parser_, &offset, &available);
  if (input == nullptr) return {};
  return {{input + offset, static_cast<std::size_t>(available - offset)},
          static_cast<std::size_t>(XML_GetCurrentByteCount(parser_))};
}

void TreeBuilder::checkReferences(std::string_view markup) {
  for (std::size_t at = markup.find('&'); at != std::string_view::npos; at = markup.find('&')) {
    markup.remove_prefix(at + 1);
    std::string_view const name = markup.substr(0, markup.find(';'));
    if (!name.starts_with('#') && !declaredEntities_.contains(name)) {
      stop(L"entity whose declaration is not here");
    }
  }
}

void TreeBuilder::endElement() {
  flushText();
  current_ = current_->parent_;
  --depth_;
}

void TreeBuilder::characters(char const* text, int size) {
  grow(static_cast<std::size_t>(size));
  pendingText_.append(text, static_cast<std::size_t>(size));
}

void TreeBuilder::flushText() {
  if (pendingText_.empty()) return;
  addText(Node::Kind::text, pendingText_);
  pendingText_.clear();
}

void TreeBuilder::startCdata() { flushText(); }

void TreeBuilder::endCdata() {
  addText(Node::Kind::cdata, pendingText_);
  pendingText_.clear();
}

void TreeBuilder::comment(char const* text) {
  flushText();
  addMarkup(Node::Kind::comment, text);
}

void TreeBuilder::processingInstruction(char const* target, char const* data) {
  flushText();
  std::string instruction(target);
  if (*data != '\0') instruction.append(" ").append(data);
  addMarkup(Node::Kind::pi, instruction);
}

void TreeBuilder::addMarkup(Node::Kind kind, std::string_view utf8) {
  grow(utf8.size());
  addText(kind, utf8);
}

/// For a text whose size has been counted as it came in.
void TreeBuilder::addText(Node::Kind kind, std::string_view utf8) {
  grow(kNodeWeight);
  TextNode& node = *store_.newText(kind);
  store_.append(*current_, node);
  store_.setParsedText(node, utf8);
}

void TreeBuilder::startDoctype(char const* name, char const* systemId, char const* publicId,
                               int /*hasSubset*/) {
  inDoctype_ = true;
  std::string doctype = std::string("<!DOCTYPE ") + name;
  if (systemId != nullptr) {
    hasExternalSubset_ = true;
    char const quote = std::strchr(systemId, '"') == nullptr ? '"' : '\'';
    doctype += publicId != nullptr ? std::string(" PUBLIC \"") + publicId + '"' : " SYSTEM";
    doctype.append(1, ' ').append(1, quote).append(systemId).append(1, quote);
  }
  doctype += '>';
  vrxutil::detail::appendWide(doctype, store_.doctype);
  store_.doctypeFollows = store_.top.lastChild_;
}

/// Called for an external document type, before startDoctype(), which is not
/// loaded, and for references to parameter entities inside a document type.
/// What these might declare would be missing without notice.
int TreeBuilder::refuseParameterEntities(void* builder) {
  return static_cast<TreeBuilder*>(builder)->inDoctype_ ? XML_STATUS_ERROR : XML_STATUS_OK;
}

void TreeBuilder::entityDeclaration(char const* name, int isParameter, char const* value, int size,
                                    char const* /*base*/, char const* /*systemId*/,
                                    char const* /*publicId*/, char const* /*notation*/) {
  if (value == nullptr) return;
  std::string_view const text(value, static_cast<std::size_t>(size));
  bool const isNested = text.find_first_of("&%") != std::string_view::npos;
  if (isNested && ++nestedEntities_ > kMostNestedEntities) {
    stop(L"too many entities refer to others");
  }
  if (!hasExternalSubset_ || isParameter != 0) return;
  checkReferences(text);
  declaredEntities_.emplace(name);
}

void TreeBuilder::attributeDeclaration(char const* /*element*/, char const* /*attribute*/,
                                       char const* /*type*/, char const* defaultValue,
                                       int /*isRequired*/) {
  if (defaultValue == nullptr) return;
  // The event ends where the quoted default begins.
  Event const declaration = suspiciousEvent();
  std::string_view const literal = declaration.input.substr(declaration.size);
  if (literal.empty()) return;
  checkReferences(literal.substr(0, literal.find(literal.front(), 1)));
}

void TreeBuilder::skippedEntity(char const* /*name*/, int /*isParameter*/) {
  stop(L"entity that is declared elsewhere or not at all");
}

namespace {

/// Feeds a wide text to the parser library, block by block.
class WideInput {
public:
  WideInput(XML_Parser parser, std::wstring_view text) : parser_(parser), rest_(text) {}

  /// False where the library found an error or was stopped. Stops early at a
  /// NUL and at a character that is no Unicode scalar value.
  bool feed() {
    do {
      std::wstring_view const block = rest_.substr(0, blockLength_);
      // The parser library takes NUL characters for a sign of UTF-16.
      std::wstring_view const usable = block.substr(0, block.find(L'\0'));
      std::size_t const room = std::max<std::size_t>(1, usable.size()) * kMaxUtf8Size;
      void* const buffer = XML_GetBuffer(parser_, static_cast<int>(room));
      if (buffer == nullptr) return false;
      auto const converted = vrxutil::detail::encodeUtf8(usable, static_cast<char*>(buffer));
      rest_.remove_prefix(converted.read);
      hasInvalid_ = converted.read != block.size();
      if (XML_ParseBuffer(parser_, static_cast<int>(converted.written),
                          /*isFinal=*/rest_.empty()) != XML_STATUS_OK) {
        return false;
      }
      adjustBlockLength();
    } while (!rest_.empty() && !hasInvalid_);
    return true;
  }

  bool hasInvalid() const { return hasInvalid_; }

  /// What feed() did not come to.
  std::size_t restSize() const { return rest_.size(); }

private:
  void adjustBlockLength() {
    XML_Index const token = XML_GetCurrentByteIndex(parser_);
    bool const isSameToken = token == token_;
    token_ = token;
    blockLength_ = isSameToken ? std::min(2 * blockLength_, kLongestBlock) : kBlockLength;
  }

  XML_Parser parser_;
  std::wstring_view rest_;
  std::size_t blockLength_ = kBlockLength;
  XML_Index token_ = -1;  // where what the last block ended in begins
  bool hasInvalid_ = false;
};

/// Line and column of the end of `text`, counted from 1, line ends as XML has
/// them.
std::pair<unsigned long, unsigned long> positionAfter(std::wstring_view text) {
  unsigned long line = 1;
  unsigned long column = 1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool const endsLine =
        text[i] == L'\r' || (text[i] == L'\n' && (i == 0 || text[i - 1] != L'\r'));
    if (endsLine) ++line;
    column = text[i] == L'\r' || text[i] == L'\n' ? 1 : column + 1;
  }
  return {line, column};
}

[[noreturn]] void throwParserError(XML_Parser parser) {
  XML_Error const code = XML_GetErrorCode(parser);
  char const* const reason = XML_ErrorString(code);
  if (code == XML_ERROR_NO_MEMORY || reason == nullptr) throw std::bad_alloc();
  std::wstring message;
  vrxutil::detail::appendWide(reason, message);
  throw ParsingException(currentLine(parser), currentColumn(parser), std::move(message));
}

}  // namespace

Parser::Parser() = default;
Parser::~Parser() = default;

Document* Parser::Parse(wchar_t const* text, int length) {
  std::wstring_view const input(text, static_cast<std::size_t>(std::max(length, 0)));
  // The explicit encoding overrides a declared one.
  ParserHandle const parser(XML_ParserCreate("UTF-8"));
  if (parser == nullptr) throw std::bad_alloc();

  std::unique_ptr<Document> document(new Document);
  TreeBuilder builder(*document->store_, parser.get(), input.size());
  WideInput source(parser.get(), input);
  bool const isParsed = source.feed();
  builder.rethrow();
  if (!isParsed) throwParserError(parser.get());
  if (source.hasInvalid()) {
    auto const [line, column] = positionAfter(input.substr(0, input.size() - source.restSize()));
    throw ParsingException(line, column, L"character that XML does not allow");
  }
  return document.release();
}

}  // namespace AdvXMLParser
