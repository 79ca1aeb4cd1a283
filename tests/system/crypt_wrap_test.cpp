#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/variable_scope.h"

#include <vrxcomn/crypto.h>
#include <vrxutil/system.h>

#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vrxutil::test {
namespace {

namespace crypto = vornix_com::RQ::crypto;

using Bytes = AnObjectBuffer<unsigned char>;
using Names = std::vector<std::string>;
using Records = std::vector<LogRecord>;
using CryptoBuffer = crypto::AnObjectBuffer<unsigned char>;

static_assert(
    std::is_same_v<decltype(ACryptWrap::encrypt_data), bool(std::string const&, std::string&)>);
static_assert(
    std::is_same_v<decltype(ACryptWrap::decrypt_data), bool(std::string const&, std::string&)>);
static_assert(std::is_same_v<decltype(ACryptWrap::encryptDataBuffer), bool(Bytes const&, Bytes&)>);
static_assert(std::is_same_v<decltype(ACryptWrap::decryptDataBuffer), bool(Bytes const&, Bytes&)>);
static_assert(sizeof(crypto::ABuffer) == sizeof(std::string));
static_assert(sizeof(CryptoBuffer) == sizeof(crypto::ABuffer));

// --- A crypto service that writes down what it is asked ---------------------------------

// How the operations of the service's objects end.
struct Behaviour {
  int result = 1;
  std::string output = "transformed";
  bool throws = false;
  std::function<void()> meanwhile = [] {};
};

// What happened, in order, and with which bytes.
struct Diary {
  Names calls;
  std::string input;
  std::string outputAtEntry = "unset";
};

class FakeEncryption final : public crypto::IEncryption {
public:
  FakeEncryption(Behaviour const& behaviour, Diary& diary)
      : behaviour_(&behaviour), diary_(&diary) {}

  int encrypt(CryptoBuffer const& in, CryptoBuffer& out) override {
    return note("encrypt", in, out);
  }

  int reserved1() override { return note("reserved1"); }

  int reserved2() override { return note("reserved2"); }

  int decrypt(CryptoBuffer const& in, CryptoBuffer& out) override {
    return note("decrypt", in, out);
  }

private:
  int note(char const* operation) {
    diary_->calls.emplace_back(operation);
    return behaviour_->result;
  }

  int note(char const* operation, CryptoBuffer const& in, CryptoBuffer& out) {
    diary_->input = in.cpp_str();
    diary_->outputAtEntry = out.cpp_str();
    out.cpp_str() = behaviour_->output;
    behaviour_->meanwhile();
    int const result = note(operation);
    if (behaviour_->throws) throw std::runtime_error("operation failed");
    return result;
  }

  Behaviour const* behaviour_;
  Diary* diary_;
};

// The service in use for as long as it lives.
class FakeShim final : public crypto::CryptShim {
public:
  FakeShim() : before_(set_instance(this)) {}

  ~FakeShim() override { set_instance(before_); }

  FakeShim(FakeShim const&) = delete;
  FakeShim& operator=(FakeShim const&) = delete;

  crypto::IEncryption* create_encryption_object(crypto::EncryptionType type) override {
    diary.calls.push_back("create " + std::to_string(static_cast<int>(type)));
    if (creationThrows) throw std::runtime_error("creation failed");
    if (answersNull) return nullptr;
    objects_.push_back(std::make_unique<FakeEncryption>(behaviour, diary));
    return objects_.back().get();
  }

  void destroy_encryption_object(crypto::IEncryption* object) override {
    bool const newest = !objects_.empty() && object == objects_.back().get();
    diary.calls.emplace_back(newest ? "destroy" : "destroy of something else");
  }

  // Objects made so far; they are kept, so that each has an address of its own.
  std::size_t objectsMade() const { return objects_.size(); }

  Behaviour behaviour;
  Diary diary;
  bool answersNull = false;
  bool creationThrows = false;

private:
  crypto::CryptShim* before_;
  std::vector<std::unique_ptr<FakeEncryption>> objects_;
};

// --- The four functions, as functions of byte strings -------------------------------------

struct Function {
  char const* name;
  char const* operation;
  bool (*call)(std::string const& in, std::string& out);
};

void PrintTo(Function const& function, std::ostream* out) { *out << function.name; }

// The contents of `out` before the call, and after it, are those of the buffer.
bool callWithBuffers(bool (*function)(Bytes const&, Bytes&), std::string const& in,
                     std::string& out) {
  Bytes const inBuffer(in);
  Bytes outBuffer(out);
  auto const copyBack = [&] { out = outBuffer.cpp_str(); };
  try {
    bool const result = function(inBuffer, outBuffer);
    copyBack();
    return result;
  } catch (...) {
    copyBack();
    throw;
  }
}

constexpr Function kFunctions[] = {
    {"encrypt_data", "encrypt", ACryptWrap::encrypt_data},
    {"decrypt_data", "decrypt", ACryptWrap::decrypt_data},
    {"encryptDataBuffer", "encrypt",
     [](std::string const& in, std::string& out) {
       return callWithBuffers(ACryptWrap::encryptDataBuffer, in, out);
     }},
    {"decryptDataBuffer", "decrypt",
     [](std::string const& in, std::string& out) {
       return callWithBuffers(ACryptWrap::decryptDataBuffer, in, out);
     }},
};

Names callsOf(Function const& function) { return {"create 3", function.operation, "destroy"}; }

std::string const kInput("in\0put", 6);
std::string const kBefore("be\0fore", 7);

// A suite of tests, each run for each function. Nothing may be logged.
class ACryptWrapTest : public testing::TestWithParam<Function> {
protected:
  ~ACryptWrapTest() override { EXPECT_EQ(recorder_.records(), Records()); }

  static bool call(std::string const& in, std::string& out) { return GetParam().call(in, out); }

private:
  LogRecorder recorder_;
};

INSTANTIATE_TEST_SUITE_P(Functions, ACryptWrapTest, testing::ValuesIn(kFunctions),
                         [](auto const& function) {
                           std::string name = function.param.name;
                           std::erase(name, '_');
                           return name;
                         });

TEST_P(ACryptWrapTest, SuccessAssignsTheOutputAndHandsTheObjectBack) {
  FakeShim shim;
  std::string out = kBefore;
  EXPECT_TRUE(call(kInput, out));
  EXPECT_EQ(out, "transformed");
  EXPECT_EQ(shim.diary.calls, callsOf(GetParam()));
  EXPECT_EQ(shim.diary.input, kInput);
  EXPECT_EQ(shim.diary.outputAtEntry, "");
}

TEST_P(ACryptWrapTest, EveryResultButZeroIsSuccess) {
  for (int const result : {1, 2, 7, -1, 256, -2147483647 - 1, 2147483647}) {
    SCOPED_TRACE(result);
    FakeShim shim;
    shim.behaviour.result = result;
    std::string out = kBefore;
    EXPECT_TRUE(call(kInput, out));
    EXPECT_EQ(out, "transformed");
    EXPECT_EQ(shim.diary.calls, callsOf(GetParam()));
  }
}

TEST_P(ACryptWrapTest, FailedOperationLeavesTheOutputAndHandsTheObjectBack) {
  FakeShim shim;
  shim.behaviour.result = 0;
  shim.behaviour.output = "garbage";
  std::string out = kBefore;
  EXPECT_FALSE(call(kInput, out));
  EXPECT_EQ(out, kBefore);
  EXPECT_EQ(shim.diary.calls, callsOf(GetParam()));
}

TEST_P(ACryptWrapTest, MissingObjectLeavesTheOutput) {
  FakeShim shim;
  shim.answersNull = true;
  std::string out = kBefore;
  EXPECT_FALSE(call(kInput, out));
  EXPECT_EQ(out, kBefore);
  EXPECT_EQ(shim.diary.calls, Names({"create 3"}));
}

TEST_P(ACryptWrapTest, ExceptionOfTheOperationPassesWithTheObjectHandedBack) {
  FakeShim shim;
  shim.behaviour.throws = true;
  std::string out = kBefore;
  EXPECT_THROW(call(kInput, out), std::runtime_error);
  EXPECT_EQ(out, kBefore);
  EXPECT_EQ(shim.diary.calls, callsOf(GetParam()));
}

TEST_P(ACryptWrapTest, ExceptionOfTheServicePassesWithNothingToHandBack) {
  FakeShim shim;
  shim.creationThrows = true;
  std::string out = kBefore;
  EXPECT_THROW(call(kInput, out), std::runtime_error);
  EXPECT_EQ(out, kBefore);
  EXPECT_EQ(shim.diary.calls, Names({"create 3"}));
}

TEST_P(ACryptWrapTest, EachCallHasAnObjectOfItsOwn) {
  FakeShim shim;
  std::string out;
  for (std::size_t count = 1; count <= 3; ++count) {
    shim.diary.calls.clear();
    EXPECT_TRUE(call(kInput, out));
    EXPECT_EQ(shim.objectsMade(), count);
    EXPECT_EQ(shim.diary.calls, callsOf(GetParam()));
  }
}

TEST_P(ACryptWrapTest, ServiceIsAskedForAfresh) {
  FakeShim first;
  std::string out;
  EXPECT_TRUE(call(kInput, out));
  {
    FakeShim second;
    second.behaviour.output = "by the second";
    EXPECT_TRUE(call(kInput, out));
    EXPECT_EQ(out, "by the second");
  }
  EXPECT_EQ(first.objectsMade(), 1U);
  EXPECT_TRUE(call(kInput, out));
  EXPECT_EQ(first.objectsMade(), 2U);
}

TEST_P(ACryptWrapTest, ObjectGoesBackToTheServiceThatMadeIt) {
  FakeShim first;
  std::optional<FakeShim> second;
  first.behaviour.meanwhile = [&] { second.emplace(); };
  std::string out;
  EXPECT_TRUE(call(kInput, out));
  EXPECT_EQ(first.diary.calls, callsOf(GetParam()));
  EXPECT_EQ(second->diary.calls, Names());
}

TEST_P(ACryptWrapTest, EmptyInputIsPassedOnAsAnEmptyBuffer) {
  FakeShim shim;
  shim.diary.input = "unset";
  std::string out;
  EXPECT_TRUE(call("", out));
  EXPECT_EQ(shim.diary.input, "");
  EXPECT_EQ(shim.diary.calls, callsOf(GetParam()));
  EXPECT_EQ(out, "transformed");
}

TEST_P(ACryptWrapTest, EmptyOutputIsAssigned) {
  FakeShim shim;
  shim.behaviour.output = "";
  std::string out = kBefore;
  EXPECT_TRUE(call(kInput, out));
  EXPECT_EQ(out, "");
}

TEST_P(ACryptWrapTest, BytesOfEveryValueArePassedBothWays) {
  std::string all(100000, '\0');
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<char>(i % 256);
  FakeShim shim;
  shim.behaviour.output = std::string(all.rbegin(), all.rend());
  std::string out;
  EXPECT_TRUE(call(all, out));
  EXPECT_EQ(shim.diary.input, all);
  EXPECT_EQ(out, shim.behaviour.output);
}

// --- Input and output in one object -------------------------------------------------------

struct Outcome {
  char const* name;
  int result;
  bool succeeds;
  std::string after;
};

std::vector<Outcome> const& outcomes() {
  static std::vector<Outcome> const all = {{"success", 1, true, "transformed"},
                                           {"failure", 0, false, kInput}};
  return all;
}

TEST(ACryptWrapSameObjectTest, ByteStringMayBeInputAndOutput) {
  for (auto* const function : {ACryptWrap::encrypt_data, ACryptWrap::decrypt_data}) {
    for (Outcome const& outcome : outcomes()) {
      SCOPED_TRACE(outcome.name);
      FakeShim shim;
      shim.behaviour.result = outcome.result;
      std::string data = kInput;
      EXPECT_EQ(function(data, data), outcome.succeeds);
      EXPECT_EQ(shim.diary.input, kInput);
      EXPECT_EQ(data, outcome.after);
    }
  }
}

TEST(ACryptWrapSameObjectTest, BufferMayBeInputAndOutput) {
  for (auto* const function : {ACryptWrap::encryptDataBuffer, ACryptWrap::decryptDataBuffer}) {
    for (Outcome const& outcome : outcomes()) {
      SCOPED_TRACE(outcome.name);
      FakeShim shim;
      shim.behaviour.result = outcome.result;
      Bytes data(kInput);
      EXPECT_EQ(function(data, data), outcome.succeeds);
      EXPECT_EQ(shim.diary.input, kInput);
      EXPECT_EQ(data.cpp_str(), outcome.after);
    }
  }
}

// --- The slots of the encryption object ---------------------------------------------------

// Where a virtual operation stands in its table, as the Itanium C++ ABI encodes
// it in a pointer to member: an offset, marked on some hosts by its lowest bit.
template <class Member>
std::size_t slotOf(Member member) {
  struct Representation {
    std::ptrdiff_t pointer;
    std::ptrdiff_t adjustment;
  };

  auto const offset = static_cast<std::size_t>(std::bit_cast<Representation>(member).pointer);
  return (offset & ~std::size_t{1}) / sizeof(void*);
}

TEST(EncryptionObjectTest, EncryptIsInTheThirdSlotAndDecryptInTheSixth) {
  EXPECT_EQ(slotOf(&crypto::IEncryption::encrypt), 2U);
  EXPECT_EQ(slotOf(&crypto::IEncryption::reserved1), 3U);
  EXPECT_EQ(slotOf(&crypto::IEncryption::reserved2), 4U);
  EXPECT_EQ(slotOf(&crypto::IEncryption::decrypt), 5U);
}

// --- The service's buffers ----------------------------------------------------------------

TEST(CryptoBufferTest, HoldsACopyOfItsBytes) {
  std::string bytes = kInput;
  CryptoBuffer fromString(bytes);
  CryptoBuffer fromBytes(6U, reinterpret_cast<unsigned char const*>(bytes.data()));
  bytes.assign(6, '?');
  EXPECT_EQ(fromString.cpp_str(), kInput);
  EXPECT_EQ(fromBytes.cpp_str(), kInput);
  fromString.cpp_str() += "!";
  EXPECT_EQ(fromString.cpp_str(), kInput + "!");
}

TEST(CryptoBufferTest, HasZeroBytesWithoutASource) {
  EXPECT_EQ(CryptoBuffer(3U, nullptr).cpp_str(), std::string(3, '\0'));
  EXPECT_EQ(CryptoBuffer(0U, nullptr).cpp_str(), "");
}

// --- The built-in service -----------------------------------------------------------------

class BuiltInCryptoTest : public testing::Test {
protected:
  BuiltInCryptoTest() : before_(crypto::CryptShim::set_instance(nullptr)) {}

  ~BuiltInCryptoTest() override {
    crypto::CryptShim::set_instance(before_);
    EXPECT_EQ(recorder_.records(), Records());
  }

private:
  TemporaryFolder folder_;
  VariableScope dataFolder_{"VRX_DATA_DIR", folder_.path()};
  LogRecorder recorder_;
  crypto::CryptShim* before_;
};

std::string plainText(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 251);
  return text;
}

TEST_F(BuiltInCryptoTest, DecryptionReversesEncryption) {
  for (std::size_t const size : {0U, 1U, 16U, 1000U, 1048576U}) {
    SCOPED_TRACE(size);
    std::string const plain = plainText(size);
    std::string secret = "unset";
    ASSERT_TRUE(ACryptWrap::encrypt_data(plain, secret));
    EXPECT_GT(secret.size(), plain.size());
    std::string decrypted = "unset";
    ASSERT_TRUE(ACryptWrap::decrypt_data(secret, decrypted));
    EXPECT_EQ(decrypted, plain);
  }
}

TEST_F(BuiltInCryptoTest, BuffersAndByteStringsAreInterchangeable) {
  std::string const plain = plainText(1000);
  Bytes secret(0U, nullptr);
  ASSERT_TRUE(ACryptWrap::encryptDataBuffer(Bytes(plain), secret));
  std::string decrypted;
  ASSERT_TRUE(ACryptWrap::decrypt_data(secret.cpp_str(), decrypted));
  EXPECT_EQ(decrypted, plain);
  ASSERT_TRUE(ACryptWrap::decryptDataBuffer(secret, secret));
  EXPECT_EQ(secret.cpp_str(), plain);
}

TEST_F(BuiltInCryptoTest, ChangedDataIsRefused) {
  std::string secret;
  ASSERT_TRUE(ACryptWrap::encrypt_data("some text", secret));
  for (std::size_t i = 0; i < secret.size(); ++i) {
    std::string changed = secret;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    std::string out = kBefore;
    EXPECT_FALSE(ACryptWrap::decrypt_data(changed, out)) << i;
    EXPECT_EQ(out, kBefore);
    EXPECT_FALSE(ACryptWrap::decrypt_data(secret.substr(0, i), out)) << i;
    EXPECT_EQ(out, kBefore);
  }
}

TEST_F(BuiltInCryptoTest, ForeignDataIsRefusedByBuffersToo) {
  Bytes out(kBefore);
  EXPECT_FALSE(ACryptWrap::decryptDataBuffer(Bytes(std::string("plain text")), out));
  EXPECT_FALSE(ACryptWrap::decryptDataBuffer(Bytes(std::string()), out));
  EXPECT_EQ(out.cpp_str(), kBefore);
}

}  // namespace
}  // namespace vrxutil::test
