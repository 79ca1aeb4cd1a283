// vrxtool host.

#include "tests/tools/tool_support.h"

#include <vrxutil/system.h>
#include <zulral/zulral.h>

#include <array>
#include <string>

#include <unistd.h>

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

class HostCommandTest : public ToolTest {};

/// The host's model, as the runtime layer has it.
std::string model() {
  std::array<char, 256> text{};
  std::size_t size = text.size();
  bool const isKnown = ::sysctlbyname("hw.model", text.data(), &size, nullptr, 0) == 0;
  return isKnown ? text.data() : "";
}

std::string hostName() {
  std::array<char, 256> name{};
  ::gethostname(name.data(), name.size() - 1);
  std::string const text = name.data();
  return text.substr(0, text.find('.'));
}

std::string portable(char const* yes, char const* no) {
  bool isPortable = false;
  CEnclosureType::iIsAPortableComputer(isPortable);
  return isPortable ? yes : no;
}

TEST_F(HostCommandTest, ShowsModelKindAndShortName) {
  ToolResult const result = run("host");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result, done("model: " + (model().empty() ? "unknown" : model()) +
                         "\nportable: " + portable("yes", "no") + "\nname: " + hostName() + "\n"));
}

// Of another host, where mounts of one's own are allowed.
TEST_F(HostCommandTest, TheModelIsThatOfTheFirmware) {
  file("firmware",
       "mount -t tmpfs none /sys/class && mkdir -p /sys/class/dmi/id &&\n"
       "printf %s \"$1\" >/sys/class/dmi/id/product_name &&\n"
       "echo $2 >/sys/class/dmi/id/chassis_type && vrxtool host $3\n");
  auto const host = [this](std::string const& model, std::string const& arguments) {
    return shell("unshare -r --mount sh firmware '" + model + "' " + arguments);
  };
  if (host("x", "3").status != 0) GTEST_SKIP() << "the host allows no mounts";
  std::string const name = "name: " + hostName() + "\n";
  EXPECT_EQ(host("Tower 5", "3"), done("model: Tower 5\nportable: no\n" + name));
  EXPECT_EQ(host("Latitude", "10"), done("model: Latitude (notebook)\nportable: yes\n" + name));
  EXPECT_TRUE(host("Tower 5", "3 --json").output.starts_with("{\n  \"model\": \"Tower 5\",\n"));
}

// Of another host, where a name of one's own is allowed.
TEST_F(HostCommandTest, TheNameEndsAtItsFirstDot) {
  constexpr char kHost[] = "unshare -r --uts -- sh -c 'hostname \"$0\" && vrxtool host' ";

  struct {
    char const* name;
    char const* shown;
  } constexpr kRows[] = {{"box.example.org", "box"}, {"box", "box"}, {"10.0.0.7", "10.0.0.7"}};

  if (shell(std::string(kHost) + "x").status != 0) GTEST_SKIP() << "the host keeps its name";
  for (auto const& [name, shown] : kRows) {
    std::string const output = shell(std::string(kHost) + name).output;
    EXPECT_EQ(output.substr(output.find("name:")), "name: " + std::string(shown) + "\n");
  }
}

TEST_F(HostCommandTest, AsJson) {
  ToolResult const result = run("host --json");
  EXPECT_EQ(result.status, 0);
  std::string const shown = model().empty() ? "null" : '"' + model() + '"';
  EXPECT_TRUE(result.output.starts_with("{\n  \"model\": " + shown + ",\n"));
  std::size_t const rest = result.output.find(",\n") + 2;
  EXPECT_EQ(result.output.substr(rest), "  \"portable\": " + portable("true", "false") +
                                            ",\n  \"name\": \"" + hostName() + "\"\n}\n");
}

TEST_F(HostCommandTest, FailuresAreReported) {
  EXPECT_EQ(run("host >/dev/full"), failed(kDiskFull));
  EXPECT_EQ(run("host >&-"), failed(kOutputClosed));
  EXPECT_EQ(run("host x"), failed("The following argument was not expected: x; try --help"));
}

}  // namespace
