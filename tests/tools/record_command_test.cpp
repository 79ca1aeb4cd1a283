// vrxtool record.

#include "tests/support/own_malloc.h"
#include "tests/tools/tool_support.h"

namespace {

using vrxutil::test::done;
using vrxutil::test::failed;
using vrxutil::test::kDiskFull;
using vrxutil::test::kOutputClosed;
using vrxutil::test::ToolResult;
using vrxutil::test::ToolTest;

/// A number of four bytes, one of two, a byte and a text of four.
std::string const kLittle(
    "\x01\x02\x00\xFF\x03\x80\x41"
    "ab\0\0",
    11);
std::string const kBig(
    "\xFF\x00\x02\x01\x80\x03\x41"
    "ab\0\0",
    11);

std::string const kEnd = "\n";

class RecordCommandTest : public ToolTest {};

TEST_F(RecordCommandTest, DumpsEitherByteOrder) {
  constexpr char kRow[] = "4278190593\t32771\t65\tab\n";
  EXPECT_EQ(runOn(kLittle, "record dump - --fields l,s,c,4t"), done(kRow));
  EXPECT_EQ(runOn(kLittle, "record dump - --fields l,s,c,4t --order little"), done(kRow));
  EXPECT_EQ(runOn(kBig, "record dump - --fields l,s,c,4t --order big"), done(kRow));
}

TEST_F(RecordCommandTest, DumpsFieldsOfEachKind) {
  std::string const bytes("\x80\x01\xFE\xFF", 4);

  struct {
    std::string bytes;
    char const* fields;
    char const* little;
    char const* big;
  } const kRows[] = {
      {bytes, "l", "4294836608", "2147614463"},
      {bytes, "s,s", "384\t65534", "32769\t65279"},
      {bytes, "c,c,c,c", "128\t1\t254\t255", "128\t1\t254\t255"},
      {bytes, "c,s,c", "128\t65025\t255", "128\t510\t255"},
      {bytes, "4b", "8001feff", "8001feff"},
      {bytes, "1b,3b", "80\t01feff", "80\t01feff"},
      {bytes, "4t", "\\x80\\x01\\xfe\\xff", "\\x80\\x01\\xfe\\xff"},
      {std::string(4, '\0'), "l", "0", "0"},
      {std::string(4, '\xFF'), "l", "4294967295", "4294967295"},
      {std::string("ab\0d", 4), "4t", "ab", "ab"},
      {std::string("ab\0d", 4), "2t,2t", "ab\t", "ab\t"},
      {std::string("ab\0d", 4), "1t,1t,2b", "a\tb\t0064", "a\tb\t0064"},
      {"abcd", "4t", "abcd", "abcd"},
      {"abcd", "s,2t", "25185\tcd", "24930\tcd"},
      {"\xE2\x80\x8E!", "4t", "\\u200e!", "\\u200e!"},
  };

  for (auto const& row : kRows) {
    std::string const fields = row.fields;
    EXPECT_EQ(runOn(row.bytes, "record dump - --fields " + fields), done(row.little + kEnd));
    EXPECT_EQ(runOn(row.bytes, "record dump - --order big --fields " + fields),
              done(row.big + kEnd));
  }
}

TEST_F(RecordCommandTest, DumpsRecordAfterRecord) {
  file("r", kLittle + kLittle);
  EXPECT_EQ(run("record dump r --fields 7b,4t"), done("010200ff038041\tab\n010200ff038041\tab\n"));
  EXPECT_EQ(run("record dump r --fields c,10b --skip 11"), done("1\t0200ff03804161620000\n"));
  EXPECT_EQ(run("record dump r --fields c --skip 22"), done());
  EXPECT_EQ(run("record dump r --fields c --skip 21"), done("0\n"));
  EXPECT_EQ(run("record dump r --fields c --skip 22 --json"), done("[]\n"));
  EXPECT_EQ(runOn(kLittle, "record dump - --fields 2t,2b --skip 7"), done("ab\t0000\n"));
  EXPECT_EQ(runOn("", "record dump - --fields l"), done());
}

TEST_F(RecordCommandTest, SkipsAnyNumberOfBytes) {
  std::string bytes(200000, 'x');
  for (std::size_t const place : {65535U, 65536U, 65537U, 131072U, 199998U}) {
    bytes[place] = 'y';
    bytes[place + 1] = 'z';
    file("r", bytes);
    std::string const skipped = std::to_string(place);
    EXPECT_EQ(run("record dump r --fields 2t --skip " + skipped + " | head -n 1"), done("yz\n"));
    bytes[place] = 'x';
    bytes[place + 1] = 'x';
  }
  EXPECT_EQ(run("record dump r --fields 2t --skip 18446744073709551615"),
            failed("r: has fewer than 18446744073709551615 bytes"));
  for (std::string const count : {"18446744073709551616", "-1", "x", "1.5"}) {
    EXPECT_EQ(run("record dump r --fields 2t --skip " + count).status, 2) << count;
  }
}

TEST_F(RecordCommandTest, DumpsRecordsOfAnySize) {
  std::string const text(70000, 'x');
  EXPECT_EQ(runOn(text + "\1" + text + "\2", "record dump - --fields 70000t,c"),
            done(text + "\t1\n" + text + "\t2\n"));
  std::string fields = "c";
  std::string row = "0";
  for (int i = 1; i < 1000; ++i) {
    fields += ",c";
    row += "\t0";
  }
  EXPECT_EQ(runOn(std::string(1000, '\0'), "record dump - --fields " + fields), done(row + "\n"));
}

TEST_F(RecordCommandTest, ManyRecordsTakeNoMemory) {
#ifdef VRXUTIL_OWN_MALLOC
  GTEST_SKIP() << "a sanitizer takes more memory than the limit";
#endif
  EXPECT_EQ(shell("ulimit -v 200000; head -c 4000000 /dev/zero |\n"
                  "vrxtool record dump - --fields c --json | wc -l"),
            done("4000002\n"));
}

TEST_F(RecordCommandTest, DumpsJson) {
  EXPECT_EQ(runOn(kLittle + kLittle, "record dump - --fields l,s,c,4t --json"),
            done("[\n  [4278190593,32771,65,\"ab\"],\n  [4278190593,32771,65,\"ab\"]\n]\n"));
  EXPECT_EQ(runOn("", "record dump - --fields l --json"), done("[]\n"));
  EXPECT_EQ(runOn("a\"\xC3\xA4\xFF\n", "record dump - --fields 6t --json"),
            done("[\n  [\"a\\\"\xC3\xA4\xEF\xBF\xBD\\n\"]\n]\n"));
}

TEST_F(RecordCommandTest, TextsAreEscaped) {
  EXPECT_EQ(runOn("a\t\\\n", "record dump - --fields 4t,"),
            failed("no field: ; fields are l, s, c, and Nt or Nb with a number N of bytes"));
  EXPECT_EQ(runOn("a\t\\\n", "record dump - --fields 4t"), done("a\\t\\\\\\n\n"));
  EXPECT_EQ(runOn("\xC3\xA4\x1B", "record dump - --fields 3t"), done("\xC3\xA4\\x1b\n"));
  EXPECT_EQ(runOn("\xC3\\\x1B", "record dump - --fields 3t"), done("\\xc3\\\\\\x1b\n"));
  EXPECT_EQ(runOn(std::string(6, '\0'), "record dump - --fields 2t,2t,2t"), done("\t\t\n"));
}

TEST_F(RecordCommandTest, ARecordThatIsCutIsAFailure) {
  file("r", kLittle + kLittle.substr(0, 5));
  EXPECT_EQ(run("record dump r --fields c,c,2b,c,6b"),
            (ToolResult{2, "1\t2\t00ff\t3\t804161620000\n",
                        "vrxtool: r: the record at byte 11 is cut: 6 bytes are missing\n"}));
  EXPECT_EQ(run("record dump r --fields c --skip 17"), failed("r: has fewer than 17 bytes"));
  EXPECT_EQ(run("record dump r --fields c --skip -1"),
            failed("--skip: -1 is less than 0; try --help"));
  EXPECT_EQ(
      run("record dump r --fields 7b,4t --json --skip 11"),
      (ToolResult{2, "[]\n", "vrxtool: r: the record at byte 11 is cut: 6 bytes are missing\n"}));
  EXPECT_EQ(run("record dump r --fields 11b --json"),
            (ToolResult{2, "[\n  [\"010200ff03804161620000\"]\n]\n",
                        "vrxtool: r: the record at byte 11 is cut: 6 bytes are missing\n"}));
  std::string const whole = kLittle;
  for (std::size_t size = 1; size < whole.size(); ++size) {
    EXPECT_EQ(runOn(whole.substr(0, size), "record dump - --fields l,s,c,4t").errors,
              "vrxtool: standard input: the record at byte 0 is cut: " +
                  std::to_string(whole.size() - size) + " bytes are missing\n");
  }
}

TEST_F(RecordCommandTest, RefusesWhatIsNoField) {
  for (std::string const field : {"x", "3c", "t", "0t", "-1t", "10", "99999999999t", "1 t", "ll",
                                  "2147483648t", "1tt", "4", "+1t", " l", "L", "1T"}) {
    EXPECT_EQ(runOn("", "record dump - --fields 'l," + field + "'"),
              failed("no field: " + field +
                     "; fields are l, s, c, and Nt or Nb with a number N of bytes"));
  }
  EXPECT_EQ(runOn("", "record dump - --fields 200000000t,200000000b"),
            failed("a record of more than 256 MiB"));
  EXPECT_EQ(runOn("", "record dump - --fields 2147483647t,2147483647t,2147483647b"),
            failed("a record of more than 256 MiB"));
  EXPECT_EQ(runOn("", "record dump - --fields 268435457b"),
            failed("a record of more than 256 MiB"));
  EXPECT_EQ(runOn("", "record dump - --fields 268435456b"), done());
  EXPECT_EQ(runOn("", "record dump - --fields ''"),
            failed("no field: ; fields are l, s, c, and Nt or Nb with a number N of bytes"));
}

TEST_F(RecordCommandTest, FailuresAreReported) {
  EXPECT_EQ(run("record dump none --fields l"),
            failed("cannot open none: No such file or directory"));
  EXPECT_EQ(run("record dump . --fields l"), failed("cannot read .: Is a directory"));
  EXPECT_EQ(runOn(kLittle, "record dump - --fields c >/dev/full"), failed(kDiskFull));
  EXPECT_EQ(runOn(kLittle, "record dump - --fields c --json >&-"), failed(kOutputClosed));
  EXPECT_EQ(run("record dump --fields l"), failed("FILE is required; try --help"));
  EXPECT_EQ(shell("vrxtool record dump - --fields l <&-"),
            failed("cannot read standard input: Bad file descriptor"));
  EXPECT_EQ(run("record dump r"), failed("--fields is required; try --help"));
  EXPECT_EQ(run("record dump r --fields l --order middle"),
            failed("--order: middle not in {little,big}; try --help"));
}

}  // namespace
