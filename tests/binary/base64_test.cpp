#include "tests/binary/base64_reference.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/log_recorder.h"
#include "tests/support/memory_shortage.h"

#include <vrxutil/binary.h>

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace vrxutil::test {
namespace {

using Byte = unsigned char;
using Bytes = AnObjectBuffer<Byte>;
using Records = std::vector<LogRecord>;

static_assert(
    std::is_same_v<decltype(Base64Encode), unsigned long(void const*, unsigned long, char*,
                                                         unsigned long, int*, unsigned long*)>);
static_assert(
    std::is_same_v<decltype(Base64Decode), unsigned long(char const*, unsigned long, void*,
                                                         unsigned long, int*, unsigned long*)>);
static_assert(
    std::is_same_v<decltype(ABase64Encode::encode(std::declval<Bytes const&>())), AString>);
static_assert(
    std::is_same_v<decltype(ABase64Encode::decode(std::declval<AString const&>())), Bytes>);

constexpr unsigned long kHugest = std::numeric_limits<unsigned long>::max();
constexpr char kUntouched = '\x5A';
constexpr std::size_t kMostBytes = 1 << 18;

// --- Helpers ----------------------------------------------------------------------

std::string contents(ABuffer const& buffer) {
  return {reinterpret_cast<char const*>(buffer.getBytes()), buffer.size()};
}

// All that a call leaves behind.
struct Outcome {
  unsigned long written;
  unsigned long consumed;
  int state;
  std::string target;  // untouched bytes included

  bool operator==(Outcome const&) const = default;
};

void PrintTo(Outcome const& outcome, std::ostream* out) {
  *out << "written " << outcome.written << ", consumed " << outcome.consumed << ", state "
       << outcome.state << ", target " << testing::PrintToString(outcome.target);
}

// The very bytes of a text, with a guard beside them.
char const* sourceAt(GuardSide side, std::string const& text) {
  static GuardedMemory const memory(kMostBytes);
  return std::copy(text.begin(), text.end(), memory.at(side, text.size())) - text.size();
}

// The target, too, has a guard beside it.
template <class Function>
Outcome run(Function function, char const* source, unsigned long length, unsigned long room,
            int state, GuardSide side = GuardSide::behind) {
  static GuardedMemory const memory(kMostBytes);
  char* const target = memory.at(side, room);
  std::fill_n(target, room, kUntouched);
  Outcome outcome{0, 12345, state, ""};
  outcome.written = function(source, length, target, room, &outcome.state, &outcome.consumed);
  outcome.target.assign(target, room);
  return outcome;
}

template <class Function>
Outcome run(Function function, std::string const& source, unsigned long room, int state,
            GuardSide side = GuardSide::behind) {
  return run(function, sourceAt(side, source), source.size(), room, state, side);
}

Outcome encoded(std::string const& source, unsigned long room, int state = 0) {
  return run(Base64Encode, source, room, state);
}

Outcome decoded(std::string const& source, unsigned long room, int state = 0) {
  return run(Base64Decode, source, room, state);
}

// Not ASSERT: the caller's loop ends at the first difference.
template <class Function>
bool worksAs(Function reference, Function function, std::string const& source, unsigned long room,
             int state) {
  Outcome const expected = run(reference, source, room, state);
  for (GuardSide const side : {GuardSide::before, GuardSide::behind}) {
    Outcome const actual = run(function, source, room, state, side);
    EXPECT_EQ(actual, expected) << testing::PrintToString(source) << " state " << state;
    if (actual != expected) return false;
  }
  return true;
}

bool encodesAsReference(std::string const& source, unsigned long room, int state) {
  return worksAs(&referenceEncode, &Base64Encode, source, room, state);
}

bool decodesAsReference(std::string const& source, unsigned long room, int state) {
  return worksAs(&referenceDecode, &Base64Decode, source, room, state);
}

int randomState(std::mt19937& random) { return static_cast<int>(random()); }

std::string randomBytes(std::mt19937& random, std::size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

// Of the alphabet, but one character in `cleanRun`, which may be any byte. 0 is for none.
std::string randomText(std::mt19937& random, std::size_t size, unsigned cleanRun) {
  std::string text(size, '\0');
  for (char& c : text) {
    c = kReferenceAlphabet[random() % 64];
    if (cleanRun == 0 || random() % cleanRun != 0) continue;
    c = random() % 3 == 0 ? '=' : static_cast<char>(random());
  }
  return text;
}

// Of the alphabet, with junk of random length before each `cleanRun` characters or
// about as many; never "=".
std::string dirtyText(std::mt19937& random, std::size_t size, unsigned cleanRun, bool isRegular) {
  std::string text;
  while (text.size() < size) {
    for (auto junk = isRegular ? 1 : random() % 40; junk > 0; --junk)
      text += " \n\x80-\0"[random() % 5];
    for (auto clean = isRegular ? cleanRun : random() % (2 * cleanRun); clean > 0; --clean) {
      text += kReferenceAlphabet[random() % 64];
    }
  }
  return text.substr(0, size);
}

std::string textOf(std::string const& bytes) {
  std::string text(bytes.size() * 4 / 3 + 4, '\0');
  text.resize(
      referenceEncode(bytes.data(), bytes.size(), text.data(), text.size(), nullptr, nullptr));
  return text;
}

// --- Encoding ---------------------------------------------------------------------

TEST(Base64EncodeTest, KnownTexts) {
  struct {
    char const* source;
    char const* expected;
  } const rows[] = {{"", ""},
                    {"M", "TQ=="},
                    {"Ma", "TWE="},
                    {"Man", "TWFu"},
                    {"f", "Zg=="},
                    {"fo", "Zm8="},
                    {"foo", "Zm9v"},
                    {"foob", "Zm9vYg=="},
                    {"fooba", "Zm9vYmE="},
                    {"foobar", "Zm9vYmFy"},
                    {"\xFB\xFF\xBF", "+/+/"}};

  for (auto const& row : rows) {
    SCOPED_TRACE(row.source);
    std::string const source = row.source;
    std::string const expected = row.expected;
    EXPECT_EQ(encoded(source, expected.size()),
              (Outcome{expected.size(), source.size(), 0, expected}));
  }
}

TEST(Base64EncodeTest, WholeAlphabetInItsOrder) {
  std::string bytes;
  for (unsigned i = 0; i < 64; i += 4) {
    unsigned const bits = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
    for (int shift = 16; shift >= 0; shift -= 8) bytes += static_cast<char>(bits >> shift);
  }
  std::string const alphabet(kReferenceAlphabet);
  EXPECT_EQ(encoded(bytes, 64).target, alphabet);
  EXPECT_EQ(encoded(bytes.substr(0, 24), 32).target, alphabet.substr(0, 32));
  EXPECT_EQ(decoded(alphabet, 48).target, bytes);
}

TEST(Base64EncodeTest, NothingIsWrittenBeyondTheText) {
  EXPECT_EQ(encoded("Man", 6), (Outcome{4, 3, 0, "TWFuZZ"}));
  EXPECT_EQ(encoded("M", 6), (Outcome{4, 1, 0, "TQ==ZZ"}));
}

TEST(Base64EncodeTest, FullTargetDefersTheTail) {
  EXPECT_EQ(encoded("M", 3), (Outcome{1, 1, 64 | ('M' << 4 & 0x3F), "TZZ"}));
  std::array<char, 3> rest{};
  int state = 64 | ('M' << 4 & 0x3F);
  unsigned long consumed = 7;
  EXPECT_EQ(Base64Encode(nullptr, 0, rest.data(), rest.size(), &state, &consumed), 3U);
  EXPECT_EQ(std::string(rest.data(), rest.size()), "Q==");
  EXPECT_EQ(state, 0);
  EXPECT_EQ(consumed, 0U);
}

TEST(Base64EncodeTest, FlushNeedsRoomForAllOfIt) {
  struct {
    int phase;
    char const* tail;
  } const rows[] = {{1, "Q=="}, {2, "Q="}, {3, "Q"}};

  for (auto const& row : rows) {
    std::string const tail = row.tail;
    for (unsigned long room = 0; room < 5; ++room) {
      SCOPED_TRACE(tail + " into " + std::to_string(room));
      int const state = row.phase * 64 + 16;
      bool const fits = room >= tail.size();
      std::string const target =
          fits ? tail + std::string(room - tail.size(), kUntouched) : std::string(room, kUntouched);
      EXPECT_EQ(run(Base64Encode, nullptr, 99, room, state),
                (Outcome{fits ? tail.size() : 0, 0, fits ? 0 : state, target}));
    }
  }
}

TEST(Base64EncodeTest, NullSourceWithNothingWaitingWritesNothing) {
  EXPECT_EQ(run(Base64Encode, nullptr, 3, 8, 0), (Outcome{0, 0, 0, std::string(8, kUntouched)}));
}

TEST(Base64EncodeTest, PiecesEndWithPaddingEach) {
  int state = 0;
  std::string text;
  for (char const* const piece : {"M", "Ma", "Man"}) {
    std::array<char, 8> target{};
    unsigned long const written =
        Base64Encode(piece, std::strlen(piece), target.data(), target.size(), &state, nullptr);
    text.append(target.data(), written);
  }
  EXPECT_EQ(text, "TQ==TWE=TWFu");
}

TEST(Base64EncodeTest, LowBitsOfTheCarryAreLost) {
  // The third byte's six bits wait; all of them come out only without a state between.
  Outcome const first = encoded("\xFF\xFF\xFF", 3);
  EXPECT_EQ(first, (Outcome{3, 3, 3 * 64 + 0x3F, "///"}));
  EXPECT_EQ(encoded("", 1, first.state), (Outcome{1, 0, 0, "8"}));
  EXPECT_EQ(run(Base64Encode, nullptr, 0, 0, first.state), (Outcome{0, 0, 3 * 64 + 0x3C, ""}));
  for (int phase = 0; phase < 4; ++phase) {
    EXPECT_EQ(run(Base64Encode, nullptr, 0, 0, phase * 64 + 3), (Outcome{0, 0, phase * 64, ""}));
  }
}

TEST(Base64EncodeTest, StateAndCountMayBeNull) {
  std::array<char, 8> target{};
  EXPECT_EQ(Base64Encode("Ma", 2, target.data(), target.size(), nullptr, nullptr), 4U);
  EXPECT_STREQ(target.data(), "TWE=");
  // Each call begins anew.
  EXPECT_EQ(Base64Encode("M", 1, target.data(), 1, nullptr, nullptr), 1U);
  EXPECT_EQ(Base64Encode(nullptr, 0, target.data(), 8, nullptr, nullptr), 0U);
}

TEST(Base64EncodeTest, TargetAloneBoundsASourceWithoutEnd) {
  for (std::size_t const groups : {1U, 4U, 9U, 10U, 12U, 40U}) {
    std::string const bytes(groups * 3, '\xA7');
    Outcome const expected = encoded(bytes, groups * 4);
    EXPECT_EQ(run(Base64Encode, sourceAt(GuardSide::behind, bytes), kHugest, groups * 4, 0),
              expected);
  }
}

TEST(Base64EncodeTest, TargetMayBeGreaterThanMemory) {
  std::string const bytes(100, '\xA7');
  std::string target(200, kUntouched);
  EXPECT_EQ(Base64Encode(bytes.data(), 100, target.data(), kHugest, nullptr, nullptr), 136U);
  EXPECT_EQ(target, textOf(bytes) + std::string(64, kUntouched));
}

// --- Encoding, against the reference ------------------------------------------------

TEST(Base64EncodeTest, EveryStateWordAndSmallSize) {
  std::mt19937 random(1);
  for (int state = -256; state < 256; ++state) {
    for (std::size_t size = 0; size < 8; ++size) {
      std::string const bytes = randomBytes(random, size);
      for (unsigned long room = 0; room < 16; ++room) {
        ASSERT_TRUE(encodesAsReference(bytes, room, state));
      }
    }
    for (unsigned long room = 0; room < 8; ++room) {
      EXPECT_EQ(run(Base64Encode, nullptr, 5, room, state),
                run(referenceEncode, nullptr, 5, room, state));
    }
  }
}

TEST(Base64EncodeTest, StateWordsBeyondTheLastPhaseAreMasked) {
  for (int const state : {256, 320, 0x7FFFFFFF, -1, INT_MIN, INT_MIN + 64}) {
    for (unsigned long room = 0; room < 80; ++room) {
      ASSERT_TRUE(encodesAsReference(std::string(50, 'q'), room, state));
    }
  }
}

TEST(Base64EncodeTest, EverySizeAndRoom) {
  std::mt19937 random(2);
  for (std::size_t size = 0; size < 100; ++size) {
    std::string const bytes = randomBytes(random, size);
    for (unsigned long room = 0; room < 140; ++room) {
      ASSERT_TRUE(encodesAsReference(bytes, room, 0));
      ASSERT_TRUE(encodesAsReference(bytes, room, randomState(random)));
    }
  }
}

TEST(Base64EncodeTest, EverySplitOfTheSource) {
  std::mt19937 random(3);
  for (int round = 0; round < 40; ++round) {
    std::string const bytes = randomBytes(random, 1 + random() % 150);
    unsigned long const room = random() % 220;
    for (std::size_t split = 0; split <= bytes.size(); ++split) {
      int state = 0;
      int expectedState = 0;
      for (std::string const& piece : {bytes.substr(0, split), bytes.substr(split)}) {
        ASSERT_EQ(state, expectedState);
        ASSERT_TRUE(encodesAsReference(piece, room, state));
        state = encoded(piece, room, state).state;
        expectedState = run(referenceEncode, piece, room, expectedState).state;
      }
    }
  }
}

// A text through a target of `room` characters again and again.
template <class Function>
std::string throughSmallTarget(Function function, std::string const& source, std::size_t room) {
  std::string whole;
  std::string target(room, '\0');
  int state = 0;
  std::size_t used = 0;
  for (std::size_t idle = 0; idle < 2;) {
    unsigned long consumed = 0;
    unsigned long const written = function(source.data() + used, source.size() - used,
                                           target.data(), room, &state, &consumed);
    whole += target.substr(0, written) + '|' + std::to_string(state) + '|';
    used += consumed;
    idle = written == 0 && consumed == 0 ? idle + 1 : 0;
  }
  return whole;
}

TEST(Base64EncodeTest, EverySmallTarget) {
  std::mt19937 random(4);
  for (int round = 0; round < 30; ++round) {
    std::string const bytes = randomBytes(random, random() % 120);
    for (std::size_t room = 0; room < 70; ++room) {
      ASSERT_EQ(throughSmallTarget(Base64Encode, bytes, room),
                throughSmallTarget(referenceEncode, bytes, room));
    }
  }
}

// A source in pieces of up to `mostAtOnce` into targets of up to as much, from any
// state on; what is not used of a piece comes again with the next.
template <class Function>
bool worksInPiecesAs(Function reference, Function function, std::string const& source,
                     std::size_t mostAtOnce, std::mt19937& random) {
  int state = randomState(random);
  std::size_t used = 0;
  while (used < source.size()) {
    std::string const piece = source.substr(used, random() % mostAtOnce);
    std::size_t const room = random() % mostAtOnce;
    if (!worksAs(reference, function, piece, room, state)) return false;
    Outcome const expected = run(reference, piece, room, state);
    used += expected.consumed;
    state = expected.state;
  }
  return true;
}

TEST(Base64EncodeTest, PiecesOfAnySizeIntoTargetsOfAnySize) {
  std::mt19937 random(18);
  for (std::size_t const mostAtOnce : {3U, 40U, 90U, 700U}) {
    for (int round = 0; round < 40; ++round) {
      ASSERT_TRUE(worksInPiecesAs(&referenceEncode, &Base64Encode, randomBytes(random, 2000),
                                  mostAtOnce, random));
    }
  }
}

TEST(Base64EncodeTest, LongTexts) {
  std::mt19937 random(5);
  for (std::size_t const size : {1000U, 4097U, 100000U}) {
    std::string const bytes = randomBytes(random, size);
    for (unsigned long const room : {size, size * 4 / 3 - 1, size * 4 / 3, 2 * size}) {
      ASSERT_TRUE(encodesAsReference(bytes, room, randomState(random)));
    }
  }
}

// --- Decoding ---------------------------------------------------------------------

TEST(Base64DecodeTest, KnownTexts) {
  struct {
    char const* source;
    char const* expected;
  } const rows[] = {{"", ""},
                    {"TWFu", "Man"},
                    {"TW Fu", "Man"},
                    {"TQ==", "M"},
                    {"TWE=", "Ma"},
                    {"TQ==TWE=", "MMa"},
                    {"TW\r\nFu\n", "Man"},
                    {"TQ", "M"},
                    {"T", ""},
                    {"====", ""},
                    {"-_.,:;", ""},
                    {"T=WFu", "X["},
                    {"\x80\xFFTWF\xE4u", "Man"},
                    {"+/+/", "\xFB\xFF\xBF"}};

  for (auto const& row : rows) {
    SCOPED_TRACE(row.source);
    std::string const expected = row.expected;
    Outcome const outcome = decoded(row.source, expected.size() + 3);
    EXPECT_EQ(outcome.written, expected.size());
    EXPECT_EQ(outcome.consumed, std::strlen(row.source));
    EXPECT_EQ(outcome.target, expected + std::string(3, kUntouched));
  }
}

TEST(Base64DecodeTest, EveryByteHasItsValueOrNone) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    std::string const source(1, static_cast<char>(byte));
    std::size_t const value = kReferenceAlphabet.find(source[0]);
    if (value == std::string_view::npos) {
      int const phase = source[0] == '=' ? 0 : 3;
      EXPECT_EQ(decoded(source, 1, 0xA4 | 3), (Outcome{0, 1, 0xA4 | phase, "Z"}));
    } else {
      EXPECT_EQ(decoded(source, 1, 3),
                (Outcome{1, 1, 0, std::string(1, static_cast<char>(value))}));
    }
  }
}

TEST(Base64DecodeTest, PaddingResetsThePhaseAndLeavesTheCarry) {
  EXPECT_EQ(decoded("=", 4, 0xF0 | 2), (Outcome{0, 1, 0xF0, "ZZZZ"}));
}

TEST(Base64DecodeTest, FullTargetStopsReading) {
  EXPECT_EQ(decoded("TWFuTWFu", 3), (Outcome{3, 4, 5 << 6 & 0xFF, "Man"}));
  EXPECT_EQ(decoded("TWFu", 0), (Outcome{0, 0, 0, ""}));
  EXPECT_EQ(decoded("TWFu", 1), (Outcome{1, 2, (22 << 4 & 0xFF) | 2, "M"}));
  EXPECT_EQ(decoded("TWFu", 2), (Outcome{2, 3, (5 << 6 & 0xFF) | 3, "Ma"}));
}

TEST(Base64DecodeTest, StateAndCountMayBeNull) {
  std::array<char, 4> target{};
  EXPECT_EQ(Base64Decode("TWFu", 4, target.data(), target.size(), nullptr, nullptr), 3U);
  EXPECT_STREQ(target.data(), "Man");
  EXPECT_EQ(Base64Decode("T", 1, target.data(), target.size(), nullptr, nullptr), 0U);
  EXPECT_EQ(Base64Decode("WFu", 3, target.data(), target.size(), nullptr, nullptr), 2U);
}

TEST(Base64DecodeTest, LengthBeyondTheLimitIsThatOfTheText) {
  for (unsigned long const length : {0x7FFFFFFFUL, 0xFFFFFFFFUL, kHugest}) {
    SCOPED_TRACE(length);
    std::string const text("TWFuTWFu\0TWFu", 13);
    EXPECT_EQ(run(Base64Decode, text.data(), length, 20, 0),
              (Outcome{6, 8, 5 << 6 & 0xFF, "ManMan" + std::string(14, kUntouched)}));
  }
  // At the limit it is the length, and a NUL is skipped.
  std::string const text("TWFu\0TWFu", 9);
  EXPECT_EQ(run(Base64Decode, sourceAt(GuardSide::behind, text), 0x7FFFFFFE, 6, 0),
            (Outcome{6, 9, 5 << 6 & 0xFF, "ManMan"}));
}

TEST(Base64DecodeTest, TargetAloneBoundsASourceWithoutEnd) {
  for (std::size_t const groups : {1U, 4U, 8U, 9U, 12U, 40U}) {
    std::string const text(groups * 4, 'q');
    EXPECT_EQ(run(Base64Decode, sourceAt(GuardSide::behind, text), 0x7FFFFFFE, groups * 3, 0),
              decoded(text, groups * 3));
  }
}

TEST(Base64DecodeTest, TargetMayBeGreaterThanMemory) {
  std::string const text(100, 'q');
  std::string target(80, kUntouched);
  EXPECT_EQ(Base64Decode(text.data(), 100, target.data(), kHugest, nullptr, nullptr), 75U);
  EXPECT_EQ(target, decoded(text, 80).target);
}

// --- Decoding, against the reference ------------------------------------------------

TEST(Base64DecodeTest, EveryStateWordAndSmallSize) {
  std::mt19937 random(6);
  for (int state = -256; state < 256; ++state) {
    for (std::size_t size = 0; size < 12; ++size) {
      std::string const text = randomText(random, size, 6);
      for (unsigned long room = 0; room < 11; ++room) {
        ASSERT_TRUE(decodesAsReference(text, room, state));
      }
    }
  }
}

TEST(Base64DecodeTest, StateWordsBeyondAByteAreMasked) {
  for (int const state : {256, 259, 0x7FFFFFFF, -1, INT_MIN, INT_MIN + 7}) {
    for (unsigned long room = 0; room < 80; ++room) {
      ASSERT_TRUE(decodesAsReference(std::string(90, 'q'), room, state));
    }
  }
}

TEST(Base64DecodeTest, EverySizeAndRoom) {
  std::mt19937 random(7);
  for (std::size_t size = 0; size < 120; ++size) {
    for (unsigned long room = 0; room < 92; ++room) {
      for (unsigned const cleanRun : {0U, 40U, 10U, 2U}) {
        std::string const text = randomText(random, size, cleanRun);
        ASSERT_TRUE(decodesAsReference(text, room, 0));
        ASSERT_TRUE(decodesAsReference(text, room, randomState(random)));
      }
    }
  }
}

TEST(Base64DecodeTest, EverySplitOfTheSource) {
  std::mt19937 random(8);
  for (unsigned round = 0; round < 60; ++round) {
    std::string const text = randomText(random, 1 + random() % 150, round % 3 * 20);
    unsigned long const room = random() % 120;
    for (std::size_t split = 0; split <= text.size(); ++split) {
      int const state = decoded(text.substr(0, split), room).state;
      ASSERT_TRUE(decodesAsReference(text.substr(0, split), room, 0));
      ASSERT_TRUE(decodesAsReference(text.substr(split), room, state));
    }
  }
}

TEST(Base64DecodeTest, EverySmallTarget) {
  std::mt19937 random(9);
  for (unsigned round = 0; round < 30; ++round) {
    std::string const text = randomText(random, random() % 160, round % 3 * 25);
    for (std::size_t room = 0; room < 60; ++room) {
      ASSERT_EQ(throughSmallTarget(Base64Decode, text, room),
                throughSmallTarget(referenceDecode, text, room));
    }
  }
}

TEST(Base64DecodeTest, PaddedTextsIntoEveryRoom) {
  std::mt19937 random(15);
  for (std::size_t size = 0; size < 70; ++size) {
    std::string const text = textOf(randomBytes(random, size));
    for (unsigned long room = 0; room < size + 4; ++room) {
      ASSERT_TRUE(decodesAsReference(text, room, 0));
      ASSERT_TRUE(decodesAsReference(text, room, randomState(random) & ~3));
    }
  }
}

TEST(Base64DecodeTest, EveryLastGroup) {
  std::string const characters = "AQ/=\n";
  for (std::string const& before : {std::string(), std::string("TWFu"), std::string(20, 'q')}) {
    for (std::size_t number = 0; number < 5 * 5 * 5 * 5; ++number) {
      std::string text = before;
      for (std::size_t const divisor : {125U, 25U, 5U, 1U}) {
        text += characters[number / divisor % 5];
      }
      for (unsigned long room = 0; room < 20; ++room) {
        ASSERT_TRUE(decodesAsReference(text, room, 0x50));
      }
    }
  }
}

TEST(Base64DecodeTest, JunkEverywhere) {
  std::mt19937 random(16);
  for (unsigned const cleanRun : {1U, 2U, 3U, 4U, 8U, 15U, 16U, 17U, 33U, 76U, 77U, 300U}) {
    for (std::size_t size = 0; size < 900; size += 1 + random() % 30) {
      std::string const text = dirtyText(random, size, cleanRun, random() % 2 != 0);
      unsigned long const all = decoded(text, size).written;
      for (unsigned long const room :
           {size, all, all - all / 7, all > 0 ? random() % all : 0, all + 1, all + 20, all + 21}) {
        ASSERT_TRUE(decodesAsReference(text, room, 0));
        ASSERT_TRUE(decodesAsReference(text, room, randomState(random)));
      }
    }
  }
}

TEST(Base64DecodeTest, JunkAndPaddingInLongTexts) {
  std::mt19937 random(17);
  for (unsigned const paddingRun : {3U, 20U, 100U, 400U}) {
    for (int round = 0; round < 60; ++round) {
      std::string text =
          dirtyText(random, 3000, 1 + static_cast<unsigned>(random() % 100), /*isRegular=*/true);
      for (char& character : text) {
        if (random() % paddingRun == 0) character = '=';
      }
      ASSERT_TRUE(decodesAsReference(text, random() % 3000, randomState(random)));
    }
  }
}

TEST(Base64DecodeTest, PiecesOfAnySizeIntoTargetsOfAnySize) {
  std::mt19937 random(19);
  for (std::size_t const mostAtOnce : {3U, 40U, 300U, 900U}) {
    for (unsigned const cleanRun : {3U, 16U, 76U, 400U}) {
      for (int round = 0; round < 20; ++round) {
        std::string text = dirtyText(random, 2000, cleanRun, round % 2 != 0);
        for (unsigned i = 0; i < random() % 12; ++i) text[random() % text.size()] = '=';
        ASSERT_TRUE(worksInPiecesAs(&referenceDecode, &Base64Decode, text, mostAtOnce, random));
      }
    }
  }
}

// A target that is full at each place of a text of some stretches, or is not yet.
TEST(Base64DecodeTest, DirtyTextsIntoEveryRoom) {
  std::mt19937 random(20);
  for (unsigned const cleanRun : {2U, 5U, 30U, 200U}) {
    for (bool const isRegular : {false, true}) {
      std::string const text = dirtyText(random, 700, cleanRun, isRegular);
      for (unsigned long room = 0; room <= 540; ++room) {
        ASSERT_TRUE(decodesAsReference(text, room, randomState(random)));
      }
    }
  }
}

// At each place among clean characters, and behind what is not.
TEST(Base64DecodeTest, EveryByteAtEveryPlace) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    for (std::size_t place = 0; place < 70; ++place) {
      std::string text(70, 'q');
      text[place] = static_cast<char>(byte);
      ASSERT_TRUE(decodesAsReference(text, 60, 0));
      text[0] = '\n';
      ASSERT_TRUE(decodesAsReference(text, 60, 0));
    }
  }
}

TEST(Base64DecodeTest, LinesAndPaddingInLongTexts) {
  std::mt19937 random(10);
  for (std::size_t const line : {1U, 4U, 8U, 37U, 64U, 76U}) {
    std::string text;
    for (int i = 0; i < 3000; ++i) {
      text += kReferenceAlphabet[random() % 64];
      if (text.size() % (line + 1) == line) text += random() % 50 == 0 ? '=' : '\n';
    }
    for (unsigned long const room : {100UL, 2249UL, 3000UL}) {
      ASSERT_TRUE(decodesAsReference(text, room, randomState(random)));
    }
  }
}

TEST(Base64DecodeTest, GivesBackWhatWasEncoded) {
  std::mt19937 random(11);
  for (std::size_t size = 0; size < 300; ++size) {
    std::string const bytes = randomBytes(random, size);
    ASSERT_EQ(decoded(textOf(bytes), size).target, bytes);
  }
}

TEST(Base64DecodeTest, MayWriteOverItsSource) {
  std::mt19937 random(12);
  for (std::size_t size = 0; size < 700; ++size) {
    for (unsigned const cleanRun : {0U, 20U, 100U}) {
      std::string text = cleanRun == 100 ? dirtyText(random, size, cleanRun, /*isRegular=*/false)
                                         : randomText(random, size, cleanRun);
      std::string expected = text;
      int state = 0;
      int expectedState = 0;
      unsigned long const written =
          Base64Decode(text.data(), size, text.data(), size, &state, nullptr);
      EXPECT_EQ(written, referenceDecode(expected.data(), size, expected.data(), size,
                                         &expectedState, nullptr));
      ASSERT_EQ(text, expected);
      ASSERT_EQ(state, expectedState);
    }
  }
}

// --- Whole buffers ----------------------------------------------------------------

TEST(ABase64EncodeTest, EncodesABuffer) {
  std::mt19937 random(13);
  for (std::size_t size = 0; size < 200; ++size) {
    std::string const bytes = randomBytes(random, size);
    std::string const text = textOf(bytes);
    std::wstring const expected(text.begin(), text.end());
    EXPECT_EQ(ABase64Encode::encode(Bytes(bytes)).const_cpp_str(), expected);
    EXPECT_EQ(
        ABase64Encode::encode(reinterpret_cast<Byte const*>(bytes.data()), size).const_cpp_str(),
        expected);
  }
}

TEST(ABase64EncodeTest, NullBytesAreZeros) {
  EXPECT_EQ(ABase64Encode::encode(nullptr, 4).const_cpp_str(), L"AAAAAA==");
  EXPECT_EQ(ABase64Encode::encode(nullptr, 0).const_cpp_str(), L"");
}

TEST(ABase64EncodeTest, DecodesAText) {
  struct {
    std::wstring text;
    std::string expected;
  } const rows[] = {{L"", ""},
                    {L"TWFu", "Man"},
                    {L"TW Fu", "Man"},
                    {L"TQ==TWE=", "MMa"},
                    {L"AAAA", std::string(3, '\0')},
                    {L"?", ""},
                    {L"TW\u00e4Fu", "Man"},
                    {std::wstring(L"TQ==\0TWE=", 9), "M"}};

  for (auto const& row : rows) {
    EXPECT_EQ(contents(ABase64Encode::decode(AString(row.text))), row.expected);
  }
}

TEST(ABase64EncodeTest, DecodingGivesBackWhatWasEncoded) {
  LogRecorder const recorder;
  std::mt19937 random(14);
  for (std::size_t const size : {0U, 1U, 2U, 3U, 100U, 5000U}) {
    std::string const bytes = randomBytes(random, size);
    EXPECT_EQ(contents(ABase64Encode::decode(ABase64Encode::encode(Bytes(bytes)))), bytes);
  }
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ABase64EncodeTest, NoMemoryForTheWorkGivesAnEmptyResult) {
  LogRecorder const recorder;
  constexpr std::size_t kUnobtainable = 1 << 16;
  Bytes const data(std::string(kUnobtainable * 4 / 5, 'x'));
  AString const text(std::wstring(kUnobtainable, L'x'));
  AString encodedText(L"before");
  Bytes bytes(std::string("before"));
  {
    MemoryShortage const shortage(kUnobtainable);
    encodedText = ABase64Encode::encode(data);
    bytes = ABase64Encode::decode(text);
  }
  EXPECT_EQ(encodedText.const_cpp_str(), L"");
  EXPECT_EQ(bytes.size(), 0U);
  EXPECT_EQ(recorder.records(), Records());
}

TEST(ABase64EncodeTest, NoMemoryForACopyIsThrown) {
  constexpr std::size_t kUnobtainable = 1 << 16;
  std::string const bytes(kUnobtainable, 'x');
  AString const text(std::wstring(kUnobtainable - 1, L'x'));
  MemoryShortage const shortage(kUnobtainable);
  EXPECT_THROW(ABase64Encode::encode(reinterpret_cast<Byte const*>(bytes.data()), kUnobtainable),
               std::bad_alloc);
  // Its narrow form has a terminator.
  EXPECT_THROW(ABase64Encode::decode(text), std::bad_alloc);
}

TEST(ABase64EncodeTest, NoMemoryForTheTextIsThrown) {
  constexpr std::size_t kUnobtainable = 1 << 16;
  Bytes const data(std::string(kUnobtainable / 4, 'x'));
  MemoryShortage const shortage(kUnobtainable);
  EXPECT_THROW(ABase64Encode::encode(data), std::bad_alloc);
}

TEST(ABase64EncodeTest, LengthsThatNoBufferHasAreThrown) {
  EXPECT_THROW(ABase64Encode::encode(nullptr, kHugest), std::length_error);
}

}  // namespace
}  // namespace vrxutil::test
