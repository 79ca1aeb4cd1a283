// vrxtool base64.

#include "tests/support/own_malloc.h"
#include "tests/tools/tool_support.h"

#include <filesystem>

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

class Base64CommandTest : public ToolTest {
protected:
  /// A file of so many zero bytes, which takes no room.
  void bigFile(std::uintmax_t size) const {
    file("big", "");
    std::filesystem::resize_file(folder / "big", size);
  }
};

struct Pair {
  char const* bytes;
  char const* text;
};

// RFC 4648, section 10.
constexpr Pair kPairs[] = {{"", ""},
                           {"f", "Zg=="},
                           {"fo", "Zm8="},
                           {"foo", "Zm9v"},
                           {"foob", "Zm9vYg=="},
                           {"fooba", "Zm9vYmE="},
                           {"foobar", "Zm9vYmFy"}};

TEST_F(Base64CommandTest, EncodesToOneLine) {
  for (auto const& [bytes, text] : kPairs) {
    std::string const line = *text == '\0' ? "" : std::string(text) + "\n";
    EXPECT_EQ(runOn(bytes, "base64 encode"), done(line));
  }
}

TEST_F(Base64CommandTest, Decodes) {
  for (auto const& [bytes, text] : kPairs) {
    EXPECT_EQ(runOn(text, "base64 decode -"), done(bytes));
  }
  EXPECT_EQ(runOn(" Zm\r\n9v\tYg==\n", "base64 decode"), done("foob"));
}

TEST_F(Base64CommandTest, TakesFiles) {
  file("in", "foob");
  EXPECT_EQ(run("base64 encode in"), done("Zm9vYg==\n"));
  file("text", "Zm9vYg==\n");
  EXPECT_EQ(run("base64 decode text"), done("foob"));
}

TEST_F(Base64CommandTest, AnySizeComesBack) {
  for (int const size : {196607, 196608, 196609, 262143, 262144, 262145, 1000001}) {
    std::string const count = std::to_string(size);
    EXPECT_EQ(shell("head -c " + count +
                    " /dev/urandom >in\n"
                    "vrxtool base64 encode in >text && vrxtool base64 decode text | cmp - in\n"
                    "base64 -w0 in >expected; echo >>expected; cmp text expected"),
              done())
        << size;
  }
}

TEST_F(Base64CommandTest, PiecesFromAPipeAreOneText) {
  ASSERT_EQ(shell("head -c 300001 /dev/urandom >in; base64 -w0 in >text; echo >>text"), done());
  for (std::string const size : {"1", "2", "3", "5", "4096", "70001"}) {
    EXPECT_EQ(shell("dd if=in status=none bs=" + size +
                    " | vrxtool base64 encode | cmp - text\n"
                    "dd if=text status=none bs=" +
                    size + " | vrxtool base64 decode | cmp - in"),
              done())
        << size;
  }
  EXPECT_EQ(shell("{ printf f; printf oob; } | vrxtool base64 encode"), done("Zm9vYg==\n"));
  EXPECT_EQ(shell("{ printf Z; printf m9vYg==; } | vrxtool base64 decode"), done("foob"));
}

TEST_F(Base64CommandTest, GarbageIsAFailure) {
  constexpr char kHint[] = "; --ignore-garbage leaves it out";
  EXPECT_EQ(runOn("Zm9v!Yg==", "base64 decode"),
            failed(std::string("standard input: no Base64 at byte 4") + kHint));
  EXPECT_EQ(runOn("Zm9v!Yg==", "base64 decode --ignore-garbage"), done("foob"));
  file("in", std::string(300000, 'A') + '\0');
  EXPECT_EQ(run("base64 decode in >/dev/null"),
            failed(std::string("in: no Base64 at byte 300000") + kHint));
}

TEST_F(Base64CommandTest, PaddingStandsAtTheEndOfAGroup) {
  constexpr char kHint[] = "; --ignore-garbage leaves it out";

  struct {
    char const* text;
    int offset;
  } constexpr kRows[] = {{"=", 0},      {"Z=", 1},     {"Z===", 1},   {"Zg=A", 3},  {"Zg=\n A=", 5},
                         {"Zg===", 4},  {"Zg== =", 5}, {"Zm8==", 4},  {"Zm9v=", 4}, {"Zm9v\n=", 5},
                         {"Zg==Z=", 5}, {"====", 0},   {"Zm9vZ=A", 5}};

  for (auto const& [text, offset] : kRows) {
    ToolResult const result = runOn(text, "base64 decode");
    EXPECT_EQ(result.status, 2) << text;
    EXPECT_EQ(result.errors,
              "vrxtool: standard input: no Base64 at byte " + std::to_string(offset) + kHint + "\n")
        << text;
    EXPECT_EQ(runOn(text, "base64 decode --ignore-garbage").status, 0) << text;
  }
  EXPECT_EQ(runOn("Zg==Zm8=Zm9v\nZ g = = Zm 8\n=", "base64 decode"), done("ffofooffo"));
  // Where one block ends and the next begins.
  for (int const size : {262140, 262141, 262142, 262143, 262144}) {
    std::string const text(static_cast<std::size_t>(size), '\n');
    EXPECT_EQ(runOn(text + "Zg==", "base64 decode"), done("f")) << size;
    EXPECT_EQ(
        runOn(text + "Zg=A", "base64 decode").errors,
        "vrxtool: standard input: no Base64 at byte " + std::to_string(size + 3) + kHint + "\n");
  }
}

TEST_F(Base64CommandTest, NoCharacterButThoseOfTheAlphabetPasses) {
  std::string const alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/ \t\r\n";
  for (int c = 1; c < 256; ++c) {
    bool const isGood = alphabet.find(static_cast<char>(c)) != std::string::npos;
    std::string const text = std::string(64, 'A') + static_cast<char>(c) + std::string(63, 'A');
    bool const isRefused =
        runOn(text, "base64 decode >/dev/null")
            .errors.starts_with("vrxtool: standard input: no Base64 at byte 64;");
    EXPECT_EQ(isRefused, !isGood) << c;
  }
}

TEST_F(Base64CommandTest, ATextThatIsCutIsAFailure) {
  struct {
    char const* text;
    char const* bytes;
  } constexpr kRows[] = {{"Z", ""}, {"Zg", "f"}, {"Zg=", "f"}, {"Zm8", "fo"}, {"Zm9vYg\n", "foob"}};

  for (auto const& [text, bytes] : kRows) {
    EXPECT_EQ(runOn(text, "base64 decode"),
              (ToolResult{2, bytes,
                          "vrxtool: standard input: the text ends within a group of four "
                          "characters: it may be cut\n"}))
        << text;
  }
  EXPECT_EQ(runOn("Zm9vYg", "base64 decode --ignore-garbage"), done("foob"));
}

TEST_F(Base64CommandTest, MemoryIsConstant) {
#ifdef VRXUTIL_OWN_MALLOC
  GTEST_SKIP() << "a sanitizer takes more memory than the limit";
#endif
  bigFile(300 << 20);
  EXPECT_EQ(
      shell("ulimit -v 200000; vrxtool base64 encode big | vrxtool base64 decode | cmp - big"),
      done());
}

TEST_F(Base64CommandTest, ProgressIsShownOnATerminal) {
  if (shell("script -qec true /dev/null").status != 0) {
    GTEST_SKIP() << "the host has no terminals for tests";
  }
  bigFile(160 << 20);
  std::string wiped(62, ' ');
  wiped.front() = wiped.back() = '\r';
  EXPECT_EQ(shell("script -qec 'vrxtool base64 encode big >/dev/null' /dev/null </dev/null").output,
            "\rvrxtool: 64 MiB of 160 MiB, 40 %\rvrxtool: 128 MiB of 160 MiB, 80 %" + wiped);
  EXPECT_EQ(
      shell("script -qec 'cat big | vrxtool base64 encode >/dev/null' /dev/null </dev/null").output,
      "\rvrxtool: 64 MiB\rvrxtool: 128 MiB" + wiped);
  EXPECT_EQ(run("base64 encode big >/dev/null"), done());
  bigFile(64 << 20);
  EXPECT_EQ(shell("script -qec 'vrxtool base64 decode --ignore-garbage big >/dev/null' /dev/null "
                  "</dev/null")
                .output,
            "\rvrxtool: 64 MiB of 64 MiB, 100 %" + wiped);
  bigFile((64 << 20) - 1);
  EXPECT_EQ(shell("script -qec 'vrxtool base64 decode --ignore-garbage big >/dev/null' /dev/null "
                  "</dev/null")
                .output,
            "");
}

TEST_F(Base64CommandTest, ProgressDoesNotMixWithTheResultOrAReason) {
  if (shell("script -qec true /dev/null").status != 0) {
    GTEST_SKIP() << "the host has no terminals for tests";
  }
  file("spaces", std::string(64 << 20, ' ') + "!");
  EXPECT_EQ(shell("script -qec 'vrxtool base64 decode spaces' /dev/null </dev/null").output,
            "vrxtool: spaces: no Base64 at byte 67108864; --ignore-garbage leaves it out\r\n");
  EXPECT_EQ(shell("script -qec 'vrxtool base64 decode spaces >/dev/null' /dev/null </dev/null "
                  "| tr '\\r' '|'")
                .output,
            "|vrxtool: 64 MiB of 64 MiB, 99 %|" + std::string(60, ' ') +
                "|vrxtool: spaces: no Base64 at byte 67108864; --ignore-garbage leaves it out|\n");
}

TEST_F(Base64CommandTest, WhatCannotBeReadIsAFailure) {
  for (std::string const command : {"encode", "decode"}) {
    EXPECT_EQ(run("base64 " + command + " none"),
              failed("cannot open none: No such file or directory"));
    EXPECT_EQ(run("base64 " + command + " ."), failed("cannot read .: Is a directory"));
    EXPECT_EQ(shell("vrxtool base64 " + command + " <&-"),
              failed("cannot read standard input: Bad file descriptor"));
  }
}

TEST_F(Base64CommandTest, WhatCannotBeWrittenIsAFailure) {
  EXPECT_EQ(runOn("foo", "base64 encode >/dev/full"), failed(kDiskFull));
  EXPECT_EQ(runOn("Zm9v", "base64 decode >&-"), failed(kOutputClosed));
  bigFile(1 << 20);
  EXPECT_EQ(shell("{ vrxtool base64 encode big; echo $? >status; } | true; cat status"),
            done("141\n"));  // SIGPIPE ends it
  EXPECT_EQ(shell("ulimit -f 100; vrxtool base64 encode big >out"),
            failed("cannot write standard output: File too large"));
}

TEST_F(Base64CommandTest, WrongUseIsAFailure) {
  EXPECT_EQ(run("base64 encode a b"),
            failed("The following argument was not expected: b; try --help"));
}

}  // namespace
