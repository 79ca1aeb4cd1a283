#include "tests/system/plug_in/plug_in_support.h"

#include <zulral/zulral.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#ifdef __ELF__
#include <link.h>
#endif

namespace vrxutil::test {
namespace {

/// A library until the end of the scope, or why there is none.
class Loaded {
public:
  explicit Loaded(std::string const& name) {
    char const* error = nullptr;
    handle_ = zulLoadLibrary(name.c_str(), &error);
    if (handle_ == nullptr) error_ = error != nullptr ? error : "(no text)";
  }

  ~Loaded() {
    if (handle_ != nullptr) {
      EXPECT_NE(zulFreeLibrary(handle_), 0);
    }
  }

  Loaded(Loaded const&) = delete;
  Loaded& operator=(Loaded const&) = delete;

  explicit operator bool() const { return handle_ != nullptr; }

  void* handle() const { return handle_; }

  std::string const& error() const { return error_; }

  void* address(char const* symbol) const {
    char const* error = nullptr;
    return zulGetProcAddress(handle_, symbol, &error);
  }

  std::string version() const {
    void* const found = address("plugInVersion");
    PlugInVersion function = nullptr;
    std::memcpy(&function, &found, sizeof function);
    return function != nullptr ? function() : "no version";
  }

  void countUnloadings(int& count) const {
    void* const found = address("plugInCountUnloading");
    PlugInCountUnloading function = nullptr;
    std::memcpy(&function, &found, sizeof function);
    ASSERT_NE(function, nullptr);
    function(&count);
  }

private:
  void* handle_ = nullptr;
  std::string error_;
};

constexpr char kCurrent[] = "4.6.0.1234";
constexpr char kOld[] = "4.5.65535.65535";

// --- Loading ----------------------------------------------------------------------------

TEST(ZulLoadLibraryTest, LoadsAPath) {
  Loaded const library(PLUG_IN);
  ASSERT_TRUE(library) << library.error();
  EXPECT_EQ(library.version(), kCurrent);
}

TEST(ZulLoadLibraryTest, MissingLibraryIsNamed) {
  PlugInFolder const folder;
  Loaded const library(folder / "missing.so");
  EXPECT_FALSE(library);
  EXPECT_NE(library.error().find(folder / "missing.so"), std::string::npos) << library.error();
}

TEST(ZulLoadLibraryTest, NoNameIsNoLibrary) {
  for (char const* const name : {static_cast<char const*>(nullptr), ""}) {
    char const* error = nullptr;
    EXPECT_EQ(zulLoadLibrary(name, &error), nullptr);
    EXPECT_STREQ(error, "no name of a library");
  }
}

TEST(ZulLoadLibraryTest, ErrorNeedNotBeAskedFor) {
  PlugInFolder const folder;
  std::filesystem::create_directory(folder / "folder.so");
  for (std::string const& name : {std::string(), folder / "missing.dylib", folder / "folder.so"}) {
    EXPECT_EQ(zulLoadLibrary(name.c_str(), nullptr), nullptr) << name;
  }
}

TEST(ZulLoadLibraryTest, FollowsSymbolicLinks) {
  PlugInFolder const folder;
  std::filesystem::create_symlink(PLUG_IN, folder / "link.so");
  Loaded const library(folder / "link.so");
  ASSERT_TRUE(library) << library.error();
  EXPECT_EQ(library.version(), kCurrent);
}

TEST(ZulLoadLibraryTest, NameWithoutASlashIsLookedForWhereTheHostKeepsLibraries) {
  if (!looksInPlugInFolder()) {
    EXPECT_EQ(runAgainInPlugInFolder(), 0) << "the output of the new process says why";
    return;
  }
  // What has these names here is not meant.
  PlugInFolder const folder;
  std::filesystem::create_directory(folder / "libtest_plug_in.so");
  std::filesystem::create_directory(folder / "libtest_plug_in_old.dylib");
  std::filesystem::current_path(folder / "");
  EXPECT_EQ(Loaded("libtest_plug_in.so").version(), kCurrent);
  EXPECT_FALSE(Loaded("test_plug_in.so"));
#ifndef __APPLE__
  EXPECT_EQ(Loaded("libtest_plug_in_old.dylib").version(), kOld);
#endif
  std::filesystem::current_path("/");
}

TEST(ZulLoadLibraryTest, NameWithoutASlashIsNotLookedForInTheCurrentFolder) {
  PlugInFolder const folder;
  folder.place("vrx-here.so");
  std::filesystem::path const before = std::filesystem::current_path();
  std::filesystem::current_path(folder / "");
  bool const isFound = static_cast<bool>(Loaded("vrx-here.so"));
  bool const isFoundByPath = static_cast<bool>(Loaded("./vrx-here.so"));
  std::filesystem::current_path(before);
  EXPECT_FALSE(isFound);
  EXPECT_TRUE(isFoundByPath);
}

TEST(ZulLoadLibraryTest, UndefinedSymbolIsAnErrorAtOnce) {
  Loaded const library(PLUG_IN_UNRESOLVED);
  EXPECT_FALSE(library);
  EXPECT_NE(library.error().find("plugInNobodyHasThis"), std::string::npos) << library.error();
}

TEST(ZulLoadLibraryTest, SymbolsStayTheLibrarysOwn) {
  Loaded const current(PLUG_IN);
  Loaded const old(PLUG_IN_OLD);
  EXPECT_EQ(current.version(), kCurrent);
  EXPECT_EQ(old.version(), kOld);
  EXPECT_EQ(::dlsym(RTLD_DEFAULT, "plugInVersion"), nullptr);
}

TEST(ZulLoadLibraryTest, ThreadKeepsItsErrorText) {
  PlugInFolder const folder;
  char const* error = nullptr;
  ASSERT_EQ(zulLoadLibrary((folder / "mine.so").c_str(), &error), nullptr);
  std::string const before = error;
  std::thread([&] { EXPECT_FALSE(Loaded(folder / "others.so")); }).join();
  EXPECT_EQ(error, before);
}

// --- The host's own ending --------------------------------------------------------------

#ifndef __APPLE__

TEST(ZulLoadLibraryEndingTest, MissingDylibIsTriedAsSo) {
  PlugInFolder const folder;
  folder.place("libfoo.so");
  Loaded const library(folder / "libfoo.dylib");
  ASSERT_TRUE(library) << library.error();
  EXPECT_EQ(library.version(), kCurrent);
}

TEST(ZulLoadLibraryEndingTest, DylibThatExistsIsTheOne) {
  PlugInFolder const folder;
  folder.place("libfoo.dylib", PLUG_IN_OLD);
  folder.place("libfoo.so", PLUG_IN);
  EXPECT_EQ(Loaded(folder / "libfoo.dylib").version(), kOld);
}

TEST(ZulLoadLibraryEndingTest, DylibThatExistsAndIsBrokenIsAnError) {
  PlugInFolder const folder;
  makeFile(folder / "text.dylib", "no library\n");
  folder.place("text.so");
  std::filesystem::create_directory(folder / "folder.dylib");
  folder.place("folder.so");
  EXPECT_FALSE(Loaded(folder / "text.dylib"));
  EXPECT_FALSE(Loaded(folder / "folder.dylib"));
}

TEST(ZulLoadLibraryEndingTest, LinkThatLeadsNowhereDoesNotExist) {
  PlugInFolder const folder;
  std::filesystem::create_symlink(folder / "nowhere", folder / "libfoo.dylib");
  folder.place("libfoo.so");
  EXPECT_TRUE(Loaded(folder / "libfoo.dylib"));
}

TEST(ZulLoadLibraryEndingTest, OtherEndingsAreTakenAsTheyAre) {
  PlugInFolder const folder;
  folder.place("libfoo.so");
  folder.place("libfoo..so");
  for (char const* const name :
       {"libfoo", "libfoo.", "libfoo.dylibs", "libfoo.dylib ", "libfoo.DYLIB", "libfoo.bundle",
        "libfoo.dylib/x", "libfoo.dylib.dylib"}) {
    EXPECT_FALSE(Loaded(folder / name)) << name;
  }
}

TEST(ZulLoadLibraryEndingTest, NeitherIsAnError) {
  PlugInFolder const folder;
  Loaded const library(folder / "libfoo.dylib");
  EXPECT_FALSE(library);
  EXPECT_NE(library.error().find(folder / "libfoo.so"), std::string::npos) << library.error();
}

TEST(ZulLoadLibraryEndingTest, SoHasToBeALibraryToo) {
  PlugInFolder const folder;
  std::filesystem::create_directory(folder / "libfoo.so");
  Loaded const library(folder / "libfoo.dylib");
  EXPECT_FALSE(library);
  EXPECT_EQ(library.error(), "not a regular file");
}

#endif

// --- What is no library -----------------------------------------------------------------

struct NoRegularFile {
  char const* label;
  std::function<void(std::string const& path)> make;
};

void PrintTo(NoRegularFile const& row, std::ostream* out) { *out << row.label; }

class ZulLoadLibraryFileTypeTest : public testing::TestWithParam<NoRegularFile> {};

TEST_P(ZulLoadLibraryFileTypeTest, IsRefusedWithoutWaiting) {
  PlugInFolder const folder;
  GetParam().make(folder / "entry");
  Loaded const library(folder / "entry");
  EXPECT_FALSE(library);
  EXPECT_EQ(library.error(), "not a regular file");
}

void makeSocket(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
}

INSTANTIATE_TEST_SUITE_P(
    Types, ZulLoadLibraryFileTypeTest,
    testing::Values(
        NoRegularFile{"Folder", [](auto& path) { std::filesystem::create_directory(path); }},
        NoRegularFile{"LinkToAFolder",
                      [](auto& path) { std::filesystem::create_symlink("/", path); }},
        NoRegularFile{"Fifo", [](auto& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }},
        NoRegularFile{"Device",
                      [](auto& path) { std::filesystem::create_symlink("/dev/zero", path); }},
        NoRegularFile{"Socket", makeSocket}),
    [](testing::TestParamInfo<NoRegularFile> const& test) { return test.param.label; });

TEST(ZulLoadLibraryTest, TextIsNoLibrary) {
  PlugInFolder const folder;
  for (std::string const& bytes : {std::string(), std::string("no library\n"),
                                   std::string("#!/bin/sh\n"), std::string(100'000, '\0')}) {
    makeFile(folder / "text.so", bytes);
    Loaded const library(folder / "text.so");
    EXPECT_FALSE(library);
    EXPECT_FALSE(library.error().empty());
  }
}

#ifdef __ELF__

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);

template <class Record>
Record recordAt(std::string const& bytes, std::size_t offset) {
  Record record;
  std::memcpy(&record, bytes.data() + offset, sizeof record);
  return record;
}

template <class Record>
void putRecord(std::string& bytes, std::size_t offset, Record const& record) {
  std::memcpy(bytes.data() + offset, &record, sizeof record);
}

/// The table of the plug-in's segments.
std::vector<Segment> segments() {
  std::string const bytes = fileBytes(PLUG_IN);
  auto const header = recordAt<Header>(bytes, 0);
  std::vector<Segment> table;
  for (std::size_t i = 0; i < header.e_phnum; ++i) {
    table.push_back(recordAt<Segment>(bytes, header.e_phoff + i * sizeof(Segment)));
  }
  return table;
}

bool isLoaded(Segment const& segment) { return segment.p_type == PT_LOAD; }

/// Where the part of the plug-in ends that is needed in memory.
std::size_t endOfSegments() {
  std::size_t end = 0;
  for (Segment const& segment : segments()) {
    if (!isLoaded(segment)) continue;
    end = std::max(end, static_cast<std::size_t>(segment.p_offset + segment.p_filesz));
  }
  return end;
}

// The loader itself would touch pages beyond the end of the file.
TEST(ZulLoadLibraryTest, CutLibraryIsRefusedAtEveryLength) {
  PlugInFolder const folder;
  std::size_t const end = endOfSegments();
  ASSERT_GT(end, 1'000U);
  std::size_t const stride = end / 150 + 1;
  for (std::size_t size = 0; size < end; size += size < 300 ? 7 : stride) {
    std::string const path = folder.placeStart("cut" + std::to_string(size), size);
    EXPECT_FALSE(Loaded(path)) << size << " bytes";
    std::filesystem::remove(path);
  }
  Loaded const cut(folder.placeStart("last-byte-missing", end - 1));
  EXPECT_FALSE(cut);
  EXPECT_EQ(cut.error(), "the file is cut short");
}

TEST(ZulLoadLibraryTest, DebuggingInformationMayBeCut) {
  PlugInFolder const folder;
  Loaded const library(folder.placeStart("stripped", endOfSegments()));
  ASSERT_TRUE(library) << library.error();
  EXPECT_EQ(library.version(), kCurrent);
}

/// The plug-in with another header.
std::string withHeader(std::function<void(Header&)> const& change) {
  std::string bytes = fileBytes(PLUG_IN);
  auto header = recordAt<Header>(bytes, 0);
  change(header);
  putRecord(bytes, 0, header);
  return bytes;
}

TEST(ZulLoadLibraryTest, WrongHeaderIsRefused) {
  using Change = std::pair<char const*, std::function<void(Header&)>>;
  for (auto const& [label, change] :
       {Change{"magic number", [](auto& header) { header.e_ident[EI_MAG3] = 'f'; }},
        Change{"class", [](auto& header) { header.e_ident[EI_CLASS] ^= 3; }},
        Change{"byte order", [](auto& header) { header.e_ident[EI_DATA] ^= 3; }},
        Change{"machine", [](auto& header) { header.e_machine = 0x7777; }},
        Change{"object file", [](auto& header) { header.e_type = ET_REL; }},
        Change{"segments nowhere",
               [](auto& header) { header.e_phoff = ~decltype(header.e_phoff){0} - 8; }},
        Change{"segments beyond the end",
               [](auto& header) { header.e_phoff = decltype(header.e_phoff){1} << 30; }}}) {
    PlugInFolder const folder;
    makeFile(folder / "wrong.so", withHeader(change));
    Loaded const library(folder / "wrong.so");
    EXPECT_FALSE(library) << label;
    EXPECT_NE(library.error(), "the file is cut short") << label;
  }
}

TEST(ZulLoadLibraryTest, WhatIsNoLibraryOfThisHostIsNotCalledCut) {
  for (int const byte : {EI_MAG0, EI_MAG3, EI_CLASS, EI_DATA}) {
    PlugInFolder const folder;
    std::string const other = withHeader([=](auto& header) { header.e_ident[byte] ^= 3; });
    makeFile(folder / "wrong.so", other.substr(0, endOfSegments() / 2));
    Loaded const library(folder / "wrong.so");
    EXPECT_FALSE(library) << byte;
    EXPECT_NE(library.error(), "the file is cut short") << byte;
  }
}

// As an update does it. The small file's size must not be taken for the large one's.
TEST(ZulLoadLibraryTest, LibraryRenamedIntoPlaceIsNotCut) {
  PlugInFolder const folder;
  std::string const path = folder / "plugin.so";
  std::string const neighbour = folder / "neighbour";
  std::string const whole = folder.place("whole.so");
  std::string const small = folder / "small";
  makeFile(small, std::string(sizeof(Header), 'x'));
  folder.place("plugin.so");
  std::atomic<bool> isDone = false;
  std::thread updating([&] {
    for (bool isWhole = false; !isDone; isWhole = !isWhole) {
      std::filesystem::create_hard_link(isWhole ? whole : small, neighbour);
      std::filesystem::rename(neighbour, path);
    }
  });
  for (int i = 0; i < 8'000; ++i) EXPECT_NE(Loaded(path).error(), "the file is cut short");
  isDone = true;
  updating.join();
}

std::ptrdiff_t openDescriptors() {
  std::filesystem::directory_iterator const entries("/dev/fd");
  return std::distance(begin(entries), end(entries));
}

TEST(ZulLoadLibraryTest, RefusedFilesDoNotStayOpen) {
  PlugInFolder const folder;
  std::string const cut = folder.placeStart("cut.so", endOfSegments() - 1);
  makeFile(folder / "text.so", std::string(1'000, 'x'));
  std::ptrdiff_t const before = openDescriptors();
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(Loaded(cut));
    EXPECT_FALSE(Loaded(folder / "text.so"));
  }
  EXPECT_EQ(openDescriptors(), before);
}

/// The plug-in with a segment changed, which is the first one that `isTheOne`.
std::string withSegment(bool (*isTheOne)(Segment const&), void (*change)(Segment&)) {
  std::string bytes = fileBytes(PLUG_IN);
  std::vector<Segment> table = segments();
  auto const found = std::find_if(table.begin(), table.end(), isTheOne);
  if (found == table.end()) throw std::runtime_error("no such segment");
  change(*found);
  auto const index = static_cast<std::size_t>(found - table.begin());
  putRecord(bytes, recordAt<Header>(bytes, 0).e_phoff + index * sizeof(Segment), *found);
  return bytes;
}

void leadBeyondTheEnd(Segment& segment) { segment.p_offset += decltype(segment.p_offset){1} << 30; }

// An end beyond all numbers looks like a small one.
TEST(ZulLoadLibraryTest, SegmentBeyondTheEndIsRefused) {
  constexpr decltype(Segment::p_offset) kNone = 0;
  for (auto const change :
       {leadBeyondTheEnd, +[](Segment& segment) { segment.p_offset = ~kNone - 0xFFF; },
        +[](Segment& segment) {
          segment.p_offset = ~kNone - 0xFFF;
          segment.p_filesz = segment.p_memsz = 0x2000;
        },
        +[](Segment& segment) {
          segment.p_offset = 0x1000;
          segment.p_filesz = segment.p_memsz = ~kNone - 0xFFF;
        }}) {
    PlugInFolder const folder;
    makeFile(folder / "wrong.so", withSegment(isLoaded, change));
    EXPECT_EQ(Loaded(folder / "wrong.so").error(), "the file is cut short");
  }
}

TEST(ZulLoadLibraryTest, SegmentThatIsNotLoadedMayLeadAnywhere) {
  PlugInFolder const folder;
  makeFile(folder / "plugin.so",
           withSegment([](Segment const& segment) { return segment.p_type == PT_GNU_STACK; },
                       leadBeyondTheEnd));
  Loaded const library(folder / "plugin.so");
  ASSERT_TRUE(library) << library.error();
  EXPECT_EQ(library.version(), kCurrent);
}

TEST(ZulLoadLibraryTest, TableOfSegmentsCountsWhereverItIs) {
  std::string bytes =
      withHeader([](Header& header) { header.e_phoff = fileBytes(PLUG_IN).size(); });
  std::vector<Segment> table = segments();
  leadBeyondTheEnd(*std::find_if(table.begin(), table.end(), isLoaded));
  for (Segment const& segment : table) {
    bytes.resize(bytes.size() + sizeof segment);
    putRecord(bytes, bytes.size() - sizeof segment, segment);
  }
  PlugInFolder const folder;
  makeFile(folder / "wrong.so", bytes);
  EXPECT_EQ(Loaded(folder / "wrong.so").error(), "the file is cut short");
}

#endif

// --- Symbols ----------------------------------------------------------------------------

TEST(ZulGetProcAddressTest, FindsFunctionsAndData) {
  Loaded const library(PLUG_IN);
  void* const answer = library.address("plugInAnswer");
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(*static_cast<int*>(answer), 42);
  EXPECT_EQ(library.version(), kCurrent);
}

TEST(ZulGetProcAddressTest, MissingSymbolIsNamed) {
  Loaded const library(PLUG_IN);
  char const* error = nullptr;
  EXPECT_EQ(zulGetProcAddress(library.handle(), "plugInMissing", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::string(error).find("plugInMissing"), std::string::npos) << error;
}

TEST(ZulGetProcAddressTest, NullLibraryHasNoSymbols) {
  char const* error = nullptr;
  EXPECT_EQ(zulGetProcAddress(nullptr, "malloc", &error), nullptr);
  EXPECT_STREQ(error, "no library is loaded");
}

TEST(ZulGetProcAddressTest, ErrorNeedNotBeAskedFor) {
  Loaded const library(PLUG_IN);
  EXPECT_EQ(zulGetProcAddress(library.handle(), "plugInMissing", nullptr), nullptr);
  EXPECT_EQ(zulGetProcAddress(library.handle(), nullptr, nullptr), nullptr);
  EXPECT_EQ(zulGetProcAddress(nullptr, "plugInAnswer", nullptr), nullptr);
}

TEST(ZulGetProcAddressTest, NullSymbolIsMissing) {
  Loaded const library(PLUG_IN);
  char const* error = nullptr;
  EXPECT_EQ(zulGetProcAddress(library.handle(), nullptr, &error), nullptr);
  EXPECT_STREQ(error, "no name of a symbol");
}

#ifndef __APPLE__

TEST(ZulGetProcAddressTest, SymbolWithoutAddressIsAnErrorOfItsOwn) {
  Loaded const library(PLUG_IN);
  // An error that nobody has asked the loader about.
  ASSERT_EQ(::dlsym(library.handle(), "plugInMissing"), nullptr);
  char const* error = nullptr;
  EXPECT_EQ(zulGetProcAddress(library.handle(), "plugInNothing", &error), nullptr);
  EXPECT_STREQ(error, "the symbol has no address");
}

#endif

// --- Giving back ------------------------------------------------------------------------

TEST(ZulFreeLibraryTest, LastOneUnloads) {
  PlugInFolder const folder;
  std::string const path = folder.place("plugin.so");
  int count = 0;
  {
    Loaded const first(path);
    first.countUnloadings(count);
    {
      Loaded const second(path);
      EXPECT_EQ(second.handle(), first.handle());
    }
    EXPECT_EQ(count, 0);
  }
  EXPECT_EQ(count, 1);
}

TEST(ZulFreeLibraryTest, NullLibraryIsAFailure) { EXPECT_EQ(zulFreeLibrary(nullptr), 0); }

#ifdef __GLIBC__

// What a program needs stays in it; the loader answers that it is not open.
TEST(ZulFreeLibraryTest, FailureOfTheLoaderIsAFailure) {
  char const* error = nullptr;
  void* const library = zulLoadLibrary("libm.so.6", &error);
  ASSERT_NE(library, nullptr) << error;
  EXPECT_NE(zulFreeLibrary(library), 0);
  EXPECT_EQ(zulFreeLibrary(library), 0);
}

#endif

}  // namespace
}  // namespace vrxutil::test
