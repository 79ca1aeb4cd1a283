#include "linux/call_text.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <vrxutil/xml.h>

#include <cstring>
#include <cwchar>
#include <limits>
#include <memory>
#include <utility>

namespace {

using AdvXMLParser::UTF_ENCODINGS;
using vrxutil::detail::callText;

constexpr wchar_t kGroup[] = L"Xml";
constexpr wchar_t kNoDocument[] = L"No document to write";

/// Logs `message` followed by the parser library's reason.
void logLastXmlError(wchar_t const* message) {
  logError(kGroup, AString(message) << AdvXMLParser::GetLastXmlErrorMessage());
}

/// Logs why reading or converting failed, where it did; returns `success`.
bool checked(bool success) {
  if (!success) logLastXmlError(L"");
  return success;
}

/// The parsed document; null after a failure, which is logged.
AdvXMLParser::Document* parse(std::wstring_view text) {
  AdvXMLParser::Document* document = nullptr;
  try {
    if (text.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max())) {
      document = AdvXMLParser::Parser().Parse(text.data(), static_cast<int>(text.size()));
    }
  } catch (AdvXMLParser::ParsingException const& error) {
    logError(kGroup, AString(L"Parse error line: ")
                         << error.GetLine() << L" column: " << error.GetColumn() << L" "
                         << error.GetErrorMessage());
    return nullptr;
  }
  if (document == nullptr) logError(kGroup, L"Parse failed");
  return document;
}

/// Checks the selectors of the use... operations.
bool rootMatches(AnXmlNode const& root, wchar_t const* rootName, wchar_t const* attributeName,
                 wchar_t const* attributeValue) {
  if (rootName == nullptr) return true;
  if (AString const name = root.getName(); std::wcscmp(name, rootName) != 0) {
    logError(kGroup, AString(L"root node name doesn't match: ") << name);
    return false;
  }
  if (attributeName == nullptr) return true;
  AString value;
  if (!root.getExistingValue(attributeName, &value)) return false;
  if (attributeValue == nullptr || std::wcscmp(value, attributeValue) == 0) return true;
  logError(kGroup, AString(L"attribute value doesn't match: ") << value);
  return false;
}

}  // namespace

AnXml::~AnXml() { close(); }

void AnXml::close() { delete relinquishDocument(); }

AdvXMLParser::Document* AnXml::relinquishDocument() { return std::exchange(document, nullptr); }

bool AnXml::useString(wchar_t const* text, wchar_t const* rootName, wchar_t const* attributeName,
                      wchar_t const* attributeValue) {
  return useText(text == nullptr ? L"" : text, rootName, attributeName, attributeValue);
}

bool AnXml::useText(std::wstring_view text, wchar_t const* rootName, wchar_t const* attributeName,
                    wchar_t const* attributeValue) {
  ADetailTrace const trace(kGroup, callText(L"useString", rootName, attributeName, attributeValue));
  close();
  document = parse(text);
  return document != nullptr &&
         rootMatches(AnXmlNode(document), rootName, attributeName, attributeValue);
}

bool AnXml::useFile(bool reportMissing, wchar_t const* fileName, wchar_t const* rootName,
                    wchar_t const* attributeName, wchar_t const* attributeValue) {
  ADetailTrace const trace(kGroup, callText(L"useExistingFile", fileName));
  std::wstring text;
  return internalReadFile(reportMissing, fileName, text) &&
         useText(text, rootName, attributeName, attributeValue);
}

bool AnXml::tryUseFile(wchar_t const* fileName, wchar_t const* rootName,
                       wchar_t const* attributeName, wchar_t const* attributeValue) {
  return useFile(/*reportMissing=*/false, fileName, rootName, attributeName, attributeValue);
}

bool AnXml::useExistingFile(wchar_t const* fileName, wchar_t const* rootName,
                            wchar_t const* attributeName, wchar_t const* attributeValue) {
  return useFile(/*reportMissing=*/true, fileName, rootName, attributeName, attributeValue);
}

bool AnXml::useFileAlways(wchar_t const* fileName, wchar_t const* rootName,
                          wchar_t const* attributeName, wchar_t const* attributeValue) {
  return tryUseFile(fileName, rootName, attributeName, attributeValue) ||
         useNew(rootName, attributeName, attributeValue);
}

bool AnXml::useNew(wchar_t const* rootName, wchar_t const* attributeName,
                   wchar_t const* attributeValue) {
  ADetailTrace const trace(kGroup, callText(L"useNew", rootName, attributeName, attributeValue));
  if (rootName == nullptr) {
    logError(kGroup, L"Null root node name");
    return false;
  }
  auto fresh = std::make_unique<AdvXMLParser::Document>(rootName);
  if (attributeName != nullptr) AnXmlNode(fresh.get()).setValue(attributeName, attributeValue);
  close();
  document = fresh.release();
  return true;
}

bool AnXml::internalReadFile(bool reportMissing, wchar_t const* fileName, std::wstring& text) {
  ADetailTrace const trace(kGroup, callText(L"ReadBufferFromFileNoExp", fileName));
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  long const result = AdvXMLParser::ReadBufferFromFileNoExp(
      AString(fileName).const_cpp_str(), text, encoding, nullptr, ACryptWrap::decrypt_data);
  if (result == AdvXMLParser::kFileMissing && !reportMissing) return false;
  return checked(result >= 0);
}

bool AnXml::readExistingFile(AString const& fileName, AString& text) {
  return internalReadFile(/*reportMissing=*/true, fileName, text.cpp_str());
}

bool AnXml::readExistingFileUtf8(AString const& fileName, AnObjectBuffer<unsigned char>& bytes) {
  wchar_t const* const name = fileName;
  ADetailTrace const trace(kGroup, callText(L"ReadUtf8BufferFromFileNoExp", name));
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  return checked(AdvXMLParser::ReadUtf8BufferFromFileNoExp(name, bytes.cpp_str(), encoding, nullptr,
                                                           ACryptWrap::decrypt_data) >= 0);
}

bool AnXml::convertUtf8ToUnicode(char const* utf8, AString& text) {
  if (utf8 == nullptr) utf8 = "";
  unsigned long const length = std::strlen(utf8);
  ADetailTrace const trace(kGroup, callText(L"ConvertBufferToUnicode", AString(length)));
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  return checked(AdvXMLParser::ConvertBufferToUnicode(utf8, length, text.cpp_str(), encoding) >= 0);
}

bool AnXml::convertUnicodeToUtf8(wchar_t const* text, AnObjectBuffer<unsigned char>& bytes) {
  ADetailTrace const trace(kGroup, L"ConvertBufferToUtf8");
  UTF_ENCODINGS encoding = AdvXMLParser::UTF_8;
  return checked(
      AdvXMLParser::ConvertBufferToUtf8(text == nullptr ? L"" : text, bytes.cpp_str(), encoding));
}

bool AnXml::writeFile(wchar_t const* fileName, bool encrypt, bool generateFlag) {
  ADetailTrace const trace(kGroup, callText(L"WriteBufferToFile", fileName));
  if (document == nullptr) {
    logInternalError(kGroup, kNoDocument);
    return false;
  }
  try {
    AdvXMLParser::WriteBufferToFile(AString(fileName).const_cpp_str(),
                                    document->GenerateXML(generateFlag), AdvXMLParser::UTF_8,
                                    encrypt ? ACryptWrap::encrypt_data : nullptr, nullptr);
  } catch (AdvXMLParser::ReadWriteException const&) {
    logLastXmlError(L"Exception writing file: ");
    return false;
  }
  return true;
}

void AnXml::writeString(AString* text) {
  if (document == nullptr) return logInternalError(kGroup, kNoDocument);
  if (text == nullptr) return;
  try {
    text->cpp_str() = document->GenerateXML(/*indented=*/false);
  } catch (AdvXMLParser::ReadWriteException const&) {
    logLastXmlError(L"Exception writing string: ");
  }
}
