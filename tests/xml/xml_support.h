// What the tests of the XML family share: documents as text, and the records
// that the operations leave.

#pragma once

#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/variable_scope.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vrxutil::test {

using OptionalText = std::optional<std::wstring>;

/// Empties the holder; what it held, as compact text, or nothing.
inline OptionalText takeDocument(AnXml& xml) {
  std::unique_ptr<AdvXMLParser::Document> const document(xml.relinquishDocument());
  if (document == nullptr) return std::nullopt;
  return document->GenerateXML(/*indented=*/false);
}

/// The document as compact text.
inline std::wstring written(AnXml& xml) {
  AString text;
  xml.writeString(&text);
  return text.const_cpp_str();
}

/// Puts a document into the holder; fails the test where that fails.
inline void load(AnXml& xml, std::wstring const& text) {
  EXPECT_TRUE(xml.useString(text.c_str(), nullptr, nullptr, nullptr));
}

/// A holder of the document `text`.
class LoadedXml : public AnXml {
public:
  explicit LoadedXml(std::wstring const& text) { load(*this, text); }
};

/// The child of `parent` called `name`; fails the test where there is none.
inline AnXmlNode child(AnXmlNode const& parent, wchar_t const* name) {
  AnXmlNode found;
  EXPECT_TRUE(parent.tryGetChild(&found, name, nullptr, nullptr, nullptr, nullptr))
      << testing::PrintToString(std::wstring(name));
  return found;
}

/// A value of `node`, or nothing.
inline OptionalText value(AnXmlNode const& node, wchar_t const* name) {
  AString text;
  if (!node.tryGetValue(name, &text)) return std::nullopt;
  return text.const_cpp_str();
}

/// Names of the element children, in order.
inline std::vector<std::wstring> childNames(AnXmlNode const& parent) {
  std::vector<std::wstring> names;
  AnXmlChildIndex index(&parent, nullptr);
  while (index.moveNext(nullptr, nullptr)) names.push_back(index.getName().const_cpp_str());
  return names;
}

/// The records of one logError() inside scopes under "Xml", outermost first.
inline std::vector<LogRecord> errorInScopes(std::wstring const& group,
                                            std::vector<std::wstring> const& scopes,
                                            std::wstring const& message) {
  std::vector<LogRecord> records{errorRecord(group, L"Error trace:")};
  for (std::wstring const& scope : scopes) {
    records.push_back(errorRecord(L"Xml", L" [" + scope + L"]->"));
  }
  records.push_back(errorRecord(group, L"  " + message));
  return records;
}

/// The detail records of scopes under "Xml" that were opened in this order.
inline std::vector<LogRecord> openedScopes(std::vector<std::wstring> const& scopes) {
  std::vector<LogRecord> records;
  records.reserve(scopes.size());
  for (std::wstring const& scope : scopes) records.push_back(detailRecord(L"Xml", scope));
  return records;
}

inline std::vector<LogRecord> operator+(std::vector<LogRecord> first,
                                        std::vector<LogRecord> const& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

/// The one record that an internal error leaves.
inline std::vector<LogRecord> internalError(std::wstring const& group,
                                            std::wstring const& message) {
  return {errorRecord(group, L"internal error: " + message)};
}

/// The one record of an operation on a cursor that stands on none.
inline std::vector<LogRecord> uninitializedNode() {
  return internalError(L"XmlNode", L"Used uninitialized node");
}

/// Whether `records` is a single internal error of that group, whatever it says.
inline testing::AssertionResult isOneInternalError(std::vector<LogRecord> const& records,
                                                   std::wstring const& group) {
  std::wstring const prefix = L"internal error: ";
  if (records.size() == 1 && records[0].group == group && records[0].message.starts_with(prefix) &&
      records[0].message.size() > prefix.size() &&
      records[0].level == vornix_com::oxa::logger::LogLevel::error) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << testing::PrintToString(records);
}

/// Where and why, out of "Parse error line: N column: M MESSAGE".
struct ParseError {
  unsigned long line;
  unsigned long column;
  std::wstring message;
};

inline std::optional<ParseError> parseErrorIn(LogRecord const& record) {
  std::wstring_view rest = record.message;
  auto const skip = [&rest](std::wstring_view expected) {
    bool const fits = rest.starts_with(expected);
    if (fits) rest.remove_prefix(expected.size());
    return fits;
  };
  auto const number = [&rest] {
    std::size_t const length = std::min(rest.find_first_not_of(L"0123456789"), rest.size());
    std::wstring const digits(rest.substr(0, length));
    rest.remove_prefix(length);
    return digits.empty() ? 0 : std::stoul(digits);  // both count from 1
  };
  if (record.group != L"Xml" || !skip(L"Parse error line: ")) return std::nullopt;
  unsigned long const line = number();
  if (line == 0 || !skip(L" column: ")) return std::nullopt;
  unsigned long const column = number();
  if (column == 0 || !skip(L" ") || rest.empty() || rest.front() == L' ') return std::nullopt;
  return ParseError{line, column, std::wstring(rest)};
}

/// The parse error that is the only error of `log`; fails the test where it is
/// not, and gives line and column 0 then.
inline ParseError onlyParseError(LogRecorder const& log) {
  std::vector<LogRecord> const errors = log.plainErrors();
  EXPECT_EQ(errors.size(), 1U) << testing::PrintToString(errors);
  if (errors.size() != 1) return {0, 0, L""};
  std::optional<ParseError> const error = parseErrorIn(errors[0]);
  EXPECT_TRUE(error.has_value()) << testing::PrintToString(errors[0]);
  return error.value_or(ParseError{0, 0, L""});
}

/// Fails the test unless the only error of `log` stands at this place.
inline void expectParseErrorAt(LogRecorder const& log, unsigned long line, unsigned long column) {
  ParseError const error = onlyParseError(log);
  EXPECT_EQ(error.line, line);
  EXPECT_EQ(error.column, column);
}

/// Fails the test unless `log` has one error, under "Xml", with the last message
/// of the parser library.
inline void expectLibraryError(LogRecorder const& log) {
  std::wstring const message = AdvXMLParser::GetLastXmlErrorMessage();
  EXPECT_FALSE(message.empty());
  EXPECT_EQ(log.plainErrors(), std::vector{errorRecord(L"Xml", message)});
}

/// A framework data folder of the test's own, where the encryption key goes.
class DataFolderScope {
  TemporaryFolder folder_;
  VariableScope variable_{"VRX_DATA_DIR", folder_.path()};
};

/// Names of the entries of a folder, sorted.
inline std::vector<std::string> entries(std::string const& folder) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace vrxutil::test
