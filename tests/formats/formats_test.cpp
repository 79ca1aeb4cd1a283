// The worked examples of docs/formats.md, read from the page: the library writes and reads
// what stands there.

#include "tests/lock/lock_support.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/variable_scope.h"

#include <vrxutil/binary.h>
#include <vrxutil/ini.h>
#include <vrxutil/log.h>
#include <vrxutil/system.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>
#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace {

using vrxutil::test::expectInWorld;
using vrxutil::test::expectNothingLeft;
using vrxutil::test::fileBytes;
using vrxutil::test::foreignProcess;
using vrxutil::test::kProject;
using vrxutil::test::makeFile;
using vrxutil::test::ownProcess;
using vrxutil::test::Peer;
using vrxutil::test::TemporaryFolder;
using vrxutil::test::valuesOf;
using vrxutil::test::VariableScope;

using Lines = std::vector<std::string>;

Lines linesOf(std::string const& text) {
  std::istringstream stream(text);
  Lines lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

/// What stands between the heading of a section of the page and the next of any level.
Lines sectionOf(std::string const& heading) {
  Lines const page = linesOf(fileBytes(FORMATS_PAGE));
  auto const begin = std::find(page.begin(), page.end(), heading);
  EXPECT_NE(begin, page.end()) << heading;
  if (begin == page.end()) return {};
  bool isFenced = false;
  auto const end = std::find_if(begin + 1, page.end(), [&isFenced](std::string const& line) {
    if (line.starts_with("```")) isFenced = !isFenced;
    return !isFenced && line.starts_with('#');
  });
  return {begin + 1, end};
}

/// The fenced blocks of a section, each line with its end.
Lines blocksOf(std::string const& heading) {
  Lines blocks;
  bool isInside = false;
  for (std::string const& line : sectionOf(heading)) {
    if (line.starts_with("```")) {
      isInside = !isInside;
      if (isInside) blocks.emplace_back();
    } else if (isInside) {
      blocks.back() += line + "\n";
    }
  }
  return blocks;
}

/// The block of this number from 0 on; empty, and a failure, where there is none.
std::string blockOf(std::string const& heading, std::size_t number) {
  Lines const blocks = blocksOf(heading);
  EXPECT_LT(number, blocks.size()) << heading;
  return number < blocks.size() ? blocks[number] : "";
}

/// Bytes as pairs of digits with blanks between; ends at the first word that is none.
std::string bytesOf(std::string const& text) {
  std::istringstream words(text);
  std::string bytes;
  for (std::string word; words >> word;) {
    unsigned value = 0;
    auto const [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, 16);
    if (word.size() != 2 || error != std::errc() || end != word.data() + word.size()) break;
    bytes += static_cast<char>(value);
  }
  return bytes;
}

/// The bytes of lines "OFFSET  BYTES  |TEXT|", whose other columns must fit.
std::string bytesOfDump(std::string const& dump) {
  std::string bytes;
  for (std::string const& line : linesOf(dump)) {
    EXPECT_EQ(std::stoul(line.substr(0, 8), nullptr, 16), bytes.size()) << line;
    std::string const some = bytesOf(line.substr(8));
    std::string text = "|";
    for (char const byte : some) text += byte >= ' ' && byte <= '~' ? byte : '.';
    EXPECT_TRUE(line.ends_with(text + "|")) << line;
    bytes += some;
  }
  return bytes;
}

/// A data folder of the test's own, with the key that the page names.
class FormatsTest : public testing::Test {
protected:
  FormatsTest() : dataFolder_("VRX_DATA_DIR", folder.path()) {
    std::filesystem::create_directory(folder / "keys");
    std::string key;
    for (char byte = 0; byte < 32; ++byte) key += byte;
    makeFile(folder / "keys/type3.key", key);
    std::filesystem::permissions(folder / "keys/type3.key", std::filesystem::perms(0600));
  }

  TemporaryFolder folder;

private:
  VariableScope dataFolder_;
};

TEST_F(FormatsTest, LogLine) {
  std::string const line = blockOf("## Log lines", 0);
  setupLog(L"formats", nullptr, false, /*alreadyAttached=*/false);
  logErrorNoStack(L"Xml", L"root node missing");
  static std::regex const kHead(
      "^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[-+][0-9]{2}:[0-9]{2} "
      "[0-9]+/[0-9]+ ");
  EXPECT_TRUE(std::regex_search(line, kHead)) << line;
  EXPECT_EQ(std::regex_replace(fileBytes(folder / "log/formats.log"), kHead, ""),
            std::regex_replace(line, kHead, ""));
}

TEST_F(FormatsTest, XmlFile) {
  AnXml document;
  ASSERT_TRUE(document.useNew(L"agent", L"version", L"1.0"));
  AnXmlNode root(&document);
  AnXmlNode task;
  root.addChild(&task, L"task", L"name", L"backup");
  task.setValue(L"", L"daily");
  root.addChild(nullptr, L"task", L"name", L"a < b");
  AString const name = folder.wide("file").c_str();
  ASSERT_TRUE(document.writeFile(name, /*encrypt=*/false, /*generateFlag=*/true));
  EXPECT_EQ(fileBytes(folder / "file"), blockOf("## XML files", 0));
  ASSERT_TRUE(document.writeFile(name, /*encrypt=*/false, /*generateFlag=*/false));
  EXPECT_EQ(fileBytes(folder / "file") + "\n", blockOf("## XML files", 1));
}

TEST_F(FormatsTest, EncryptedXmlFile) {
  std::string const bytes = bytesOfDump(blockOf("## Ciphertext of encryption type 3", 0));
  ASSERT_EQ(bytes.size(), 53U);
  makeFile(folder / "file", bytes);
  AnObjectBuffer<unsigned char> plain("");
  ASSERT_TRUE(AnXml::readExistingFileUtf8(folder.wide("file").c_str(), plain));
  EXPECT_EQ(plain.cpp_str(), "<a/>");
  std::string text;
  EXPECT_TRUE(ACryptWrap::decrypt_data(bytes.substr(8), text));
  EXPECT_EQ(text, "<a/>");
}

TEST_F(FormatsTest, EncryptedXmlFileOfTheLibraryDiffersInWhatIsRandom) {
  std::string const bytes = bytesOfDump(blockOf("## Ciphertext of encryption type 3", 0));
  AnXml document;
  ASSERT_TRUE(document.useString(L"<a/>", nullptr, nullptr, nullptr));
  ASSERT_TRUE(document.writeFile(folder.wide("file").c_str(), /*encrypt=*/true,
                                 /*generateFlag=*/false));
  std::string const written = fileBytes(folder / "file");
  EXPECT_EQ(written.size(), bytes.size());
  EXPECT_EQ(written.substr(0, 9), bytes.substr(0, 9));
}

TEST_F(FormatsTest, IniFile) {
  makeFile(folder / "file", blockOf("### Example", 0));
  AnIni2 ini(folder.wide("file").c_str());
  ASSERT_TRUE(ini.parsed());
  AnIni2::SectionMap sections;
  ASSERT_TRUE(ini.getIniMap(sections));
  AnIni2::SectionMap const expected{{L"", {{L"size", L"1 MB"}}},
                                    {L"log", {{L"level", L"2 ; not a comment"}}},
                                    {L"net", {{L"host", L""}, {L"port", L"81"}}}};
  EXPECT_EQ(sections, expected);
  ini.open(folder.wide("file").c_str());
  ini.set(L"net", L"port", L"82");
  ini.close();
  EXPECT_EQ(fileBytes(folder / "file"), blockOf("### Example", 1));
  EXPECT_FALSE(ini.open(folder.wide("file").c_str()));
}

/// What a block means that writes its line ends out.
std::string withLineEnds(std::string const& block) {
  std::string text;
  for (std::string line : linesOf(block)) {
    constexpr std::string_view kEnd = "CR LF";
    if (line.ends_with(kEnd)) line.replace(line.size() - kEnd.size(), kEnd.size(), "\r\n");
    std::size_t const blank = line.rfind(" \r\n");
    text += blank == std::string::npos ? line : line.erase(blank, 1);
  }
  return text;
}

TEST_F(FormatsTest, ProfileFile) {
  std::string const before = withLineEnds(blockOf("### Changing", 0));
  EXPECT_TRUE(before.ends_with("[log]\r\nlevel=1")) << before;
  makeFile(folder / "file", before);
  std::wstring const path = folder.wide("file");
  EXPECT_TRUE(ZuDB_WritePrivateProfileStringW(L"net", L"port", L"8080", path.c_str()));
  EXPECT_TRUE(ZuDB_WritePrivateProfileStringW(L"net", L"host", L"a", path.c_str()));
  EXPECT_TRUE(ZuDB_WritePrivateProfileStringW(L"log", L"size", L"2", path.c_str()));
  EXPECT_EQ(fileBytes(folder / "file"), withLineEnds(blockOf("### Changing", 1)));
}

/// The bytes of the line of the block that begins with `order`.
std::string binaryExample(std::string const& order) {
  for (std::string const& line : linesOf(blockOf("## Binary records", 0))) {
    if (line.starts_with(order)) return bytesOf(line.substr(order.size()));
  }
  return "";
}

TEST_F(FormatsTest, BinaryRecord) {
  for (bool const isLittleEndian : {true, false}) {
    std::string bytes = binaryExample(isLittleEndian ? "little-endian" : "big-endian");
    EXPECT_EQ(bytes.size(), 10U);
    std::string written(bytes.size(), '\xFF');
    ABinaryStream stream(reinterpret_cast<unsigned char*>(written.data()), written.size(),
                         isLittleEndian);
    stream.writeLong(0x01020304);
    stream.writeShort(0x0506);
    stream.writeChar('A');
    stream.writeString(3, L"ab");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_FALSE(stream.pastEndError());
    EXPECT_EQ(written, bytes);

    stream =
        ABinaryStream(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), isLittleEndian);
    std::string text;
    EXPECT_EQ(stream.readLong(), 0x01020304U);
    EXPECT_EQ(stream.readShort(), 0x0506U);
    EXPECT_EQ(stream.readChar(), 'A');
    stream.readString(3, text);
    EXPECT_EQ(text, "ab");
  }
}

#ifdef AGENT_PROGRAM

TEST_F(FormatsTest, ResultsOfTheSampleAgent) {
  makeFile(folder / "results.bin", bytesOfDump(blockOf("### Results of the sample agent", 0)));
  std::string const command = "LC_ALL=C '" AGENT_PROGRAM "' --results >'" + (folder / "out") + "'";
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::string const output = fileBytes(folder / "out");
  EXPECT_TRUE(
      output.starts_with("Results of 2026-11-21T05:00:00Z\n"
                         "  set       a.xml          done      set b=c\n"))
      << output;
}

#endif

/// The two cells of each row of a section's table of this number, without their quotes.
std::vector<std::pair<std::string, std::string>> tableOf(std::string const& heading,
                                                         std::size_t number) {
  static std::regex const kRow("^\\|(.*)\\|(.*)\\|$");
  static std::regex const kQuotes("^ *`?|`? *$");
  std::vector<std::vector<std::pair<std::string, std::string>>> tables;
  bool isInside = false;
  for (std::string const& line : sectionOf(heading)) {
    std::smatch cells;
    bool const isRow = std::regex_match(line, cells, kRow);
    if (isRow && !isInside) tables.emplace_back();
    isInside = isRow;
    if (isRow) {
      tables.back().emplace_back(std::regex_replace(cells.str(1), kQuotes, ""),
                                 std::regex_replace(cells.str(2), kQuotes, ""));
    }
  }
  EXPECT_LT(number, tables.size());
  if (number >= tables.size()) return {};
  constexpr std::ptrdiff_t kHead = 2;
  return {tables[number].begin() + kHead, tables[number].end()};
}

TEST_F(FormatsTest, Base64OfBytes) {
  auto const rows = tableOf("## Base64", 0);
  EXPECT_EQ(rows.size(), 5U);
  for (auto const& [bytes, text] : rows) {
    AString const encoded = ABase64Encode::encode(AnObjectBuffer<unsigned char>(bytesOf(bytes)));
    EXPECT_EQ(encoded.const_cpp_str(), std::wstring(text.begin(), text.end()));
  }
}

TEST_F(FormatsTest, BytesOfBase64) {
  auto const rows = tableOf("## Base64", 1);
  EXPECT_EQ(rows.size(), 6U);
  for (auto const& [text, bytes] : rows) {
    EXPECT_EQ(ABase64Encode::decode(text.c_str()).cpp_str(), bytesOf(bytes)) << text;
  }
}

/// The key that the page tells for an inode and a device.
unsigned keyOf(std::uint64_t inode, std::uint64_t device) {
  return static_cast<unsigned>(0x99U << 24 | (device & 0xff) << 16 | (inode & 0xffff));
}

TEST_F(FormatsTest, KeyOfALock) {
  struct stat status {};

  ASSERT_EQ(::stat(folder.path().c_str(), &status), 0);
  EXPECT_EQ(std::bit_cast<unsigned>(::ftok(folder.path().c_str(), kProject)),
            keyOf(status.st_ino, status.st_dev));

  std::string text;
  for (std::string const& line : sectionOf("## Named locks")) text += line + " ";
  std::smatch found;
  static std::regex const kExample(
      "inode ([0-9]+) on device (0x[0-9a-f]+) has the key (0x[0-9a-f]+)");
  ASSERT_TRUE(std::regex_search(text, found, kExample));
  auto const number = [&found](std::size_t group) {
    return std::stoul(found.str(group), nullptr, 0);
  };
  EXPECT_EQ(keyOf(number(1), number(2)), number(3));
  EXPECT_NE(text.find("`0x99 << 24 | (st_dev & 0xff) << 16 | (st_ino & 0xffff)`"),
            std::string::npos);
}

/// Goes through the example with two processes, `a` and `b`.
void expectExampleOfLocks(Peer& a, Peer& b) {
  Lines const steps = linesOf(blockOf("## Named locks", 0));
  EXPECT_EQ(steps.size(), 14U);
  for (std::string const& step : steps) {
    SCOPED_TRACE(step);
    std::istringstream words(step);
    std::string who;
    std::string verb;
    std::string values;
    words >> who >> verb >> std::ws;
    std::getline(words, values);
    std::size_t const remark = values.find("   refused");
    bool const isRefused = remark != std::string::npos;
    if (isRefused) values.resize(remark);
    if (verb == "killed") {
      (who == "A" ? a : b).kill();
    } else {
      std::string const command = verb == "attach" ? "attach example" : verb;
      EXPECT_EQ((who == "A" ? a : b).ask(command), isRefused ? "no" : "ok");
    }
    std::string now;
    for (int const value : valuesOf("example")) {
      now += now.empty() ? "" : " ";
      now += std::to_string(value);
    }
    EXPECT_EQ(now.empty() ? "none" : now, values);
  }
}

TEST_F(FormatsTest, StepsOfALock) {
  expectInWorld([] {
    Peer own = ownProcess();
    Peer foreign = foreignProcess();
    expectExampleOfLocks(own, foreign);
    expectNothingLeft();
  });
}

TEST_F(FormatsTest, StepsOfALockAsOthersTakeThem) {
  expectInWorld([] {
    Peer foreign = foreignProcess();
    Peer own = ownProcess();
    expectExampleOfLocks(foreign, own);
    expectNothingLeft();
  });
}

}  // namespace
