// vrxtool crypt.

#include "tests/tools/tool_support.h"

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolTest;

class CryptCommandTest : public ToolTest {
protected:
  std::string noKey() const {
    return "the agent's key cannot be had: see the folder " + data / "keys";
  }
};

constexpr char kNotOurs[] = ": not encrypted with this agent's key, or changed since";

TEST_F(CryptCommandTest, DecryptsWhatItEncrypts) {
  std::string const bytes("secret\0\xFF\n", 9);
  file("plain", bytes);
  EXPECT_EQ(shell("vrxtool crypt encrypt plain >cipher && vrxtool crypt decrypt cipher"),
            done(bytes));
  EXPECT_EQ(bytesOf("cipher").find("secret"), std::string::npos);
  EXPECT_EQ(shell("vrxtool crypt encrypt - <plain | vrxtool crypt decrypt"), done(bytes));
  EXPECT_EQ(shell("vrxtool crypt encrypt </dev/null | vrxtool crypt decrypt -"), done());
}

TEST_F(CryptCommandTest, ForeignOrChangedBytesAreAFailure) {
  EXPECT_EQ(runOn("foreign", "crypt decrypt"), failed(std::string("standard input") + kNotOurs));
  EXPECT_EQ(runOn("", "crypt decrypt"), failed(std::string("standard input") + kNotOurs));
  ASSERT_EQ(shell("echo text | vrxtool crypt encrypt >cipher"), done());
  std::string const cipher = bytesOf("cipher");
  ASSERT_GT(cipher.size(), 5U);
  auto const refuses = [this](std::string const& bytes) {
    file("spoilt", bytes);
    return run("crypt decrypt spoilt") == failed(std::string("spoilt") + kNotOurs);
  };
  EXPECT_TRUE(refuses(cipher + "x"));
  for (std::size_t size = 0; size < cipher.size(); ++size) {
    EXPECT_TRUE(refuses(cipher.substr(0, size))) << size;
  }
  for (std::size_t place = 0; place < cipher.size(); ++place) {
    std::string changed = cipher;
    changed[place] = static_cast<char>(changed[place] ^ 1);
    EXPECT_TRUE(refuses(changed)) << place;
  }
  EXPECT_EQ(run("crypt decrypt cipher"), done("text\n"));
}

TEST_F(CryptCommandTest, AnothersKeyDoesNot) {
  EXPECT_EQ(shell("echo text | VRX_DATA_DIR=$PWD/other vrxtool crypt encrypt >cipher\n"
                  "vrxtool crypt decrypt cipher"),
            failed(std::string("cipher") + kNotOurs));
  EXPECT_EQ(shell("VRX_DATA_DIR=$PWD/other vrxtool crypt decrypt cipher"), done("text\n"));
}

TEST_F(CryptCommandTest, AKeyThatIsRefusedIsAFailure) {
  ASSERT_EQ(shell("echo text | vrxtool crypt encrypt >cipher"), done());
  for (std::string const spoil :
       {"chmod 0644 *", "chmod 0600 *; printf x >>type3.key", "rm *; mkdir type3.key",
        "rmdir *; cd ..; "
        "rmdir keys; echo >keys"}) {
    ASSERT_EQ(shell("cd \"$VRX_DATA_DIR\"/keys\n" + spoil), done());
    EXPECT_EQ(run("crypt encrypt cipher"), failed(noKey())) << spoil;
    EXPECT_EQ(run("crypt decrypt cipher"), failed(noKey())) << spoil;
  }
  EXPECT_EQ(shell("cd /; rm -r \"$VRX_DATA_DIR\"; echo >\"$VRX_DATA_DIR\"\n"
                  "echo text | vrxtool crypt encrypt"),
            failed(noKey()));
}

TEST_F(CryptCommandTest, NothingIsWrittenWhereAFailureIsReported) {
  EXPECT_EQ(runOn("foreign", "crypt decrypt >out").status, 2);
  EXPECT_EQ(bytesOf("out"), "");
}

TEST_F(CryptCommandTest, LargeFilesComeBack) {
  EXPECT_EQ(shell("head -c 3000001 /dev/urandom >in\n"
                  "vrxtool crypt encrypt in >out && vrxtool crypt decrypt out | cmp - in"),
            done());
}

TEST_F(CryptCommandTest, WhatCannotBeReadOrWrittenIsAFailure) {
  for (std::string const command : {"encrypt", "decrypt"}) {
    EXPECT_EQ(run("crypt " + command + " none"),
              failed("cannot open none: No such file or directory"));
    EXPECT_EQ(run("crypt " + command + " ."), failed("cannot read .: Is a directory"));
    EXPECT_EQ(shell("vrxtool crypt " + command + " <&-"),
              failed("cannot read standard input: Bad file descriptor"));
  }
  EXPECT_EQ(runOn("text", "crypt encrypt >/dev/full"), failed(kDiskFull));
  EXPECT_EQ(runOn("text", "crypt encrypt >&-"), failed(kOutputClosed));
  EXPECT_EQ(shell("echo text | vrxtool crypt encrypt | vrxtool crypt decrypt >/dev/full"),
            failed(kDiskFull));
  EXPECT_EQ(shell("echo text | vrxtool crypt encrypt | vrxtool crypt decrypt >&-"),
            failed(kOutputClosed));
}

TEST_F(CryptCommandTest, WrongUseIsAFailure) {
  EXPECT_EQ(run("crypt"), failed("a command is missing; try --help"));
  EXPECT_EQ(run("crypt hash"), failed("no command hash; try --help"));
  EXPECT_EQ(run("crypt encrypt a b"),
            failed("The following argument was not expected: b; try --help"));
}

}  // namespace
