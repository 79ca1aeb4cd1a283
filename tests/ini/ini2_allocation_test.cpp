// AnIni2 where memory runs out: an operator new of this program's own fails at
// each allocation in turn, once or from there on.

#include "tests/ini/ini_support.h"
#include "tests/support/log_recorder.h"
#include "tests/support/own_logger.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

/// Allocations that still succeed on this thread; below zero, all do.
constinit thread_local long allocationsLeft = -1;

/// Whether those after the first that fails fail as well.
constinit thread_local bool failsForGood = false;

constinit thread_local long failures = 0;

/// Whether the allocation that is asked for is to fail.
bool isToFail() {
  if (allocationsLeft < 0) return false;
  if (allocationsLeft > 0) {
    --allocationsLeft;
    return false;
  }
  if (!failsForGood) allocationsLeft = -1;
  ++failures;
  return true;
}

}  // namespace

// Not inlined, since the compiler then takes malloc() and delete for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const block = isToFail() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}

namespace vrxutil::test {
namespace {

using Map = AnIni2::SectionMap;

/// Allocations fail from the one with number `number` on, or only that one, to the
/// end of the scope.
class FailingAllocations {
public:
  FailingAllocations(long number, bool forGood) {
    failures = 0;
    failsForGood = forGood;
    allocationsLeft = number;
  }

  ~FailingAllocations() { allocationsLeft = -1; }

  FailingAllocations(FailingAllocations const&) = delete;
  FailingAllocations& operator=(FailingAllocations const&) = delete;
};

/// Keeps records in memory that is always there.
class SafeRecorder final : public OwnLogger {
public:
  void logMessage(LogLevel const& level, std::wstring const& group,
                  std::wstring const& message) override {
    long const left = std::exchange(allocationsLeft, -1);
    if (level == LogLevel::error) records_.push_back({level, group, message});
    allocationsLeft = left;
  }

  Records const& records() const { return records_; }

private:
  Records records_;
};

constexpr char kOld[] =
    "[b]\nzz=1\naa=of a length that no short string holds\n"
    "[a name that is too long for a short string]\nk=v\n"
    "[b]\n\xC3\xA4=2\nzz=3\n";

Map oldMap() {
  return {{L"a name that is too long for a short string", {{L"k", L"v"}}},
          {L"b",
           {{L"aa", L"of a length that no short string holds"}, {L"zz", L"3"}, {L"\u00E4", L"2"}}}};
}

constexpr char kNew[] =
    "[a name that is too long for a short string]\nk=v\n\n"
    "[b]\naa=of a length that no short string holds\nnew=value\nzz=3\n\xC3\xA4=2\n\n";

/// What came of an operation.
enum class End { returned, threw };

class AnIni2AllocationTest : public IniFileTest {
protected:
  AnIni2AllocationTest() { makeFile(path, kOld); }

  std::unique_ptr<AnIni2> open() const { return std::make_unique<AnIni2>(name); }

  /// An object over the old file that has something to write.
  std::unique_ptr<AnIni2> openChanged() const {
    makeFile(path, kOld);
    auto ini = open();
    EXPECT_TRUE(ini->insert(L"b", L"new", L"value"));
    return ini;
  }

  /// Runs `operation` on objects that `prepare` returns, with each of its
  /// allocations failing in turn, until none fails any more; each time
  /// `check(object, end, records, forGood)` looks at what came of it.
  template <class Prepare, class Operation, class Check>
  void failEach(Prepare prepare, Operation operation, Check check) {
    for (bool const forGood : {false, true}) {
      long number = 0;
      do {
        SCOPED_TRACE(testing::Message() << "allocation " << number << ", for good: " << forGood);
        auto object = prepare();
        SafeRecorder const recorder;
        End end = End::returned;
        {
          FailingAllocations const failing(number, forGood);
          try {
            operation(object);
          } catch (std::bad_alloc const&) {
            end = End::threw;
          }
        }
        check(object, end, recorder.records(), forGood);
        if (HasFatalFailure()) return;
        ++number;
      } while (failures > 0);
      EXPECT_GT(number, 1);
    }
  }

  LogRecord exceptionRecord(wchar_t const* tryingTo) const {
    return errorRecord(
        L"ini", std::wstring(L"internal error: Exception std::bad_alloc trying to ") + tryingTo +
                    L" " + widePath);
  }

  AString name{widePath};
};

TEST_F(AnIni2AllocationTest, FileIsParsedWholeOrNotAtAll) {
  Records const notParsed{
      exceptionRecord(L"parse"),
      errorRecord(L"ini", L"internal error: Ini file not parsed in AnIni2"),
  };
  auto const prepare = [] { return std::unique_ptr<AnIni2>(); };
  auto const construct = [&](auto& ini) { ini = open(); };
  failEach(prepare, construct, [&](auto& ini, End end, Records const& records, bool forGood) {
    bool const isParsed = end == End::returned && ini->parsed();
    if (isParsed) {
      EXPECT_EQ(mapOf(*ini), oldMap());
    }
    if (end == End::returned && !forGood) {
      EXPECT_EQ(records, isParsed ? Records{} : notParsed);
    }
    ini.reset();
    EXPECT_EQ(bytes(), kOld);
  });
}

struct Pair {
  char const* name;
  std::wstring section;
  std::wstring key;
  std::wstring value;
  bool isAfterGet;  // which has made an index
};

void PrintTo(Pair const& pair, std::ostream* out) { *out << pair.name; }

class AnIni2InsertAllocationTest : public AnIni2AllocationTest,
                                   public testing::WithParamInterface<Pair> {
protected:
  static Map mapWith(Pair const& pair) {
    Map map = oldMap();
    auto found = map.find(pair.section);
    if (found == map.end()) found = map.insert({pair.section, {}});
    found->second[pair.key] = pair.value;
    return map;
  }

  /// Whether map and get() agree with `expected`.
  static void expectContents(AnIni2& ini, Map const& expected) {
    EXPECT_EQ(mapOf(ini), expected);
    for (auto const& [section, pairs] : expected) {
      for (auto const& [key, value] : pairs) {
        AString found;
        EXPECT_TRUE(ini.tryGet(AString(section), AString(key), found));
        EXPECT_EQ(found.const_cpp_str(), value);
      }
    }
  }
};

TEST_P(AnIni2InsertAllocationTest, AllIsStoredOrNothing) {
  Pair const& pair = GetParam();
  std::wstring const items = pair.section + L", " + pair.key + L", and " + pair.value;
  Records const notStored{errorRecord(
      L"ini",
      L"internal error: Exception std::bad_alloc trying to insert " + items + L" into the map")};
  auto const prepare = [&] {
    makeFile(path, kOld);
    auto ini = open();
    AString value;
    if (pair.isAfterGet) ini->tryGet(L"b", L"zz", value);
    return ini;
  };
  bool isStored = false;
  auto const insert = [&](auto& ini) {
    isStored = false;
    isStored = ini->insert(pair.section, pair.key, pair.value);
  };
  failEach(prepare, insert, [&](auto& ini, End end, Records const& records, bool forGood) {
    expectContents(*ini, isStored ? mapWith(pair) : oldMap());
    if (!forGood) {
      EXPECT_EQ(end, End::returned);
      EXPECT_EQ(records, isStored ? Records{} : notStored);
    }
    ini.reset();
    EXPECT_EQ(bytes() == kOld, !isStored);
  });
}

std::vector<Pair> pairs() {
  Pair const section{"Section", L"a section of its own, with a long name", L"k", L"v", false};
  Pair const key{"Key", L"b", L"a key that no short string holds", L"and its value", false};
  Pair const value{"Value", L"b", L"zz", L"another value, longer than the one before", false};
  std::vector<Pair> all{section, key, value};
  for (Pair pair : {section, key, value}) {
    pair.isAfterGet = true;
    all.push_back(pair);
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(AnIni2, AnIni2InsertAllocationTest, testing::ValuesIn(pairs()),
                         [](auto const& tested) {
                           return std::string(tested.param.name) +
                                  (tested.param.isAfterGet ? "AfterGet" : "");
                         });

TEST_F(AnIni2AllocationTest, GetFindsTheValueOrThrows) {
  AString value;
  bool isFound = false;
  AString const section(L"b");
  AString const key(L"aa");
  auto const prepare = [&] {
    value = AString();
    return open();
  };
  auto const get = [&](auto& ini) { isFound = ini->get(/*required=*/true, section, key, value); };
  failEach(prepare, get, [&](auto&, End end, Records const& records, bool) {
    EXPECT_EQ(records, Records{});
    if (end == End::threw) return;
    EXPECT_TRUE(isFound);
    EXPECT_EQ(value.const_cpp_str(), L"of a length that no short string holds");
  });
}

// What could not be written for lack of memory is still to be written.
TEST_F(AnIni2AllocationTest, WriteIsDoneOrThrows) {
  auto const write = [](auto& ini) { ini->write(); };
  failEach([&] { return openChanged(); }, write,
           [&](auto& ini, End end, Records const& records, bool) {
             EXPECT_EQ(records, Records{});
             EXPECT_EQ(bytes(), end == End::returned ? kNew : kOld);
             EXPECT_EQ(entries(), 1U);
             ini->write();
             EXPECT_EQ(bytes(), kNew);
           });
}

TEST_F(AnIni2AllocationTest, CloseThatThrowsKeepsEverything) {
  auto const close = [](auto& ini) { ini->close(); };
  failEach([&] { return openChanged(); }, close,
           [&](auto& ini, End end, Records const&, bool) {
             EXPECT_EQ(ini->parsed(), end == End::threw);
             ini->close();
             EXPECT_EQ(bytes(), kNew);
           });
}

TEST_F(AnIni2AllocationTest, DestructorLetsNothingOut) {
  auto const destroy = [](auto& ini) { ini.reset(); };
  failEach([&] { return openChanged(); }, destroy,
           [&](auto&, End end, Records const& records, bool forGood) {
             EXPECT_EQ(end, End::returned);
             std::string const now = bytes();
             EXPECT_TRUE(now == kOld || now == kNew) << now;
             EXPECT_EQ(entries(), 1U);
             if (forGood) return;
             EXPECT_EQ(records, now == kNew ? Records{} : Records{exceptionRecord(L"write")});
           });
}

}  // namespace
}  // namespace vrxutil::test
