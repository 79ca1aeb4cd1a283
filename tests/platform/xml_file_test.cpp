#include "tests/support/locale_scope.h"
#include "tests/support/temporary_folder.h"

#include <vrxcomn/xml_parser.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace AdvXMLParser {

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using vrxutil::test::fileBytes;
using vrxutil::test::LocaleScope;
using vrxutil::test::makeFile;
using vrxutil::test::TemporaryFolder;

constexpr std::string_view kHeader = "\x89VRX\r\n\x1A\x01"sv;
constexpr wchar_t kSurrogate = 0xD800;

using Callback = bool (*)(std::string const&, std::string&);

std::wstring wide(std::string_view ascii) { return {ascii.begin(), ascii.end()}; }

/// "cannot ACTION PATH: " and the system's text for `number`.
std::wstring failure(std::wstring const& action, std::wstring const& path, int number) {
  return L"cannot " + action + L" " + path + L": " + wide(std::strerror(number));
}

struct Read {
  long result;
  std::wstring text;
  UTF_ENCODINGS encoding = UTF_8;
  unsigned long sizeInBytes = 0;

  bool operator==(Read const&) const = default;
};

void PrintTo(Read const& read, std::ostream* out) {
  *out << read.result << ", encoding " << read.encoding << ", " << read.sizeInBytes
       << " bytes: " << testing::PrintToString(read.text);
}

Read readWide(std::wstring const& fileName, Callback decode = nullptr) {
  Read read{0, L"what was there before"};
  read.result =
      ReadBufferFromFileNoExp(fileName, read.text, read.encoding, &read.sizeInBytes, decode);
  return read;
}

struct ReadUtf8 {
  long result;
  std::string utf8;
  UTF_ENCODINGS encoding = UTF_8;
  unsigned long sizeInBytes = 0;

  bool operator==(ReadUtf8 const&) const = default;
};

void PrintTo(ReadUtf8 const& read, std::ostream* out) {
  *out << read.result << ", encoding " << read.encoding << ", " << read.sizeInBytes
       << " bytes: " << testing::PrintToString(read.utf8);
}

ReadUtf8 readUtf8(std::wstring const& fileName, Callback decode = nullptr) {
  ReadUtf8 read{0, "what was there before"};
  read.result =
      ReadUtf8BufferFromFileNoExp(fileName, read.utf8, read.encoding, &read.sizeInBytes, decode);
  return read;
}

/// Why both ways to read a file fail; fails the test where they do not, or not
/// with `result`.
std::wstring readFailure(std::wstring const& fileName, Callback decode = nullptr,
                         long result = -1) {
  EXPECT_EQ(readWide(fileName, decode).result, result);
  std::wstring message = GetLastXmlErrorMessage();
  EXPECT_EQ(readUtf8(fileName, decode).result, result);
  EXPECT_EQ(GetLastXmlErrorMessage(), message);
  return message;
}

/// Why WriteBufferToFile throws; "written" where it does not.
std::wstring write(std::wstring const& fileName, std::wstring const& text,
                   Callback encode = nullptr, bool (*inspect)(std::string&) = nullptr) {
  try {
    WriteBufferToFile(fileName, text, UTF_8, encode, inspect);
  } catch (ReadWriteException const&) {
    return GetLastXmlErrorMessage();
  }
  return L"written";
}

/// A cipher of a kind: "(" before, ")" after.
bool bracket(std::string const& in, std::string& out) {
  out = "(" + in + ")";
  return true;
}

bool unbracket(std::string const& in, std::string& out) {
  if (!in.starts_with('(') || !in.ends_with(')')) return false;
  out = in.substr(1, in.size() - 2);
  return true;
}

bool mustNotBeCalled(std::string const& /*in*/, std::string& /*out*/) {
  ADD_FAILURE() << "called for a file that is not encrypted";
  return false;
}

std::vector<std::string> namesIn(std::string const& folder) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

using Names = std::vector<std::string>;

TEST(XmlFileReadTest, EncodingIsRecognisedByItsMark) {
  struct Row {
    char const* name;
    std::string_view bytes;
    UTF_ENCODINGS encoding;
    std::wstring_view text;
    std::string_view utf8;
  };

  constexpr std::wstring_view kText = L"a\u00E9\U0001F600"sv;
  constexpr std::string_view kUtf8 = "a\xC3\xA9\xF0\x9F\x98\x80"sv;
  std::vector<Row> const rows{
      {"empty", ""sv, UTF_8, L""sv, ""sv},
      {"no mark", kUtf8, UTF_8, kText, kUtf8},
      {"UTF-8 mark", "\xEF\xBB\xBF\x61\xC3\xA9\xF0\x9F\x98\x80"sv, UTF_8, kText, kUtf8},
      {"UTF-8 mark alone", "\xEF\xBB\xBF"sv, UTF_8, L""sv, ""sv},
      {"UTF-8 marks, of which one counts", "\xEF\xBB\xBF\xEF\xBB\xBFx"sv, UTF_8, L"\uFEFFx"sv,
       "\xEF\xBB\xBFx"sv},
      {"mark not at the start", "x\xEF\xBB\xBF"sv, UTF_8, L"x\uFEFF"sv, "x\xEF\xBB\xBF"sv},
      {"UTF-16BE", "\xFE\xFF\0\x61\0\xE9\xD8\x3D\xDE\0"sv, UTF_16_BE, kText, kUtf8},
      {"UTF-16LE", "\xFF\xFE\x61\0\xE9\0\x3D\xD8\0\xDE"sv, UTF_16_LE, kText, kUtf8},
      {"UTF-16BE mark alone", "\xFE\xFF"sv, UTF_16_BE, L""sv, ""sv},
      {"UTF-16LE mark alone", "\xFF\xFE"sv, UTF_16_LE, L""sv, ""sv},
      {"UTF-32BE", "\0\0\xFE\xFF\0\0\0\x61\0\0\0\xE9\0\x01\xF6\0"sv, UTF_32_BE, kText, kUtf8},
      {"UTF-32LE", "\xFF\xFE\0\0\x61\0\0\0\xE9\0\0\0\0\xF6\x01\0"sv, UTF_32_LE, kText, kUtf8},
      {"UTF-32BE mark alone", "\0\0\xFE\xFF"sv, UTF_32_BE, L""sv, ""sv},
      {"UTF-32LE mark alone", "\xFF\xFE\0\0"sv, UTF_32_LE, L""sv, ""sv},
      {"first and last of UTF-16",
       "\xFE\xFF\0\0\xD7\xFF\xE0\0\xFF\xFF\xD8\0\xDC\0\xDB\xFF\xDF\xFF"sv, UTF_16_BE,
       L"\0\uD7FF\uE000\uFFFF\U00010000\U0010FFFF"sv,
       "\0\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"sv},
      {"first and last of UTF-32", "\0\0\xFE\xFF\0\0\0\0\0\x10\xFF\xFF"sv, UTF_32_BE,
       L"\0\U0010FFFF"sv, "\0\xF4\x8F\xBF\xBF"sv},
      {"NUL characters", "a\0\0b"sv, UTF_8, L"a\0\0b"sv, "a\0\0b"sv},
      {"a declared encoding is ignored", "<?xml encoding='UTF-16'?>"sv, UTF_8,
       L"<?xml encoding='UTF-16'?>"sv, "<?xml encoding='UTF-16'?>"sv},
  };
  TemporaryFolder const folder;
  for (Row const& row : rows) {
    makeFile(folder / "file", std::string(row.bytes));
    EXPECT_EQ(readWide(folder.wide("file"), mustNotBeCalled),
              (Read{0, std::wstring(row.text), row.encoding, row.bytes.size()}))
        << row.name;
    EXPECT_EQ(readUtf8(folder.wide("file"), mustNotBeCalled),
              (ReadUtf8{0, std::string(row.utf8), row.encoding, row.bytes.size()}))
        << row.name;
  }
}

TEST(XmlFileReadTest, InvalidContentsAreLocated) {
  struct Row {
    std::string_view bytes;
    wchar_t const* message;
  };

  std::vector<Row> const rows{
      {"\xFF"sv, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
      {"ab\x80"sv, L"invalid UTF-8 at byte offset 2, line 1, column 3"},
      {"\xC3\xA9\xE2\x82"sv, L"invalid UTF-8 at byte offset 2, line 1, column 2"},
      {"a\nb\n\xED\xA0\x80"sv, L"invalid UTF-8 at byte offset 4, line 3, column 1"},
      {"a\r\n\xC3\xA9\xF5"sv, L"invalid UTF-8 at byte offset 5, line 2, column 2"},
      {"a\rb\r\r\xC0\x80"sv, L"invalid UTF-8 at byte offset 5, line 4, column 1"},
      {"\n\r\xFE"sv, L"invalid UTF-8 at byte offset 2, line 3, column 1"},
      {"\xEF\xBB\xBF\x61\xFF"sv, L"invalid UTF-8 at byte offset 4, line 1, column 2"},
      {"\xFE"sv, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
      {"\0\0\xFE"sv, L"invalid UTF-8 at byte offset 2, line 1, column 3"},
      {"\xFE\xFF\0"sv, L"invalid UTF-16 at byte offset 2, line 1, column 1"},
      {"\xFF\xFE\x61\0\x62"sv, L"invalid UTF-16 at byte offset 4, line 1, column 2"},
      {"\xFE\xFF\xD8\x3D"sv, L"invalid UTF-16 at byte offset 2, line 1, column 1"},
      {"\xFE\xFF\xD8\x3D\xDE"sv, L"invalid UTF-16 at byte offset 2, line 1, column 1"},
      {"\xFE\xFF\xD8\x3D\0\x61"sv, L"invalid UTF-16 at byte offset 2, line 1, column 1"},
      {"\xFE\xFF\xD8\x3D\xD8\x3D"sv, L"invalid UTF-16 at byte offset 2, line 1, column 1"},
      {"\xFE\xFF\xD8\x3D\xE0\0"sv, L"invalid UTF-16 at byte offset 2, line 1, column 1"},
      {"\xFE\xFF\0\n\xDE\0\xD8\x3D"sv, L"invalid UTF-16 at byte offset 4, line 2, column 1"},
      {"\xFE\xFF\xD8\x3D\xDE\0\xDF\xFF"sv, L"invalid UTF-16 at byte offset 6, line 1, column 2"},
      {"\xFF\xFE\0\0\x61\0\0"sv, L"invalid UTF-32 at byte offset 4, line 1, column 1"},
      {"\0\0\xFE\xFF\0\0\0\x61\0\0\xD8\0"sv, L"invalid UTF-32 at byte offset 8, line 1, column 2"},
      {"\0\0\xFE\xFF\0\x11\0\0"sv, L"invalid UTF-32 at byte offset 4, line 1, column 1"},
      {"\0\0\xFE\xFF\x80\0\0\0"sv, L"invalid UTF-32 at byte offset 4, line 1, column 1"},
  };
  TemporaryFolder const folder;
  for (Row const& row : rows) {
    makeFile(folder / "file", std::string(row.bytes));
    EXPECT_EQ(readFailure(folder.wide("file")),
              L"cannot read " + folder.wide("file") + L": " + row.message);
  }
}

TEST(XmlFileReadTest, SizeNeedNotBeAskedFor) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "text");
  std::wstring text;
  std::string utf8;
  UTF_ENCODINGS encoding = UTF_8;
  EXPECT_EQ(ReadBufferFromFileNoExp(folder.wide("file"), text, encoding, nullptr, nullptr), 0);
  EXPECT_EQ(text, L"text");
  EXPECT_EQ(ReadUtf8BufferFromFileNoExp(folder.wide("file"), utf8, encoding, nullptr, nullptr), 0);
  EXPECT_EQ(utf8, "text");
}

TEST(XmlFileReadTest, OnlyUtf8CanBeAskedFor) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "text");
  std::wstring const message =
      L"cannot read " + folder.wide("file") + L": UTF-8 is the only encoding that can be asked for";
  for (UTF_ENCODINGS const asked : {UTF_16_BE, UTF_16_LE, UTF_32_BE, UTF_32_LE}) {
    UTF_ENCODINGS encoding = asked;
    std::wstring text;
    EXPECT_EQ(ReadBufferFromFileNoExp(folder.wide("file"), text, encoding, nullptr, nullptr), -1);
    EXPECT_EQ(GetLastXmlErrorMessage(), message);
    std::string utf8;
    EXPECT_EQ(ReadUtf8BufferFromFileNoExp(folder.wide("file"), utf8, encoding, nullptr, nullptr),
              -1);
    EXPECT_EQ(GetLastXmlErrorMessage(), message);
  }
}

TEST(XmlFileReadTest, MissingFilesAreToldFromOtherFailures) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "text");
  ASSERT_EQ(::symlink("nothing", (folder / "dangling").c_str()), 0);
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);

  struct Row {
    std::wstring path;
    wchar_t const* action;
    int number;
    long result;
  };

  std::wstring const longName = folder.wide(std::string(300, 'n'));
  std::vector<Row> const rows{
      {folder.wide("missing"), L"open", ENOENT, -44},
      {folder.wide("missing/file"), L"open", ENOENT, -44},
      {folder.wide("dangling"), L"open", ENOENT, -44},
      {folder.wide("file/file"), L"open", ENOTDIR, -44},
      {L"", L"open", ENOENT, -44},
      {wide(folder.path()), L"read", EISDIR, -1},
      {folder.wide("loop"), L"open", ELOOP, -1},
      {longName, L"open", ENAMETOOLONG, -1},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(readFailure(row.path, nullptr, row.result),
              failure(row.action, row.path, row.number));
  }
  EXPECT_EQ(kFileMissing, -44);
}

TEST(XmlFileReadTest, MessageReadsAsAnAdministratorExpects) {
  LocaleScope const locale("C");
  TemporaryFolder const folder;
  EXPECT_EQ(readFailure(folder.wide("x.xml"), nullptr, -44),
            L"cannot open " + folder.wide("x.xml") + L": No such file or directory");
}

TEST(XmlFileReadTest, FilesBeyondTheLimitAreRefused) {
  TemporaryFolder const folder;
  makeFile(folder / "sparse", "");
  ASSERT_EQ(::truncate((folder / "sparse").c_str(), (512L << 20) + 1), 0) << std::strerror(errno);
  EXPECT_EQ(readFailure(folder.wide("sparse")), failure(L"read", folder.wide("sparse"), EFBIG));
}

TEST(XmlFileReadTest, NamesAreInTheEncodingOfTheLocale) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  makeFile(folder / "a b \xC3\xA9\xE2\x82\xAC", "text");
  std::wstring const path = wide(folder.path()) + L"/a b \u00E9\u20AC";
  EXPECT_EQ(readWide(path).text, L"text");
  EXPECT_EQ(readFailure(path + L"\U0001F600", nullptr, -44),
            failure(L"open", path + L"\U0001F600", ENOENT));
}

TEST(XmlFileReadTest, NamesThatTheLocaleLacksAreAnError) {
  constexpr wchar_t kReason[] = L": the name cannot be expressed in the encoding of the locale";
  {
    LocaleScope const locale("C");
    EXPECT_EQ(readFailure(L"/\u00E9"), std::wstring(L"cannot read /\u00E9") + kReason);
  }
  EXPECT_EQ(readFailure(L"/etc/passwd\0.xml"s),
            std::wstring(L"cannot read /etc/passwd\uFFFD.xml") + kReason);
}

TEST(XmlFileReadTest, EncryptedFilesAreDecoded) {
  struct Row {
    char const* name;
    std::string_view rest;
    std::wstring_view text;
    std::string_view utf8;
    UTF_ENCODINGS encoding;
  };

  constexpr std::array kRows{
      Row{"UTF-8", "(a\xC3\xA9)"sv, L"a\u00E9"sv, "a\xC3\xA9"sv, UTF_8},
      Row{"nothing", "()"sv, L""sv, ""sv, UTF_8},
      Row{"a mark in it", "(\xEF\xBB\xBF\x61)"sv, L"a"sv, "a"sv, UTF_8},
      Row{"UTF-16 in it", "(\xFE\xFF\0\x61)"sv, L"a"sv, "a"sv, UTF_16_BE},
      Row{"line ends and NUL", "(\r\n\0)"sv, L"\r\n\0"sv, "\r\n\0"sv, UTF_8},
  };
  TemporaryFolder const folder;
  for (Row const& row : kRows) {
    std::string const bytes = std::string(kHeader).append(row.rest);
    makeFile(folder / "file", bytes);
    EXPECT_EQ(readWide(folder.wide("file"), unbracket),
              (Read{0, std::wstring(row.text), row.encoding, bytes.size()}))
        << row.name;
    EXPECT_EQ(readUtf8(folder.wide("file"), unbracket),
              (ReadUtf8{0, std::string(row.utf8), row.encoding, bytes.size()}))
        << row.name;
  }
}

TEST(XmlFileReadTest, EncryptedFilesThatCannotBeDecodedAreAnError) {
  struct Row {
    std::string bytes;
    Callback decode;
    wchar_t const* reason;
  };

  std::string const header(kHeader);
  constexpr wchar_t kDamaged[] = L"it is encrypted in an unknown way, or damaged";
  std::vector<Row> const rows{
      {header + "(x)", nullptr, L"it is encrypted"},
      {header + "x", unbracket, L"it cannot be decrypted"},
      {header, unbracket, L"it cannot be decrypted"},
      {header.substr(0, 7) + "\x02(x)", unbracket, kDamaged},
      {header.substr(0, 7), unbracket, kDamaged},
      {header.substr(0, 4), unbracket, kDamaged},
      {"\x89VRX\n\x1A\x01(x)", unbracket, kDamaged},
      {"\x89VRX\r\r\n\x1A\x01(x)", nullptr, kDamaged},
      {header.substr(0, 3), mustNotBeCalled, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
      {"VRX\r\n\x1A\x01\xFF", mustNotBeCalled, L"invalid UTF-8 at byte offset 7, line 2, column 3"},
      {header + "(a\n\xFF)", unbracket, L"invalid UTF-8 at byte offset 2, line 2, column 1"},
  };
  TemporaryFolder const folder;
  for (Row const& row : rows) {
    makeFile(folder / "file", row.bytes);
    EXPECT_EQ(readFailure(folder.wide("file"), row.decode),
              L"cannot read " + folder.wide("file") + L": " + row.reason)
        << testing::PrintToString(row.bytes);
  }
}

TEST(XmlFileWriteTest, WritesUtf8WithoutMark) {
  TemporaryFolder const folder;
  EXPECT_EQ(write(folder.wide("file"), L"a\0\u00E9\U0001F600\n"s), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), "a\0\xC3\xA9\xF0\x9F\x98\x80\n"s);
  EXPECT_EQ(write(folder.wide("file"), L""), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), "");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(XmlFileWriteTest, WhatIsWrittenIsReadAgain) {
  std::wstring text;
  for (wchar_t c = 0; c <= 0x10FFFF; c += c < 0x3000 ? 1 : 97) {
    if (c < 0xD800 || c >= 0xE000) text += c;
  }
  TemporaryFolder const folder;
  for (bool const isEncrypted : {false, true}) {
    ASSERT_EQ(write(folder.wide("file"), text, isEncrypted ? bracket : nullptr), L"written");
    Read const read = readWide(folder.wide("file"), unbracket);
    EXPECT_EQ(read.result, 0);
    EXPECT_TRUE(read.text == text);
  }
}

TEST(XmlFileWriteTest, EncryptedFilesStartWithTheHeader) {
  TemporaryFolder const folder;
  EXPECT_EQ(write(folder.wide("file"), L"a\u00E9", bracket), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), std::string(kHeader) + "(a\xC3\xA9)");
  EXPECT_EQ(write(folder.wide("file"), L"", bracket), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), std::string(kHeader) + "()");
}

TEST(XmlFileWriteTest, BytesAreShownBeforeTheyAreEncryptedAndMayBeChanged) {
  TemporaryFolder const folder;
  auto const inspect = [](std::string& bytes) {
    EXPECT_EQ(bytes, "a\xC3\xA9");
    bytes += "!";
    return true;
  };
  EXPECT_EQ(write(folder.wide("file"), L"a\u00E9", bracket, inspect), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), std::string(kHeader) + "(a\xC3\xA9!)");
  EXPECT_EQ(write(folder.wide("file"), L"a\u00E9", nullptr, inspect), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), "a\xC3\xA9!");
}

TEST(XmlFileWriteTest, WhatIsRefusedLeavesTheOldFile) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("file");
  makeFile(folder / "file", "old");
  auto const refuse = [](std::string& /*bytes*/) { return false; };
  auto const fail = [](std::string const& /*in*/, std::string& out) {
    out = "half";
    return false;
  };
  EXPECT_EQ(write(path, L"new", mustNotBeCalled, refuse),
            L"cannot write " + path + L": the contents have been refused");
  EXPECT_EQ(write(path, L"new", fail), L"cannot write " + path + L": it cannot be encrypted");
  EXPECT_EQ(fileBytes(folder / "file"), "old");
  EXPECT_EQ(namesIn(folder.path()), Names{"file"});
}

TEST(XmlFileWriteTest, CharactersThatAreNoneAreAnError) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("file");
  makeFile(folder / "file", "old");

  struct Row {
    std::wstring text;
    wchar_t const* reason;
  };

  std::vector<Row> const rows{
      {std::wstring(1, kSurrogate),
       L"character 0xd800 at line 1, column 1 is no Unicode character"},
      {std::wstring(L"a\r\n\u00E9") + static_cast<wchar_t>(0x110000),
       L"character 0x110000 at line 2, column 2 is no Unicode character"},
      {std::wstring(L"\n\n") + static_cast<wchar_t>(-1) + L"after",
       L"character 0xffffffff at line 3, column 1 is no Unicode character"},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(write(path, row.text, mustNotBeCalled), L"cannot write " + path + L": " + row.reason);
  }
  EXPECT_EQ(fileBytes(folder / "file"), "old");
}

TEST(XmlFileWriteTest, FailuresOfTheSystemAreTold) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "old");
  EXPECT_EQ(write(wide(folder.path()), L"x"), failure(L"write", wide(folder.path()), EISDIR));
  EXPECT_EQ(write(folder.wide("missing/x"), L"x"),
            failure(L"open the folder of", folder.wide("missing/x"), ENOENT));
  EXPECT_EQ(write(folder.wide("file/x"), L"x"), failure(L"open", folder.wide("file/x"), ENOTDIR));
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(write(folder.wide("fifo"), L"x"), failure(L"open", folder.wide("fifo"), ENXIO));
}

TEST(XmlFileWriteTest, NamesThatTheLocaleLacksAreAnError) {
  TemporaryFolder const folder;
  EXPECT_EQ(write(folder.wide("x") + L"\0y"s, L"x"),
            L"cannot write " + folder.wide("x") +
                L"\uFFFDy: the name cannot be expressed in the encoding of the "
                L"locale");
}

TEST(XmlFileWriteTest, OnlyUtf8CanBeAskedFor) {
  TemporaryFolder const folder;
  for (UTF_ENCODINGS const asked : {UTF_16_BE, UTF_16_LE, UTF_32_BE, UTF_32_LE}) {
    EXPECT_THROW(WriteBufferToFile(folder.wide("file"), L"x", asked, nullptr, nullptr),
                 ReadWriteException);
    EXPECT_EQ(GetLastXmlErrorMessage(), L"cannot write " + folder.wide("file") +
                                            L": UTF-8 is the only encoding that can be asked for");
  }
  EXPECT_EQ(namesIn(folder.path()), Names{});
}

TEST(XmlFileWriteTest, FilesThatCouldNotBeReadAreNotWritten) {
  TemporaryFolder const folder;
  auto const inflate = [](std::string& bytes) {
    bytes.assign((512UL << 20) + 1, 'x');
    return true;
  };
  EXPECT_EQ(write(folder.wide("file"), L"x", nullptr, inflate),
            failure(L"write", folder.wide("file"), EFBIG));
  EXPECT_EQ(namesIn(folder.path()), Names{});
}

TEST(XmlFileWriteTest, SymbolicLinksAreFollowed) {
  TemporaryFolder const folder;
  makeFile(folder / "file", "old");
  ASSERT_EQ(::symlink("file", (folder / "link").c_str()), 0);
  EXPECT_EQ(write(folder.wide("link"), L"new"), L"written");
  EXPECT_EQ(fileBytes(folder / "file"), "new");
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
}

TEST(XmlFileWriteTest, ExceptionSaysWhereToLook) {
  TemporaryFolder const folder;
  try {
    WriteBufferToFile(wide(folder.path()), L"x", UTF_8, nullptr, nullptr);
    ADD_FAILURE() << "no exception";
  } catch (std::exception const& exception) {
    EXPECT_STREQ(exception.what(), "cannot write XML; GetLastXmlErrorMessage() says why");
  }
}

TEST(XmlConvertTest, Utf8BecomesWideText) {
  struct Row {
    std::string_view utf8;
    std::wstring_view text;
  };

  constexpr std::array kRows{
      Row{""sv, L""sv},
      Row{"a\xC3\xA9\xF0\x9F\x98\x80"sv, L"a\u00E9\U0001F600"sv},
      Row{"a\0b"sv, L"a\0b"sv},
      Row{"\xEF\xBB\xBF\x61"sv, L"a"sv},
      Row{"\xEF\xBB\xBF\xEF\xBB\xBF"sv, L"\uFEFF"sv},
      Row{"a\xEF\xBB\xBF"sv, L"a\uFEFF"sv},
  };
  for (Row const& row : kRows) {
    std::wstring text = L"before";
    UTF_ENCODINGS encoding = UTF_8;
    EXPECT_EQ(ConvertBufferToUnicode(row.utf8.data(), row.utf8.size(), text, encoding), 0);
    EXPECT_EQ(text, row.text);
    EXPECT_EQ(encoding, UTF_8);
  }
}

TEST(XmlConvertTest, NullBytesAreNoText) {
  std::wstring text = L"before";
  UTF_ENCODINGS encoding = UTF_8;
  EXPECT_EQ(ConvertBufferToUnicode(nullptr, 0, text, encoding), 0);
  EXPECT_EQ(text, L"");
}

TEST(XmlConvertTest, InvalidUtf8IsLocatedAndLeavesTheText) {
  struct Row {
    std::string_view utf8;
    wchar_t const* message;
  };

  constexpr std::array kRows{
      Row{"\x80"sv, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
      Row{"a\n\xC3\xA9\xE2\x82"sv, L"invalid UTF-8 at byte offset 4, line 2, column 2"},
      Row{"\xEF\xBB\xBF\xFF"sv, L"invalid UTF-8 at byte offset 3, line 1, column 1"},
      Row{"\xFE\xFF\0\x61"sv, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
      Row{"\xFF\xFE\x61\0"sv, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
      Row{"\xED\xA0\x80"sv, L"invalid UTF-8 at byte offset 0, line 1, column 1"},
  };
  for (Row const& row : kRows) {
    std::wstring text = L"before";
    UTF_ENCODINGS encoding = UTF_8;
    EXPECT_EQ(ConvertBufferToUnicode(row.utf8.data(), row.utf8.size(), text, encoding), -1);
    EXPECT_EQ(text, L"before");
    EXPECT_STREQ(GetLastXmlErrorMessage(), row.message);
  }
}

TEST(XmlConvertTest, WideTextBecomesUtf8WithoutMark) {
  for (auto const& [text, expected] :
       {std::pair{L""s, ""s}, std::pair{L"a\0\u00E9\U0001F600"s, "a\0\xC3\xA9\xF0\x9F\x98\x80"s}}) {
    std::string utf8 = "before";
    UTF_ENCODINGS encoding = UTF_8;
    EXPECT_TRUE(ConvertBufferToUtf8(text, utf8, encoding));
    EXPECT_EQ(utf8, expected);
    EXPECT_EQ(encoding, UTF_8);
  }
}

TEST(XmlConvertTest, CharactersThatAreNoneAreLocatedAndLeaveTheBytes) {
  std::string utf8 = "before";
  UTF_ENCODINGS encoding = UTF_8;
  EXPECT_FALSE(ConvertBufferToUtf8(std::wstring{L'a', L'\n', L'b', kSurrogate}, utf8, encoding));
  EXPECT_EQ(utf8, "before");
  EXPECT_STREQ(GetLastXmlErrorMessage(),
               L"character 0xd800 at line 2, column 2 is no Unicode character");
}

TEST(XmlConvertTest, OnlyUtf8CanBeAskedFor) {
  for (UTF_ENCODINGS const asked : {UTF_16_BE, UTF_16_LE, UTF_32_BE, UTF_32_LE}) {
    UTF_ENCODINGS encoding = asked;
    std::wstring text = L"before";
    EXPECT_EQ(ConvertBufferToUnicode("x", 1, text, encoding), -1);
    EXPECT_EQ(text, L"before");
    EXPECT_STREQ(GetLastXmlErrorMessage(), L"UTF-8 is the only encoding that can be asked for");
    UTF_ENCODINGS good = UTF_8;
    ConvertBufferToUnicode("\xFF", 1, text, good);
    encoding = asked;
    std::string utf8 = "before";
    EXPECT_FALSE(ConvertBufferToUtf8(L"x", utf8, encoding));
    EXPECT_EQ(utf8, "before");
    EXPECT_STREQ(GetLastXmlErrorMessage(), L"UTF-8 is the only encoding that can be asked for");
  }
}

/// Makes this thread's last message.
void failOnce(char const* utf8) {
  std::wstring text;
  UTF_ENCODINGS encoding = UTF_8;
  EXPECT_LT(ConvertBufferToUnicode(utf8, std::strlen(utf8), text, encoding), 0);
}

constexpr wchar_t kAtOffset1[] = L"invalid UTF-8 at byte offset 1, line 1, column 2";
constexpr wchar_t kAtOffset2[] = L"invalid UTF-8 at byte offset 2, line 1, column 3";

TEST(XmlErrorMessageTest, EachThreadHasItsOwn) {
  failOnce("a\xFF");
  std::thread([] {
    EXPECT_STREQ(GetLastXmlErrorMessage(), L"");
    failOnce("ab\xFF");
    EXPECT_STREQ(GetLastXmlErrorMessage(), kAtOffset2);
  }).join();
  EXPECT_STREQ(GetLastXmlErrorMessage(), kAtOffset1);
}

TEST(XmlErrorMessageTest, SuccessLeavesIt) {
  failOnce("a\xFF");
  std::wstring text;
  UTF_ENCODINGS encoding = UTF_8;
  ASSERT_EQ(ConvertBufferToUnicode("a", 1, text, encoding), 0);
  EXPECT_STREQ(GetLastXmlErrorMessage(), kAtOffset1);
}

TEST(XmlErrorMessageTest, MayBeUsedWhileAThreadEnds) {
  static std::wstring message;
  pthread_key_t key{};
  // Such destructors run after those of thread_local objects.
  auto const lastWords = [](void* /*value*/) {
    message = GetLastXmlErrorMessage();
    failOnce("ab\xFF");
    message.append(L"; ").append(GetLastXmlErrorMessage());
  };
  ASSERT_EQ(::pthread_key_create(&key, lastWords), 0);
  std::thread([&] {
    failOnce("a\xFF");
    ASSERT_EQ(::pthread_setspecific(key, &key), 0);
  }).join();
  ::pthread_key_delete(key);
  EXPECT_EQ(message, std::wstring(kAtOffset1) + L"; " + kAtOffset2);
}

TEST(XmlErrorMessageTest, MiddleOfALongMessageGivesWay) {
  LocaleScope const locale("C");
  std::wstring const start = L"cannot open /";
  std::wstring const end = L": File name too long";
  std::size_t const room = 1023 - start.size() - end.size();
  EXPECT_EQ(readFailure(L"/" + std::wstring(room, L'n')), start + std::wstring(room, L'n') + end);

  std::wstring const cut = readFailure(L"/" + std::wstring(room + 1, L'n'));
  EXPECT_EQ(cut.size(), 1023U);
  EXPECT_EQ(cut.substr(0, 509), start + std::wstring(509 - start.size(), L'n'));
  EXPECT_EQ(cut.substr(509, 3), L"...");
  EXPECT_EQ(cut.substr(512), std::wstring(511 - end.size(), L'n') + end);
}

}  // namespace

}  // namespace AdvXMLParser
