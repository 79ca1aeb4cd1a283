#include "bench/xml_documents.h"

#include <expat.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <type_traits>

namespace vrxutil::bench {

namespace {

constexpr std::size_t kConfigurationSize = 1 << 20;

/// Numbers that look random and are the same in each run (Knuth's MMIX).
class Sequence {
public:
  std::size_t below(std::size_t limit) {
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    return static_cast<std::size_t>(state_ >> 33) % limit;
  }

  template <std::size_t Size>
  std::string_view oneOf(std::array<std::string_view, Size> const& texts) {
    return texts[below(Size)];
  }

private:
  std::uint64_t state_ = 1;
};

constexpr std::array<std::string_view, 5> kKinds{"backup", "inventory", "update", "report",
                                                 "cleanup"};
constexpr std::array<std::string_view, 4> kDescriptions{
    "Copies the accounts of the finance group to the archive",
    "Lists installed software &amp; licences, once a night",
    "Removes what has not been read for ninety days",
    "Sends the week's summary to the operators on duty"};
constexpr std::array<std::string_view, 4> kCommands{
    "/usr/local/sbin/agent-run --quiet --report", "/usr/sbin/softwareupdate -l",
    "/usr/bin/find /var/tmp -mtime +90 -delete", "/usr/local/sbin/collect --all"};
constexpr std::array<std::string_view, 4> kUsers{"root", "backup", "_www", "nobody"};
constexpr std::array<std::string_view, 6> kOptions{"compress", "timeout", "notify",
                                                   "retries",  "limit",   "user"};
constexpr std::array<std::string_view, 6> kValues{"yes", "no",    "300", "operators@example.org",
                                                  "5",   "backup"};

class ConfigurationText {
public:
  std::string make() {
    text_ =
        R"(<?xml version="1.0" encoding="UTF-8"?>
<agent version="4.2.1" host="node-17">
  <!-- written by the console; changes are overwritten -->
  <tasks>
)";
    while (text_.size() < kConfigurationSize) task("    ", /*nesting=*/0);
    return text_ + "  </tasks>\n</agent>\n";
  }

private:
  // NOLINTNEXTLINE(misc-no-recursion): at most three levels deep
  void task(std::string const& indent, int nesting) {
    auto const number = std::to_string(++tasks_);
    start(indent, "task");
    attribute("name", "task-" + number);
    attribute("kind", sequence_.oneOf(kKinds));
    attribute("enabled", sequence_.below(4) != 0 ? "true" : "false");
    attribute("priority", digits(10));
    endLine(">");
    std::string const inner = indent + "  ";
    start(inner, "description");
    endLine(">", sequence_.oneOf(kDescriptions), "</description>");
    start(inner, "schedule");
    attribute("minute", digits(60));
    attribute("hour", digits(24));
    attribute("day", "*");
    attribute("retries", digits(4));
    endLine("/>");
    start(inner, "target");
    attribute("path", "/Volumes/archive/accounts-" + number);
    attribute("mode", "0640");
    endLine("/>");
    start(inner, "command");
    attribute("user", sequence_.oneOf(kUsers));
    endLine(">", sequence_.oneOf(kCommands), "</command>");
    options(inner);
    if (nesting < 2 && sequence_.below(3) == 0) task(inner, nesting + 1);
    endLine(indent, "</task>");
  }

  void options(std::string const& indent) {
    endLine(indent, "<options>");
    for (std::size_t left = sequence_.below(5); left > 0; --left) {
      start(indent + "  ", "option");
      attribute("name", sequence_.oneOf(kOptions));
      attribute("value", sequence_.oneOf(kValues));
      endLine("/>");
    }
    endLine(indent, "</options>");
  }

  void start(std::string_view indent, std::string_view name) {
    text_.append(indent).append("<").append(name);
  }

  void attribute(std::string_view name, std::string_view value) {
    text_.append(" ").append(name).append(R"(=")").append(value).append(R"(")");
  }

  template <class... Texts>
  void endLine(Texts const&... texts) {
    (text_.append(texts), ...);
    text_.append("\n");
  }

  std::string digits(std::size_t limit) { return std::to_string(sequence_.below(limit)); }

  std::string text_;
  Sequence sequence_;
  std::size_t tasks_ = 0;
};

void startElement(void* /*data*/, XML_Char const* /*name*/, XML_Char const** /*attributes*/) {}

void endElement(void* /*data*/, XML_Char const* /*name*/) {}

void characters(void* /*data*/, XML_Char const* /*text*/, int /*size*/) {}

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

}  // namespace

std::string const& configuration() {
  static std::string const text = ConfigurationText().make();
  return text;
}

std::string taskName(std::size_t number) {
  std::string digits = std::to_string(number);
  return "task-" + digits.insert(0, 5 - std::min<std::size_t>(digits.size(), 5), '0');
}

std::string taskList(std::size_t count) {
  std::string text = "<tasks>";
  for (std::size_t i = 0; i < count; ++i) {
    text.append(R"(<task name=")").append(taskName(i)).append(R"(" enabled="true"/>)");
  }
  return text + "</tasks>";
}

void readEvents(std::size_t blockSize) {
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserDeleter> const parser(
      XML_ParserCreate("UTF-8"));
  XML_SetElementHandler(parser.get(), startElement, endElement);
  XML_SetCharacterDataHandler(parser.get(), characters);
  std::string_view rest = configuration();
  while (!rest.empty()) {
    std::string_view const block = rest.substr(0, blockSize);
    rest.remove_prefix(block.size());
    XML_Status const status = XML_Parse(parser.get(), block.data(), static_cast<int>(block.size()),
                                        /*isFinal=*/rest.empty());
    if (status != XML_STATUS_OK) std::abort();  // the document is our own
  }
}

}  // namespace vrxutil::bench
