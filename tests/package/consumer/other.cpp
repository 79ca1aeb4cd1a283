// A second source with all the headers: what they define stands in both, and the
// linker must be content with that.

#include "other.h"

#include <vrxcomn/configuration.h>
#include <vrxcomn/crypto.h>
#include <vrxcomn/logger.h>
#include <vrxcomn/xml_parser.h>
#include <vrxutil/binary.h>
#include <vrxutil/file.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <string>

namespace {

using vornix_com::oxa::configuration::IConfiguration;
using vornix_com::oxa::logger::ILogger;
using vornix_com::oxa::logger::LogLevel;

class Folders final : public IConfiguration {
public:
  std::wstring GetFrameworkDataDirectory() override { return L"/consumer/framework"; }

  std::wstring GetUpdaterDataDir() override { return L"/consumer/updater"; }
};

class LastRecord final : public ILogger {
public:
  void start() override {}

  void attach(std::wstring const& /*name*/) override {}

  void setMinLogLevel(LogLevel const& /*level*/) override {}

  bool isDetailLoggingEnabled() override { return false; }

  void logMessage(LogLevel const& /*level*/, std::wstring const& group,
                  std::wstring const& message) override {
    text = group + L": " + message;
  }

  std::wstring text;
};

bool canReplaceConfiguration() {
  Folders folders;
  IConfiguration* const before = IConfiguration::SetConfiguration(&folders);
  bool const replaced =
      IConfiguration::GetConfiguration()->GetUpdaterDataDir() == L"/consumer/updater";
  return IConfiguration::SetConfiguration(before) == &folders && replaced;
}

bool canReplaceLogger() {
  LastRecord last;
  ILogger* const before = ILogger::SetLogger(&last);
  logErrorNoStack(L"Consumer", L"heard");
  return ILogger::SetLogger(before) == &last && last.text == L"Consumer: heard";
}

/// An exception is caught by its type only if both sides share the type.
bool canCatchParserErrors() {
  AdvXMLParser::Parser parser;
  try {
    delete parser.Parse(L"<open>", 6);
  } catch (AdvXMLParser::ParsingException const&) {
    return true;
  }
  return false;
}

}  // namespace

bool canReplaceServices() {
  return canReplaceConfiguration() && canReplaceLogger() && canCatchParserErrors();
}
