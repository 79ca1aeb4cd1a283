// Trees made at random by the interface, written, read, and compared.

#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/xml/xml_support.h"

#include <vrxutil/xml.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace vrxutil::test {
namespace {

class TreeMaker {
public:
  explicit TreeMaker(std::uint32_t seed) : random_(seed) {}

  /// A document of about `size` elements.
  void make(AnXml& xml, std::size_t size) {
    ASSERT_TRUE(xml.useNew(name().c_str(), nullptr, nullptr));
    std::vector<AnXmlNode> nodes{AnXmlNode(&xml)};
    setSomeValues(nodes[0]);
    while (nodes.size() < size) {
      AnXmlNode added;
      nodes[below(nodes.size())].addChild(&added, name().c_str(), nullptr, nullptr);
      setSomeValues(added);
      nodes.push_back(added);
    }
  }

private:
  // One of 0 to `limit` - 1. The standard's distributions differ between hosts.
  std::size_t below(std::size_t limit) { return random_() % limit; }

  std::wstring name() {
    static constexpr std::wstring_view kFirst = L"abzAZ_\u00e9\u0391\u4e2d";
    static constexpr std::wstring_view kLater = L"az09-._:\u00b7\u00e9\u4e2d";
    std::wstring text(1, kFirst[below(kFirst.size())]);
    for (std::size_t i = below(4); i > 0; --i) text += kLater[below(kLater.size())];
    return text;
  }

  std::wstring value() {
    static constexpr std::wstring_view kAwkward =
        L"<>&\"'\r\n\t ]-?!;#=/%\u00e9\u20ac\x80\x85\u2028\uFFFD\U0001F600\U0010FFFF";
    std::wstring text;
    for (std::size_t i = below(12); i > 0; --i) {
      text += below(2) == 0 ? kAwkward[below(kAwkward.size())]
                            : static_cast<wchar_t>(L' ' + static_cast<wchar_t>(below(95)));
    }
    return text;
  }

  void setSomeValues(AnXmlNode& node) {
    for (std::size_t i = below(4); i > 0; --i) node.setValue(name().c_str(), value().c_str());
    if (below(2) == 0) node.setValue(L"", value().c_str());
  }

  std::mt19937 random_;
};

// Finding the counterpart of a child may take more than one try, and a try that
// fails further down is logged.
void expectSame(AnXmlNode& first, AnXmlNode& second) {
  LogRecorder const log;
  EXPECT_TRUE(first.containsValuesOf(&second));
  EXPECT_TRUE(second.containsValuesOf(&first));
  EXPECT_TRUE(first.containsChildrenOf(&second));
  EXPECT_TRUE(second.containsChildrenOf(&first));
}

void expectSame(AnXml& first, AnXml& second) {
  AnXmlNode firstRoot(&first);
  AnXmlNode secondRoot(&second);
  expectSame(firstRoot, secondRoot);
}

class RandomTreeTest : public testing::TestWithParam<std::uint32_t> {
protected:
  DataFolderScope data_;
  TemporaryFolder folder_;
  std::wstring file_ = folder_.wide("tree.xml");
};

TEST_P(RandomTreeTest, CompactTextReadsBackTheSame) {
  LogRecorder log;
  AnXml xml;
  TreeMaker(GetParam()).make(xml, 200);
  std::wstring const text = written(xml);
  AnXml read;
  ASSERT_TRUE(read.useString(text.c_str(), nullptr, nullptr, nullptr));
  EXPECT_EQ(written(read), text);
  EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
  expectSame(xml, read);
}

TEST_P(RandomTreeTest, FilesReadBackTheSame) {
  for (bool const encrypt : {false, true}) {
    for (bool const generateFlag : {false, true}) {
      LogRecorder log;
      AnXml xml;
      TreeMaker(GetParam()).make(xml, 200);
      ASSERT_TRUE(xml.writeFile(file_.c_str(), encrypt, generateFlag));
      AnXml read;
      ASSERT_TRUE(read.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
      if (!generateFlag) {
        EXPECT_EQ(written(read), written(xml));
      }
      EXPECT_EQ(log.errors(), std::vector<LogRecord>{});
      expectSame(xml, read);
    }
  }
}

TEST_P(RandomTreeTest, IndentingAgainChangesNothing) {
  AnXml xml;
  TreeMaker(GetParam()).make(xml, 200);
  ASSERT_TRUE(xml.writeFile(file_.c_str(), /*encrypt=*/false, /*generateFlag=*/true));
  std::string const once = fileBytes(folder_ / "tree.xml");
  AnXml read;
  ASSERT_TRUE(read.useExistingFile(file_.c_str(), nullptr, nullptr, nullptr));
  ASSERT_TRUE(read.writeFile(file_.c_str(), /*encrypt=*/false, /*generateFlag=*/true));
  EXPECT_EQ(fileBytes(folder_ / "tree.xml"), once);
}

TEST_P(RandomTreeTest, CopiesAreTheSame) {
  AnXml xml;
  TreeMaker(GetParam()).make(xml, 200);
  AnXml copy;
  ASSERT_TRUE(copy.useNew(L"r", nullptr, nullptr));
  AnXmlNode const from(&xml);
  AnXmlNode(&copy).copyAsChild(&from);
  AnXmlNode copied(&copy);
  ASSERT_TRUE(copied.getChildMove(true, nullptr, nullptr, nullptr, nullptr, nullptr));
  AnXmlNode root(&xml);
  expectSame(copied, root);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTreeTest, testing::Range<std::uint32_t>(1, 31));

}  // namespace
}  // namespace vrxutil::test
