#include "tests/file/file_support.h"
#include "tests/support/locale_scope.h"
#include "tests/support/own_logger.h"
#include "tests/support/own_malloc.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"
#include "tests/text/made_locale.h"

#include <vrxutil/file.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::test {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

static_assert(kIsPlainAndUnique<AFile>);
static_assert(sizeof(AFile) == sizeof(void*) + sizeof(AString));
static_assert(std::is_same_v<decltype(&AFile::open), bool (AFile::*)(bool, AString const&)>);
static_assert(std::is_same_v<decltype(&AFile::openWrite), bool (AFile::*)(AString const&, bool)>);
static_assert(std::is_same_v<decltype(&AFile::openAlways), bool (AFile::*)(AString const&)>);
static_assert(std::is_same_v<decltype(&AFile::readLine), bool (AFile::*)(AString&)>);
static_assert(std::is_same_v<decltype(&AFile::writeLine), bool (AFile::*)(AString const&)>);
static_assert(std::is_same_v<decltype(&AFile::seek), bool (AFile::*)(int)>);

constexpr wchar_t kGroup[] = L"File";

/// More than a stream buffers.
constexpr int kLong = 1 << 20;

constexpr unsigned char kBytes[] = {'a', 0, 0xFF, '\r', '\n', 'b'};
constexpr int kByteCount = sizeof kBytes;

std::string text(ABuffer const& buffer) { return buffer.cpp_str(); }

/// A file with contents, in a folder of its own.
class SampleFile {
public:
  explicit SampleFile(std::string const& bytes) { makeFile(narrow, bytes); }

private:
  TemporaryFolder folder_;

public:
  std::string const narrow = folder_ / "file";
  std::wstring const path = folder_.wide("file");
};

/// A file that is open for reading.
struct FileToRead : AFile {
  explicit FileToRead(std::wstring const& name) { EXPECT_TRUE(open(true, name)); }
};

/// A file that is open for writing, and empty.
struct FileToWrite : AFile {
  explicit FileToWrite(std::wstring const& name) { EXPECT_TRUE(openAlways(name)); }
};

/// The records of a failure to open with `mode`.
Records failedOpen(std::wstring const& mode, std::wstring const& path, int number) {
  return failedCall(kGroup, L"fopen," + mode + L"," + path, reason(number));
}

Records failedSeek(std::wstring const& origin, std::wstring const& path, int number) {
  return failedCall(kGroup, L"fseek," + origin + L"," + path, reason(number));
}

/// The records of a failure to write `count` bytes.
Records failedWrite(std::wstring const& count, std::wstring const& path, int number) {
  return failedCall(kGroup, L"fwrite," + count + L"," + path, reason(number));
}

struct Line {
  bool isRead;
  std::wstring text;
  bool operator==(Line const&) const = default;
};

void PrintTo(Line const& line, std::ostream* out) {
  *out << line.isRead << ' ' << testing::PrintToString(line.text);
}

Line nextLine(AFile& file) {
  AString line(L"old");
  bool const isRead = file.readLine(line);
  return {isRead, line.const_cpp_str()};
}

/// Makes `line` the only one of a file; the bytes that it is then.
std::string bytesOfLine(SampleFile const& sample, std::wstring const& line) {
  FileToWrite file(sample.path);
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.writeLine(line)); }), Records());
  file.close();
  return fileBytes(sample.narrow);
}

/// What readLine() gives, up to and with the first false.
std::vector<Line> linesOf(std::wstring const& path) {
  FileToRead file(path);
  std::vector<Line> lines;
  do {
    lines.push_back(nextLine(file));
  } while (lines.back().isRead);
  return lines;
}

TEST(AFileTest, StartsClosedAndClosesQuietly) {
  EXPECT_EQ(recordsOf([] {
              AFile file;
              EXPECT_FALSE(file.isOpen());
              file.close();
              file.close();
              EXPECT_FALSE(file.isOpen());
            }),
            Records());
}

TEST(AFileTest, OpensForReading) {
  SampleFile const sample("text");
  AFile file;
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.open(false, sample.path)); }),
            scopes(kGroup, {L"fopen,r," + sample.path}));
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(nextLine(file), (Line{true, L"text"}));
}

TEST(AFileTest, MissingFileIsQuietUnlessAsked) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("missing");
  AFile file;
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.open(false, path)); }),
            scopes(kGroup, {L"fopen,r," + path}));
  EXPECT_FALSE(file.isOpen());
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.open(true, path)); }),
            failedOpen(L"r", path, ENOENT));
  EXPECT_FALSE(file.isOpen());
}

struct BadPath {
  char const* label;
  std::string name;
  int number;
};

void PrintTo(BadPath const& row, std::ostream* out) { *out << row.label; }

class BadPathTest : public testing::TestWithParam<BadPath> {
protected:
  BadPathTest() {
    makeFile(folder_ / "file", "text");
    fs::create_symlink("loop", folder_ / "loop");
    fs::create_directory(folder_ / "folder");
    EXPECT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  }

  std::wstring path() const { return folder_.wide(GetParam().name); }

private:
  TemporaryFolder folder_;
};

class AFileBadPathToReadTest : public BadPathTest {};

TEST_P(AFileBadPathToReadTest, IsReportedEvenIfMissingFilesAreNot) {
  for (bool const reportMissing : {false, true}) {
    AFile file;
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.open(reportMissing, path())); }),
              failedOpen(L"r", path(), GetParam().number));
    EXPECT_FALSE(file.isOpen());
  }
}

INSTANTIATE_TEST_SUITE_P(Reasons, AFileBadPathToReadTest,
                         testing::Values(BadPath{"FileAsFolder", "file/x", ENOTDIR},
                                         BadPath{"LinkToItself", "loop", ELOOP},
                                         BadPath{"LongName", std::string(300, 'n'), ENAMETOOLONG}),
                         [](auto const& test) { return std::string(test.param.label); });

class AFileBadPathToWriteTest : public BadPathTest {};

TEST_P(AFileBadPathToWriteTest, IsReported) {
  for (bool const append : {false, true}) {
    AFile file;
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.openWrite(path(), append)); }),
              failedOpen(append ? L"a" : L"w", path(), GetParam().number));
    EXPECT_FALSE(file.isOpen());
  }
}

INSTANTIATE_TEST_SUITE_P(Reasons, AFileBadPathToWriteTest,
                         testing::Values(BadPath{"FileAsFolder", "file/x", ENOTDIR},
                                         BadPath{"MissingFolder", "none/x", ENOENT},
                                         BadPath{"Folder", "folder", EISDIR},
                                         BadPath{"LinkToItself", "loop", ELOOP},
                                         BadPath{"LongName", std::string(300, 'n'), ENAMETOOLONG},
                                         BadPath{"FifoWithoutReader", "fifo", ENXIO}),
                         [](auto const& test) { return std::string(test.param.label); });

/// An operation that takes a path: what it says of paths that lead to no file that
/// it may use; 0 where it succeeds. What writes says the same of most.
struct PathOperation {
  char const* label;
  bool (*run)(AString const&);
  int fifo = ENXIO;   // nobody has it open
  int fifoInUse = 0;  // somebody has, but neither reads nor writes
  int folder = EISDIR;
};

void PrintTo(PathOperation const& row, std::ostream* out) { *out << row.label; }

/// An error whose number depends on the file system.
constexpr int kSomeError = -1;

bool openWriteTo(AString const& path, bool append) { return AFile().openWrite(path, append); }

bool readWhole(AString const& path) {
  ABuffer contents("");
  return AFile::read(/*reportMissing=*/false, path, contents);
}

// Both write kBytes.
bool writeBytes(AString const& path) { return AFile::write(path, kBytes, kByteCount); }

bool writeBuffer(AString const& path) { return AFile::write(path, ABuffer(kByteCount, kBytes)); }

class AFilePathTest : public testing::TestWithParam<PathOperation> {
protected:
  /// The error that is reported; 0 for a success, which reports nothing.
  static Records errorsOf(std::wstring const& path, int number) {
    LogRecorder const log;
    EXPECT_EQ(GetParam().run(path), number == 0);
    return log.plainErrors();
  }

  static Records expected(int number) {
    return number == 0 ? Records() : Records{errorRecord(kGroup, reason(number))};
  }
};

// In a child, which ends when it hangs.
TEST_P(AFilePathTest, NeverWaitsForWhatIsNoFile) {
  EXPECT_TRUE(holdsUnprivileged([] {
    TemporaryFolder const own;
    PathOperation const& row = GetParam();
    for (char const* const name : {"fifo", "in-use"}) {
      ASSERT_EQ(::mkfifo((own / name).c_str(), 0600), 0);
    }
    int const partner = ::open((own / "in-use").c_str(), O_RDWR);
    ASSERT_GE(partner, 0);
    fs::create_directory(own / "folder");
    makeFile(own / "closed", "text");
    ASSERT_EQ(::chmod((own / "closed").c_str(), 0), 0);
    EXPECT_EQ(errorsOf(own.wide("fifo"), row.fifo), expected(row.fifo));
    EXPECT_EQ(errorsOf(own.wide("in-use"), row.fifoInUse), expected(row.fifoInUse));
    if (row.folder == kSomeError) {
      EXPECT_EQ(errorsOf(own.wide("folder"), row.folder).size(), 1U);
    } else {
      EXPECT_EQ(errorsOf(own.wide("folder"), row.folder), expected(row.folder));
    }
    EXPECT_EQ(errorsOf(own.wide("closed"), EACCES), expected(EACCES));
    ::close(partner);
    ASSERT_EQ(::chmod((own / "closed").c_str(), 0600), 0);
    EXPECT_EQ(fileBytes(own / "closed"), "text");
  }));
}

INSTANTIATE_TEST_SUITE_P(
    Operations, AFilePathTest,
    testing::Values(
        PathOperation{"Open", [](AString const& path) { return AFile().open(false, path); }, 0, 0,
                      0},
        PathOperation{"OpenAlways", [](AString const& path) { return AFile().openAlways(path); }},
        PathOperation{"OpenWrite", [](AString const& path) { return openWriteTo(path, false); }},
        PathOperation{"Append", [](AString const& path) { return openWriteTo(path, true); }},
        PathOperation{"Read", &readWhole, ESPIPE, ESPIPE, kSomeError},
        PathOperation{"WriteBytes", &writeBytes}, PathOperation{"WriteBuffer", &writeBuffer}),
    [](auto const& test) { return std::string(test.param.label); });

TEST(AFileTest, EmptyPathIsAMissingFile) {
  AFile file;
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.open(false, L"")); }), scopes(kGroup, {L"fopen,r,"}));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.openAlways(L"")); }), failedOpen(L"w", L"", ENOENT));
}

TEST(AFileTest, PathEndsAtItsNul) {
  SampleFile const sample("text");
  AFile file;
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.open(false, sample.path + L'\0' + L"more")); }),
            scopes(kGroup, {L"fopen,r," + sample.path}));
}

TEST(AFileTest, PathIsNarrowedInTheLocale) {
  LocaleScope const locale("C.UTF-8");
  TemporaryFolder const folder;
  AFile file;
  ASSERT_TRUE(file.openAlways(folder.wide("") + L"\u00e4\u20ac"));
  EXPECT_TRUE(fs::exists(folder / "\xC3\xA4\xE2\x82\xAC"));
}

// The trace of an operation on a closed file shows the path that is stored.
TEST(AFileTest, FailedOpenClosesAndStoresTheNewPath) {
  SampleFile const sample("text");
  TemporaryFolder const folder;
  std::wstring const missing = folder.wide("missing");
  FileToRead file(sample.path);
  ASSERT_FALSE(file.open(false, missing));
  EXPECT_FALSE(file.isOpen());
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.seekBegin()); }), failedSeek(L"0", missing, EBADF));
}

TEST(AFileTest, CloseForgetsThePathOfAnOpenFileAndOfAFailedOpen) {
  SampleFile const sample("text");
  for (std::wstring const& path : {sample.path, sample.path + L"-missing"}) {
    AFile file;
    EXPECT_EQ(file.open(false, path), path == sample.path);
    EXPECT_EQ(recordsOf([&] { file.close(); }), Records());
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.seekBegin()); }), failedSeek(L"0", L"", EBADF));
  }
}

TEST(AFileTest, OpenClosesTheFileBefore) {
  SampleFile const first("");
  SampleFile const second("second");
  FileToWrite file(first.path);
  ASSERT_TRUE(file.writeLine(L"first"));
  ASSERT_TRUE(file.open(true, second.path));
  EXPECT_EQ(fileBytes(first.narrow), "first\n");
  EXPECT_EQ(nextLine(file), (Line{true, L"second"}));
  ASSERT_TRUE(file.openWrite(first.path, /*append=*/true));
  EXPECT_TRUE(file.writeLine(L"more"));
  file.close();
  EXPECT_EQ(fileBytes(first.narrow), "first\nmore\n");
}

TEST(AFileTest, DestructorClosesTheFile) {
  SampleFile const sample("");
  EXPECT_EQ(recordsOf([&] {
              AFile file;
              EXPECT_TRUE(file.openAlways(sample.path));
              EXPECT_TRUE(file.writeLine(L"line"));
            }),
            scopes(kGroup, {L"fopen,w," + sample.path}));
  EXPECT_EQ(fileBytes(sample.narrow), "line\n");
}

/// A logger that fails.
class ThrowingLogger final : public OwnLogger {
public:
  void logMessage(LogLevel const& /*level*/, std::wstring const& /*group*/,
                  std::wstring const& /*message*/) override {
    throw std::bad_alloc();
  }
};

TEST(AFileTest, LoggerThatThrowsPassesThroughCloseButNotTheDestructor) {
  EXPECT_TRUE(holdsInChild([] {
    AFile closed;
    AFile destroyed;
    for (AFile* const file : {&closed, &destroyed}) {
      ASSERT_TRUE(file->openAlways(L"/dev/full"));
      ASSERT_TRUE(file->writeLine(L"short"));
    }
    ThrowingLogger const log;
    EXPECT_THROW(closed.close(), std::bad_alloc);
    EXPECT_FALSE(closed.isOpen());
    destroyed.~AFile();
    ::new (&destroyed) AFile;
  }));
}

TEST(AFileTest, OpenWriteAppends) {
  SampleFile const sample("old\n");
  AFile file;
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.openWrite(sample.path, /*append=*/true)); }),
            scopes(kGroup, {L"fopen,a," + sample.path}));
  EXPECT_TRUE(file.isOpen());
  EXPECT_TRUE(file.seekBegin());  // has no effect on what is appended
  EXPECT_TRUE(file.writeLine(L"new"));
  file.close();
  EXPECT_EQ(fileBytes(sample.narrow), "old\nnew\n");
}

TEST(AFileTest, OpenWriteAndOpenAlwaysTruncate) {
  SampleFile const sample("old");
  AFile file;
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.openWrite(sample.path, /*append=*/false)); }),
            scopes(kGroup, {L"fopen,w," + sample.path}));
  EXPECT_EQ(fileBytes(sample.narrow), "");
  file.close();
  makeFile(sample.narrow, "old");
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.openAlways(sample.path)); }),
            scopes(kGroup, {L"fopen,w," + sample.path}));
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(fileBytes(sample.narrow), "");
}

TEST(AFileTest, NewFileHasTheModeThatTheUmaskLeaves) {
  TemporaryFolder const folder;
  UmaskScope const mask(027);
  for (bool const append : {false, true}) {
    std::string const name = append ? "appended" : "written";
    AFile file;
    EXPECT_TRUE(file.openWrite(folder.wide(name), append));

    struct stat status {};

    ASSERT_EQ(::stat((folder / name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(status.st_size, 0);
  }
}

#ifdef __linux__

TEST(AFileTest, ProgramsStartedFromHereDoNotInheritTheFile) {
  SampleFile const sample("text");
  FileToRead file(sample.path);
  int count = 0;
  for (fs::directory_entry const& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;  // the iterator's own entry
    if (fs::read_symlink(entry.path(), ignored) != fs::canonical(sample.narrow)) continue;
    ++count;
    EXPECT_NE(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(count, 1);
}

#endif

struct LineCase {
  char const* label;
  std::string bytes;
  std::vector<Line> lines;
};

void PrintTo(LineCase const& row, std::ostream* out) { *out << row.label; }

class AFileReadLineTest : public testing::TestWithParam<LineCase> {};

TEST_P(AFileReadLineTest, CutsAtLineFeeds) {
  SampleFile const sample(GetParam().bytes);
  std::vector<std::wstring> texts{L"fopen,r," + sample.path};
  texts.resize(1 + GetParam().lines.size(), L"getc," + sample.path);
  EXPECT_EQ(recordsOf([&] { EXPECT_EQ(linesOf(sample.path), GetParam().lines); }),
            scopes(kGroup, texts));  // one for a line, none for a byte
}

INSTANTIATE_TEST_SUITE_P(
    Contents, AFileReadLineTest,
    testing::Values(
        LineCase{"Nothing", "", {{false, L""}}},
        LineCase{"EmptyLine", "\n", {{true, L""}, {false, L""}}},
        LineCase{"LineFeedAtTheEnd", "a\nb\n", {{true, L"a"}, {true, L"b"}, {false, L""}}},
        LineCase{"NoLineFeedAtTheEnd", "a\nb", {{true, L"a"}, {true, L"b"}, {false, L""}}},
        LineCase{"CarriageReturn", "a\r\nb", {{true, L"a\r"}, {true, L"b"}, {false, L""}}},
        LineCase{"CarriageReturnAlone", "a\rb", {{true, L"a\rb"}, {false, L""}}},
        LineCase{"EmptyLinesBetween",
                 "a\n\n\nb",
                 {{true, L"a"}, {true, L""}, {true, L""}, {true, L"b"}, {false, L""}}},
        LineCase{"ControlCharacters", "\x01\t\x7F\n", {{true, L"\x01\t\x7F"}, {false, L""}}},
        LineCase{"LongLine",
                 std::string(300000, 'x') + "\ny",
                 {{true, std::wstring(300000, L'x')}, {true, L"y"}, {false, L""}}}),
    [](auto const& test) { return std::string(test.param.label); });

TEST(AFileTest, ReadLineStaysAtTheEnd) {
  SampleFile const sample("a");
  FileToRead file(sample.path);
  EXPECT_EQ(nextLine(file), (Line{true, L"a"}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(nextLine(file), (Line{false, L""}));
  EXPECT_TRUE(file.isOpen());
}

/// What a byte that is no character leaves in the log.
Records unconverted(std::wstring const& path) {
  return errorInside(scopes(kGroup, {L"getc," + path}), L"String",
                     L"couldn't convert a wide character");
}

TEST(AFileTest, ReadLineReportsANulAndAppendsIt) {
  SampleFile const sample("a\0b\n"s);
  FileToRead file(sample.path);
  EXPECT_EQ(recordsOf([&] {
              EXPECT_EQ(nextLine(file), (Line{true, L"a\0b"s}));
            }),
            scopes(kGroup, {L"getc," + sample.path}) + unconverted(sample.path));
}

TEST(AFileTest, ReadLineReportsEachByteOfASequence) {
  LocaleScope const locale("C.UTF-8");
  SampleFile const sample(
      "a\xE2\x82\xAC"
      "b\n");
  FileToRead file(sample.path);
  EXPECT_EQ(recordsOf([&] {
              EXPECT_EQ(nextLine(file), (Line{true, L"a\0\0\0b"s}));
            }),
            scopes(kGroup, {L"getc," + sample.path}) + unconverted(sample.path) +
                unconverted(sample.path) + unconverted(sample.path));
}

TEST(AFileTest, WrittenLineAboveAsciiDoesNotReadBackInUtf8) {
  LocaleScope const locale("C.UTF-8");
  SampleFile const sample("");
  EXPECT_EQ(bytesOfLine(sample, L"\u00e4"), "\xC3\xA4\n");
  LogRecorder const dropped;
  EXPECT_EQ(linesOf(sample.path), (std::vector<Line>{{true, L"\0\0"s}, {false, L""}}));
}

/// Each byte but the line feed, as convertOne() gives it, in a locale.
class AFileReadLineLocaleTest : public testing::TestWithParam<LocaleChoice> {};

TEST_P(AFileReadLineLocaleTest, ConvertsEachByteAlone) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') bytes += static_cast<char>(byte);
  }
  SampleFile const sample(bytes);
  FileToRead file(sample.path);  // before the locale, which may lack ASCII

  ChosenLocale const locale(GetParam());
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  LogRecorder const dropped;
  std::wstring characters;
  for (char const byte : bytes) characters += convertOne(byte);
  EXPECT_EQ(nextLine(file), (Line{true, characters}));
}

INSTANTIATE_TEST_SUITE_P(Locales, AFileReadLineLocaleTest,
                         testing::Values(kPlainC, kUtf8, kLatin1, kShiftJis, kEbcdic),
                         [](auto const& test) { return std::string(test.param.label); });

TEST(AFileTest, SingleByteEncodingReadsBackAsWritten) {
  ChosenLocale const locale(kLatin1);
  if (!locale.whyMissing().empty()) GTEST_SKIP() << locale.whyMissing();
  SampleFile const sample("");
  EXPECT_EQ(bytesOfLine(sample, L"\u00e4\u00ff\u00a0"), "\xE4\xFF\xA0\n");
  EXPECT_EQ(linesOf(sample.path), (std::vector<Line>{{true, L"\u00e4\u00ff\u00a0"}, {false, L""}}));
}

TEST(AFileTest, ReadLineReportsAnErrorEachTime) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("");
  FileToRead file(path);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(recordsOf([&] {
                EXPECT_EQ(nextLine(file), (Line{false, L""}));
              }),
              failedCall(kGroup, L"getc," + path, reason(EISDIR)));
  }
  EXPECT_TRUE(file.isOpen());
}

TEST(AFileTest, ReadLineOfAFileOpenForWritingFails) {
  SampleFile const sample("");
  FileToWrite file(sample.path);
  EXPECT_EQ(recordsOf([&] {
              EXPECT_EQ(nextLine(file), (Line{false, L""}));
            }),
            failedCall(kGroup, L"getc," + sample.path, reason(EBADF)));
}

TEST(AFileTest, WriteLineAddsOneLineFeedAndLogsNothing) {
  SampleFile const sample("");
  FileToWrite file(sample.path);
  EXPECT_EQ(recordsOf([&] {
              EXPECT_TRUE(file.writeLine(L"a"));
              EXPECT_TRUE(file.writeLine(L""));
              EXPECT_TRUE(file.writeLine(L"b\r"));
              EXPECT_TRUE(file.writeLine(L"c\nd"));
              EXPECT_TRUE(file.writeLine(L"e\0f"s));
              file.close();
            }),
            Records());
  EXPECT_EQ(fileBytes(sample.narrow), "a\n\nb\r\nc\nd\ne\n");
}

TEST(AFileTest, WriteLineWritesAQuestionMarkForWhatTheLocaleLacks) {
  LocaleScope const locale("C");
  EXPECT_EQ(bytesOfLine(SampleFile(""), L"a\u00e4b"), "a?b\n");
}

TEST(AFileTest, WriteLineReportsAFullDevice) {
  FileToWrite file(L"/dev/full");
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.writeLine(std::wstring(kLong, L'x'))); }),
            errorInside({}, kGroup, reason(ENOSPC)));
  EXPECT_TRUE(file.isOpen());
}

TEST(AFileTest, CloseReportsWhatCannotBeFlushed) {
  FileToWrite file(L"/dev/full");
  EXPECT_TRUE(file.writeLine(L"short"));
  EXPECT_EQ(recordsOf([&] { file.close(); }), errorInside({}, kGroup, reason(ENOSPC)));
  EXPECT_FALSE(file.isOpen());
  EXPECT_EQ(recordsOf([&] { file.close(); }), Records());
}

TEST(AFileTest, SeeksToBeginningAndEnd) {
  SampleFile const sample("a\nb");
  FileToRead file(sample.path);
  EXPECT_EQ(nextLine(file).text, L"a");
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.seekBegin()); }),
            scopes(kGroup, {L"fseek,0," + sample.path}));
  EXPECT_EQ(nextLine(file).text, L"a");
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.seekEnd()); }),
            scopes(kGroup, {L"fseek,2," + sample.path}));
  EXPECT_EQ(nextLine(file), (Line{false, L""}));
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.seek(0)); }),
            scopes(kGroup, {L"fseek,0," + sample.path}));
  EXPECT_EQ(nextLine(file).text, L"a");
  EXPECT_TRUE(file.seek(2));
  EXPECT_EQ(nextLine(file), (Line{false, L""}));
}

TEST(AFileTest, SeekReportsAnUnknownOrigin) {
  SampleFile const sample("text");
  FileToRead file(sample.path);
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.seek(77)); }),
            failedSeek(L"77", sample.path, EINVAL));
  EXPECT_TRUE(file.isOpen());
}

/// What read(ABuffer&) logs of a file that is open.
Records wholeRead(std::wstring const& path) {
  return scopes(kGroup,
                {L"ftell," + path, L"fseek,2," + path, L"fseek,0," + path, L"fread," + path});
}

TEST(AFileTest, ReadsTheWholeFileFromAnywhere) {
  std::string const bytes = "a\0\xFF\r\nb"s;
  SampleFile const sample(bytes);
  FileToRead file(sample.path);
  for (int i = 0; i < 2; ++i) {
    ABuffer contents("what was here before, longer");
    EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.read(contents)); }), wholeRead(sample.path));
    EXPECT_EQ(text(contents), bytes);
  }
}

TEST(AFileTest, ReadsALargeFile) {
  std::string bytes(3'000'001, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 >> 3);
  SampleFile const sample(bytes);
  ABuffer contents("");
  EXPECT_TRUE(AFile::read(true, sample.path, contents));
  EXPECT_TRUE(text(contents) == bytes);
}

TEST(AFileTest, EmptyFileGivesAnEmptyBuffer) {
  SampleFile const sample("");
  FileToRead file(sample.path);
  ABuffer contents("old");
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(file.read(contents)); }), wholeRead(sample.path));
  EXPECT_EQ(contents.size(), 0UL);
}

/// What a read logs that fails in its first seek, to the end.
Records failedFirstSeek(std::wstring const& path, int number) {
  Records const open = scopes(kGroup, {L"ftell," + path, L"fseek,2," + path});
  return open + errorInside(open, kGroup, reason(number));
}

TEST(AFileTest, ReadOfAFifoFailsInItsFirstSeek) {
  TemporaryFolder const folder;
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  std::wstring const path = folder.wide("fifo");
  FileToRead file(path);  // waits for no writer
  ABuffer contents("old");
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.read(contents)); }), failedFirstSeek(path, ESPIPE));
  EXPECT_EQ(text(contents), "old");
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(recordsOf([&] {
              EXPECT_EQ(nextLine(file), (Line{false, L""}));
            }),
            scopes(kGroup, {L"getc," + path}));
}

TEST(AFileTest, ReadOfAFileOpenForWritingFails) {
  SampleFile const sample("text");
  AFile file;
  ASSERT_TRUE(file.openWrite(sample.path, /*append=*/true));
  ABuffer contents("old");
  // The scope that "ftell" opened says "fread" by now.
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.read(contents)); }),
            wholeRead(sample.path) +
                errorInside(scopes(kGroup, {L"fread," + sample.path}), kGroup, reason(EBADF)));
  EXPECT_TRUE(file.isOpen());
}

TEST(AFileTest, ReadOfAFolderFails) {
  TemporaryFolder const folder;
  ABuffer contents("");
  LogRecorder const log;
  EXPECT_FALSE(AFile::read(true, folder.wide(""), contents));
  EXPECT_EQ(log.plainErrors().size(), 1U);  // which one, depends on the file system
}

#ifdef __linux__

TEST(AFileTest, FileShorterThanItsSizeIsAnError) {
  constexpr wchar_t kPath[] = L"/sys/devices/system/cpu/online";  // says 4096 bytes
  AFile file;
  if (!file.open(false, kPath)) GTEST_SKIP() << "no sysfs";
  ABuffer contents("");
  EXPECT_EQ(
      recordsOf([&] { EXPECT_FALSE(file.read(contents)); }),
      wholeRead(kPath) + errorInside(scopes(kGroup, {L"fread,"s + kPath}), kGroup, reason(EIO)));
}

TEST(AFileTest, SizeWithoutRoomInMemoryIsTheBuffersError) {
#ifdef VRXUTIL_OWN_MALLOC
  GTEST_SKIP() << kOwnMalloc;
#endif
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("huge");
  constexpr off_t kHuge = std::numeric_limits<off_t>::max() - 4095;
  expectOnMount(
      folder.path(), 0,
      [&] {
        makeFile(folder / "huge", "");
        ASSERT_EQ(::truncate((folder / "huge").c_str(), kHuge), 0);
      },
      [&] {
        FileToRead file(path);
        LogRecorder const log;
        ABuffer contents("old");
        EXPECT_FALSE(file.read(contents));
        ASSERT_EQ(log.plainErrors().size(), 1U);
        EXPECT_EQ(log.plainErrors()[0].group, L"Buffer");
        EXPECT_TRUE(log.plainErrors()[0].message.ends_with(L" trying to allocate " +
                                                           std::to_wstring(kHuge) + L" bytes"));
        EXPECT_EQ(text(contents), "old");
      });
}

TEST(AFileTest, FullFileSystemIsReported) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("file");
  expectOnMount(
      folder.path(), 0, [] {},
      [&] {
        EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFile::write(path, ABuffer(kLong, nullptr))); }),
                  scopes(kGroup, {L"fopen,w," + path}) +
                      failedWrite(std::to_wstring(kLong), path, ENOSPC));
      });
}

TEST(AFileTest, ReadOnlyFileSystemIsReported) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("file");
  expectOnMount(
      folder.path(), MS_RDONLY, [&] { makeFile(folder / "file", "text"); },
      [&] {
        AFile file;
        EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.openAlways(path)); }),
                  failedOpen(L"w", path, EROFS));
        EXPECT_EQ(fileBytes(folder / "file"), "text");
      });
}

#endif

TEST(AFileTest, WritesBytesAndBuffers) {
  SampleFile const sample("");
  FileToWrite file(sample.path);
  EXPECT_EQ(recordsOf([&] {
              EXPECT_TRUE(file.write(kBytes, kByteCount));
              EXPECT_TRUE(file.write(kBytes, 1));
              EXPECT_TRUE(file.write(kBytes, 0));
              EXPECT_TRUE(file.write(nullptr, 0));
              EXPECT_TRUE(file.write(ABuffer("xyz")));
              EXPECT_TRUE(file.write(ABuffer("")));
            }),
            scopes(kGroup, {L"fwrite,6," + sample.path, L"fwrite,1," + sample.path,
                            L"fwrite,0," + sample.path, L"fwrite,0," + sample.path,
                            L"fwrite,3," + sample.path, L"fwrite,0," + sample.path}));
  file.close();
  EXPECT_EQ(fileBytes(sample.narrow), "a\0\xFF\r\nbaxyz"s);
}

TEST(AFileTest, WriteReportsAFullDevice) {
  FileToWrite file(L"/dev/full");
  ABuffer const contents(kLong, nullptr);
  Records const failure = failedWrite(std::to_wstring(kLong), L"/dev/full", ENOSPC);
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(contents)); }), failure);
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(contents.getBytes(), kLong)); }), failure);
}

TEST(AFileTest, WritesToAFileOpenForReadingFail) {
  SampleFile const sample("text");
  FileToRead file(sample.path);
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.writeLine(L"x")); }),
            errorInside({}, kGroup, reason(EBADF)));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(kBytes, kByteCount)); }),
            failedWrite(L"6", sample.path, EBADF));
  EXPECT_TRUE(file.isOpen());
  file.close();
  EXPECT_EQ(fileBytes(sample.narrow), "text");
}

TEST(AFileTest, SenselessCountsAreRefused) {
  SampleFile const sample("");
  FileToWrite file(sample.path);
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(kBytes, -1)); }),
            failedWrite(L"-1", sample.path, EINVAL));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(nullptr, 3)); }),
            failedWrite(L"3", sample.path, EINVAL));
  file.close();
  EXPECT_EQ(fileBytes(sample.narrow), "");
}

TEST(AFileTest, OperationsOnAClosedFileFail) {
  AFile file;
  ABuffer contents("old");
  EXPECT_EQ(recordsOf([&] {
              EXPECT_EQ(nextLine(file), (Line{false, L""}));
            }),
            failedCall(kGroup, L"getc,", reason(EBADF)));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.writeLine(L"x")); }),
            errorInside({}, kGroup, reason(EBADF)));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.seekEnd()); }), failedSeek(L"2", L"", EBADF));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.read(contents)); }), failedFirstSeek(L"", EBADF));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(kBytes, 3)); }), failedWrite(L"3", L"", EBADF));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(ABuffer(""))); }),
            failedWrite(L"0", L"", EBADF));
  EXPECT_EQ(text(contents), "old");
}

TEST(AFileTest, FifoWhoseReaderHasGoneIsAnErrorAndNoSignal) {
  TemporaryFolder const folder;
  std::string const narrow = folder / "fifo";
  std::wstring const path = folder.wide("fifo");
  ASSERT_EQ(::mkfifo(narrow.c_str(), 0600), 0);
  EXPECT_TRUE(holdsInChild([&] {
    ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
    int const reader = ::open(narrow.c_str(), O_RDONLY | O_NONBLOCK);
    FileToWrite file(path);
    ::close(reader);
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.write(ABuffer(kLong, nullptr))); }),
              failedWrite(std::to_wstring(kLong), path, EPIPE));
    EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(file.writeLine(std::wstring(kLong, L'x'))); }),
              errorInside({}, kGroup, reason(EPIPE)));
  }));
}

TEST(AFileTest, FileAtItsSizeLimitIsAnErrorAndNoSignal) {
  SampleFile const sample("");
  EXPECT_TRUE(holdsInChild([&] {
    rlimit const limit{100, 100};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    LogRecorder const log;
    EXPECT_FALSE(AFile::write(sample.path, ABuffer(200, nullptr)));
    EXPECT_EQ(log.plainErrors(), Records{errorRecord(kGroup, reason(EFBIG))});
  }));
}

TEST(AFileStaticTest, ReadsAWholeFile) {
  SampleFile const sample("a\0b\r\n"s);
  ABuffer contents("old");
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(AFile::read(false, sample.path, contents)); }),
            scopes(kGroup, {L"fopen,r," + sample.path}) + wholeRead(sample.path));
  EXPECT_EQ(text(contents), "a\0b\r\n"s);
}

TEST(AFileStaticTest, MissingFileIsQuietUnlessAsked) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("missing");
  ABuffer contents("old");
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFile::read(false, path, contents)); }),
            scopes(kGroup, {L"fopen,r," + path}));
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(AFile::read(true, path, contents)); }),
            failedOpen(L"r", path, ENOENT));
  EXPECT_EQ(text(contents), "old");
}

struct Writer {
  char const* label;
  bool (*run)(AString const&);
};

void PrintTo(Writer const& row, std::ostream* out) { *out << row.label; }

class AFileStaticWriteTest : public testing::TestWithParam<Writer> {
protected:
  static bool run(std::wstring const& path) { return GetParam().run(path); }
};

TEST_P(AFileStaticWriteTest, WritesAWholeFileOverWhatWasThere) {
  SampleFile const sample("old and longer");
  EXPECT_EQ(recordsOf([&] { EXPECT_TRUE(run(sample.path)); }),
            scopes(kGroup, {L"fopen,w," + sample.path, L"fwrite,6," + sample.path}));
  EXPECT_EQ(fileBytes(sample.narrow), "a\0\xFF\r\nb"s);
}

TEST_P(AFileStaticWriteTest, FailsWhereItCannotOpen) {
  TemporaryFolder const folder;
  std::wstring const path = folder.wide("none/file");
  EXPECT_EQ(recordsOf([&] { EXPECT_FALSE(run(path)); }), failedOpen(L"w", path, ENOENT));
}

TEST_P(AFileStaticWriteTest, FailsWhereItCannotFlush) {
  EXPECT_EQ(recordsOf([] { EXPECT_FALSE(run(L"/dev/full")); }),
            scopes(kGroup, {L"fopen,w,/dev/full", L"fwrite,6,/dev/full"}) +
                errorInside({}, kGroup, reason(ENOSPC)));
}

INSTANTIATE_TEST_SUITE_P(Forms, AFileStaticWriteTest,
                         testing::Values(Writer{"Bytes", &writeBytes},
                                         Writer{"Buffer", &writeBuffer}),
                         [](auto const& test) { return std::string(test.param.label); });

TEST(AFileStaticTest, EmptyBufferGivesAnEmptyFile) {
  SampleFile const sample("old");
  EXPECT_TRUE(AFile::write(sample.path, ABuffer("")));
  EXPECT_EQ(fileBytes(sample.narrow), "");
}

}  // namespace
}  // namespace vrxutil::test
