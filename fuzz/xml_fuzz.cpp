// A file with arbitrary bytes, all the way: bytes to text, text to tree, tree to
// text and back.
//
// The conversion is checked against iconv, and whatever is parsed against Expat,
// to which the parser may add refusals but no documents. What was parsed can be
// written and read back to the same tree, and indenting twice is indenting once.

#include "fuzz/support.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <expat.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <iconv.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using AdvXMLParser::Attribute;
using AdvXMLParser::Document;
using AdvXMLParser::Element;
using AdvXMLParser::Iterator;
using vrxutil::fuzz::require;

/// A file in memory that can be opened by name.
class MemoryFile {
public:
  MemoryFile() : fd_(::memfd_create("fuzz", MFD_CLOEXEC)) {
    require(fd_ >= 0, "a file in memory is made");
    name_ = L"/proc/self/fd/" + std::to_wstring(fd_);
  }

  ~MemoryFile() { ::close(fd_); }

  MemoryFile(MemoryFile const&) = delete;
  MemoryFile& operator=(MemoryFile const&) = delete;

  std::wstring const& name() const { return name_; }

  void fill(std::string const& bytes) {
    require(::ftruncate(fd_, 0) == 0, "the file is emptied");
    ssize_t const written = ::pwrite(fd_, bytes.data(), bytes.size(), 0);
    require(written == static_cast<ssize_t>(bytes.size()), "the file is written");
  }

private:
  int fd_;
  std::wstring name_;
};

/// Stands for decryption: an encrypted file holds the text with all bits turned.
bool turnBits(std::string const& in, std::string& out) {
  if (in.size() % 7 == 6) return false;
  out = in;
  for (char& c : out) c = static_cast<char>(~c);
  return true;
}

/// Valid UTF-8 as wide text, by iconv. Its WCHAR_T would take more than Unicode.
std::optional<std::wstring> widenedByIconv(std::string bytes) {
  constexpr bool kIsLittle = std::endian::native == std::endian::little;
  iconv_t conversion = ::iconv_open(kIsLittle ? "UTF-32LE" : "UTF-32BE", "UTF-8");
  // NOLINTNEXTLINE(performance-no-int-to-ptr): iconv_open's failure
  require(conversion != reinterpret_cast<iconv_t>(-1), "iconv knows UTF-8");
  std::wstring text(bytes.size(), L'\0');
  char* in = bytes.data();
  std::size_t inLeft = bytes.size();
  char* out = reinterpret_cast<char*>(text.data());
  std::size_t outLeft = text.size() * sizeof(wchar_t);
  std::size_t const result = ::iconv(conversion, &in, &inLeft, &out, &outLeft);
  ::iconv_close(conversion);
  if (result == static_cast<std::size_t>(-1)) return std::nullopt;
  text.resize(text.size() - outLeft / sizeof(wchar_t));
  return text;
}

void checkConversion(std::string const& bytes) {
  std::wstring text = L"as it was";
  auto encoding = AdvXMLParser::UTF_8;
  bool const isValid =
      AdvXMLParser::ConvertBufferToUnicode(bytes.data(), bytes.size(), text, encoding) >= 0;
  bool const hasMark = bytes.starts_with("\xEF\xBB\xBF");
  auto const expected = widenedByIconv(bytes.substr(hasMark ? 3 : 0));
  require(isValid == expected.has_value(), "UTF-8 is valid where iconv says so");
  require(text == expected.value_or(L"as it was"), "UTF-8 reads as iconv reads it");
  if (!isValid) return;
  std::string back;
  require(AdvXMLParser::ConvertBufferToUtf8(text, back, encoding), "what was read can be written");
  require(back == bytes.substr(hasMark ? 3 : 0), "what was read is written as it was");
}

/// Reads the file, both ways.
std::optional<std::wstring> textOfFile(std::string const& bytes) {
  static MemoryFile file;
  file.fill(bytes);
  std::wstring text;
  auto encoding = AdvXMLParser::UTF_8;
  unsigned long size = 0;
  bool const isRead =
      AdvXMLParser::ReadBufferFromFileNoExp(file.name(), text, encoding, &size, turnBits) >= 0;
  std::string utf8;
  auto sameEncoding = AdvXMLParser::UTF_8;
  bool const isReadAgain = AdvXMLParser::ReadUtf8BufferFromFileNoExp(
                               file.name(), utf8, sameEncoding, nullptr, turnBits) >= 0;
  require(isRead == isReadAgain, "a file is read as UTF-8 where it is read as wide text");
  if (!isRead) {
    require(AdvXMLParser::GetLastXmlErrorMessage()[0] != 0, "a failure has its reason");
    return std::nullopt;
  }
  require(size == bytes.size() && encoding == sameEncoding, "size and encoding of the file");
  std::string narrow;
  auto target = AdvXMLParser::UTF_8;
  require(AdvXMLParser::ConvertBufferToUtf8(text, narrow, target), "what was read is Unicode");
  require(narrow == utf8, "both ways of reading give the same text");
  return text;
}

bool expatTakes(std::string const& utf8) {
  struct Deleter {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };

  std::unique_ptr<std::remove_pointer_t<XML_Parser>, Deleter> const parser(
      XML_ParserCreate("UTF-8"));
  return XML_Parse(parser.get(), utf8.data(), static_cast<int>(utf8.size()), /*isFinal=*/1) ==
         XML_STATUS_OK;
}

void checkPosition(AdvXMLParser::ParsingException const& error, std::wstring const& text) {
  // CR LF counts once.
  auto const lineEnds =
      std::count(text.begin(), text.end(), L'\n') + std::count(text.begin(), text.end(), L'\r');
  require(error.GetLine() >= 1 && error.GetLine() <= 1 + static_cast<unsigned long>(lineEnds),
          "the line of an error is one of the text's");
  require(error.GetColumn() >= 1 && error.GetColumn() <= text.size() + 1,
          "the column of an error is in the text");
  require(error.GetErrorMessage()[0] != 0, "a parse error has its reason");
}

/// Null where the text is refused.
std::unique_ptr<Document> parsed(std::wstring const& text) {
  try {
    return std::unique_ptr<Document>(
        AdvXMLParser::Parser().Parse(text.data(), static_cast<int>(text.size())));
  } catch (AdvXMLParser::ParsingException const& error) {
    checkPosition(error, text);
    return nullptr;
  }
}

std::unique_ptr<Document> parsedAgain(std::wstring const& text) {
  auto document = parsed(text);
  require(document != nullptr, "what was written can be read");
  return document;
}

std::wstring textOf(Element const& element) {
  std::wstring text;
  element.AppendTextTo(text);
  return text;
}

void requireSameAttributes(Element const& a, Element const& b) {
  Iterator<Attribute> inB(b);
  for (Iterator<Attribute> inA(a); !inA.AtEnd(); ++inA, ++inB) {
    require(!inB.AtEnd() && std::wstring(inA->GetName()) == inB->GetName() &&
                std::wstring(inA->GetValue()) == inB->GetValue(),
            "an attribute comes back");
  }
  require(inB.AtEnd(), "no attribute is added");
}

/// Compares elements, attributes and, if asked for, texts.
void requireSameTree(Element& a, Element& b, bool withTexts) {
  std::vector<std::pair<Element*, Element*>> open{{&a, &b}};
  while (!open.empty()) {
    auto const [ownA, ownB] = open.back();
    open.pop_back();
    require(std::wstring(ownA->GetName()) == ownB->GetName(), "an element comes back");
    requireSameAttributes(*ownA, *ownB);
    if (withTexts) require(textOf(*ownA) == textOf(*ownB), "the text of an element comes back");
    Iterator<Element> inB(*ownB);
    for (Iterator<Element> inA(*ownA); !inA.AtEnd(); ++inA, ++inB) {
      require(!inB.AtEnd(), "a child comes back");
      open.emplace_back(&*inA, &*inB);
    }
    require(inB.AtEnd(), "no child is added");
  }
}

void checkDocument(Document const& document, std::wstring const& text) {
  std::wstring const plain = document.GenerateXML(/*indented=*/false);
  auto const again = parsedAgain(plain);
  requireSameTree(document.GetRoot(), again->GetRoot(), /*withTexts=*/true);
  require(again->GenerateXML(/*indented=*/false) == plain, "writing again changes nothing");

  std::wstring const indented = document.GenerateXML(/*indented=*/true);
  auto const indentedAgain = parsedAgain(indented);
  requireSameTree(document.GetRoot(), indentedAgain->GetRoot(), /*withTexts=*/false);
  require(indentedAgain->GenerateXML(/*indented=*/true) == indented,
          "indenting again changes nothing");

  // A text with a NUL cannot get here: it is refused.
  AnXml xml;
  require(xml.useString(text.c_str(), nullptr, nullptr, nullptr), "AnXml takes the text too");
  AString written;
  xml.writeString(&written);
  require(written.const_cpp_str() == plain, "AnXml writes the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static vrxutil::fuzz::QuietLogger const logger;
  std::string const bytes(data, data + size);
  checkConversion(bytes);
  auto const text = textOfFile(bytes);
  if (!text) return 0;
  auto const document = parsed(*text);
  if (document == nullptr) return 0;
  std::string utf8;
  auto encoding = AdvXMLParser::UTF_8;
  require(AdvXMLParser::ConvertBufferToUtf8(*text, utf8, encoding), "a document is Unicode");
  require(expatTakes(utf8), "a document is one to Expat, too");
  checkDocument(*document, *text);
  return 0;
}
