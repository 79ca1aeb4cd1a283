#include "tests/platform/child_process.h"
#include "tests/platform/system_call_fault.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/umask_scope.h"
#include "tests/support/variable_scope.h"

#include <vrxcomn/configuration.h>
#include <vrxcomn/crypto.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif

namespace vrxutil::test {

namespace {

using vornix_com::oxa::configuration::IConfiguration;
using vornix_com::RQ::crypto::CryptShim;
using vornix_com::RQ::crypto::EncryptionType;
using vornix_com::RQ::crypto::IEncryption;
using Bytes = vornix_com::RQ::crypto::AnObjectBuffer<unsigned char>;

namespace fs = std::filesystem;

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kHeaderSize = 1 + 24;
constexpr std::size_t kTagSize = 16;

struct Release {
  void operator()(IEncryption* object) const {
    CryptShim::instance()->destroy_encryption_object(object);
  }
};

using Encryption = std::unique_ptr<IEncryption, Release>;

Encryption makeEncryption() {
  return Encryption(CryptShim::instance()->create_encryption_object(EncryptionType::authenticated));
}

/// The encrypted form, by an object of its own; empty on failure.
std::string encrypted(std::string const& plain) {
  Encryption const object = makeEncryption();
  Bytes out("");
  return object != nullptr && object->encrypt(Bytes(plain), out) != 0 ? out.cpp_str() : "";
}

/// The decrypted form, by an object of its own.
std::optional<std::string> decrypted(std::string const& text) {
  Encryption const object = makeEncryption();
  Bytes out("untouched");
  if (object == nullptr || object->decrypt(Bytes(text), out) == 0) return std::nullopt;
  return out.cpp_str();
}

class CryptoTest : public testing::Test {
protected:
  std::string data() const { return folder_ / "data"; }

  std::string keyFolder() const { return data() + "/keys"; }

  std::string keyFile() const { return keyFolder() + "/type3.key"; }

  /// Puts a good key, but for what the arguments say.
  void makeKeyFile(std::size_t size = kKeySize, mode_t mode = 0600) const {
    fs::create_directories(keyFolder());
    makeFile(keyFile(), std::string(size, 'k'));
    ASSERT_EQ(0, ::chmod(keyFile().c_str(), mode));
  }

  std::string other() const { return folder_ / "other"; }

private:
  TemporaryFolder folder_;
  VariableScope variable_{"VRX_DATA_DIR", data()};
};

struct stat statusOf(std::string const& path) {
  struct stat status {};

  EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
  return status;
}

mode_t modeOf(std::string const& path) { return statusOf(path).st_mode & 07777; }

std::set<std::string> entriesOf(std::string const& folder) {
  std::set<std::string> names;
  for (auto const& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
  return names;
}

// --- Encryption -------------------------------------------------------------

TEST_F(CryptoTest, TextsOfEverySizeComeBack) {
  for (std::size_t const size : {0U, 1U, 15U, 16U, 17U, 63U, 64U, 65U, 4096U, 3000000U}) {
    std::string plain(size, '\0');
    for (std::size_t i = 0; i < size; ++i) plain[i] = static_cast<char>(i * 7);
    std::string const text = encrypted(plain);
    EXPECT_EQ(kHeaderSize + size + kTagSize, text.size());
    EXPECT_EQ(plain, decrypted(text)) << size;
  }
}

// "text" under a key of 32 "k" with a nonce of 24 "n", by an implementation made
// from the papers alone (RFC 8439, draft-irtf-cfrg-xchacha-03).
std::string const kNonce(24, 'n');
std::string const kUnderVersion1 =
    "\x81\x9D\xB0\xC1\xA0\x3E\x3A\x02\x81\x26\x01\xBE\xA4\xD0\xB1\x4F\x90\xD7\x7E\x64";
std::string const kUnderVersion2 =
    "\x81\x9D\xB0\xC1\x0C\x78\x76\x78\x47\xFB\x21\x97\x4E\xCC\x66\x94\xD4\x3A\x68\xA6";

TEST_F(CryptoTest, FormatIsVersionNonceCiphertextAndTag) {
  makeKeyFile();
  EXPECT_EQ("text", decrypted("\x01" + kNonce + kUnderVersion1));
  EXPECT_EQ('\x01', encrypted("text").at(0));
}

TEST_F(CryptoTest, VersionIsAuthenticated) {
  makeKeyFile();
  EXPECT_EQ(std::nullopt, decrypted("\x01" + kNonce + kUnderVersion2));
  EXPECT_EQ(std::nullopt, decrypted("\x02" + kNonce + kUnderVersion2));
  EXPECT_EQ(std::nullopt, decrypted("\x02" + kNonce + kUnderVersion1));
}

TEST_F(CryptoTest, NonceIsAnotherEachTime) {
  Encryption const object = makeEncryption();
  ASSERT_NE(nullptr, object);
  std::set<std::string> texts;
  for (int i = 0; i < 200; ++i) {
    Bytes out("");
    ASSERT_NE(0, object->encrypt(Bytes("same"), out));
    texts.insert(out.cpp_str().substr(1, 24));
  }
  EXPECT_EQ(200U, texts.size());
}

TEST_F(CryptoTest, InputMayBeTheOutput) {
  Encryption const object = makeEncryption();
  ASSERT_NE(nullptr, object);
  Bytes buffer("text");
  ASSERT_NE(0, object->encrypt(buffer, buffer));
  EXPECT_NE("text", buffer.cpp_str());
  ASSERT_NE(0, object->decrypt(buffer, buffer));
  EXPECT_EQ("text", buffer.cpp_str());
}

TEST_F(CryptoTest, ChangeOfAnyBitIsRefused) {
  std::string const text = encrypted("0123456789");
  Encryption const object = makeEncryption();
  ASSERT_NE(nullptr, object);
  Bytes out("");
  for (std::size_t i = 0; i < text.size(); ++i) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      std::string changed = text;
      changed[i] = static_cast<char>(static_cast<unsigned char>(changed[i]) ^ (1U << bit));
      EXPECT_EQ(0, object->decrypt(Bytes(changed), out)) << "byte " << i << " bit " << bit;
    }
  }
  EXPECT_NE(0, object->decrypt(Bytes(text), out));
}

TEST_F(CryptoTest, CutTextIsRefusedAtEveryLength) {
  std::string const text = encrypted("0123456789");
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_EQ(std::nullopt, decrypted(text.substr(0, size))) << size;
    EXPECT_EQ(std::nullopt, decrypted(text.substr(text.size() - size))) << size;
  }
}

TEST_F(CryptoTest, TextThatIsLongerOrForeignIsRefused) {
  std::string const text = encrypted("0123456789");
  for (std::string const& foreign :
       {text + '\0', '\x01' + text, text + text,
        std::string(R"(<?xml version="1.0"?><root attribute="value"/>)"), std::string(100, '\0'),
        std::string(100, '\x01')}) {
    EXPECT_EQ(std::nullopt, decrypted(foreign));
  }
}

TEST_F(CryptoTest, TextOfAnotherKeyIsRefused) {
  std::string const text = encrypted("text");
  fs::remove(keyFile());
  ASSERT_NE("", encrypted("text"));  // makes another key
  EXPECT_EQ(std::nullopt, decrypted(text));
}

TEST_F(CryptoTest, FailedDecryptLeavesTheOutputAlone) {
  Encryption const object = makeEncryption();
  ASSERT_NE(nullptr, object);
  Bytes out("before");
  EXPECT_EQ(0, object->decrypt(Bytes(std::string(60, '\x01')), out));
  EXPECT_EQ("before", out.cpp_str());
}

TEST_F(CryptoTest, UnknownTypesGiveNull) {
  for (int const type : {0, 1, 2, 4, -1, 2147483647, -2147483647 - 1}) {
    EXPECT_EQ(nullptr, CryptShim::instance()->create_encryption_object(EncryptionType{type}))
        << type;
  }
  EXPECT_FALSE(fs::exists(data()));
}

TEST_F(CryptoTest, NullMayBeReleased) { CryptShim::instance()->destroy_encryption_object(nullptr); }

TEST_F(CryptoTest, ReservedOperationsDoNothing) {
  Encryption const object = makeEncryption();
  ASSERT_NE(nullptr, object);
  EXPECT_EQ(0, object->reserved1());
  EXPECT_EQ(0, object->reserved2());
}

TEST_F(CryptoTest, NothingIsLogged) {
  LogRecorder recorder;
  ASSERT_NE("", encrypted("text"));
  EXPECT_EQ(std::nullopt, decrypted("foreign"));
  ASSERT_EQ(0, ::chmod(keyFile().c_str(), 0644));
  EXPECT_EQ(nullptr, makeEncryption());
  EXPECT_EQ(nullptr, CryptShim::instance()->create_encryption_object(EncryptionType{4}));
  EXPECT_EQ(std::vector<LogRecord>{}, recorder.records());
}

// --- The key ----------------------------------------------------------------

TEST_F(CryptoTest, KeyIsMadeAtFirstUseForItsOwnerOnly) {
  UmaskScope const umask(0);
  Encryption const object = makeEncryption();
  ASSERT_NE(nullptr, object);
  EXPECT_EQ(mode_t{0750}, modeOf(data()));
  EXPECT_EQ(mode_t{0700}, modeOf(keyFolder()));
  EXPECT_EQ(mode_t{0600}, modeOf(keyFile()));
  EXPECT_EQ(kKeySize, fileBytes(keyFile()).size());
  EXPECT_EQ(nlink_t{1}, statusOf(keyFile()).st_nlink);
  EXPECT_EQ(std::set<std::string>{"type3.key"}, entriesOf(keyFolder()));
}

TEST_F(CryptoTest, KeyIsKept) {
  ASSERT_NE("", encrypted("text"));
  std::string const key = fileBytes(keyFile());
  ASSERT_NE("", encrypted("text"));
  EXPECT_EQ(key, fileBytes(keyFile()));
}

TEST_F(CryptoTest, KeysAreRandom) {
  std::set<std::string> keys;
  for (int i = 0; i < 10; ++i) {
    ASSERT_NE("", encrypted("text"));
    keys.insert(fileBytes(keyFile()));
    fs::remove(keyFile());
  }
  EXPECT_EQ(10U, keys.size());
}

struct ModeRow {
  mode_t mode;
  bool isGood;
};

class KeyModeTest : public CryptoTest, public testing::WithParamInterface<ModeRow> {};

TEST_P(KeyModeTest, DecidesWhetherTheKeyIsTaken) {
  makeKeyFile(kKeySize, GetParam().mode);
  EXPECT_EQ(GetParam().isGood, makeEncryption() != nullptr);
  EXPECT_EQ(GetParam().mode, modeOf(keyFile()));
  EXPECT_EQ(std::string(kKeySize, 'k'), fileBytes(keyFile()));
}

INSTANTIATE_TEST_SUITE_P(Modes, KeyModeTest,
                         testing::Values(ModeRow{0600, true}, ModeRow{0400, true},
                                         ModeRow{0700, true}, ModeRow{0640, false},
                                         ModeRow{0620, false}, ModeRow{0604, false},
                                         ModeRow{0602, false}, ModeRow{0666, false}),
                         [](testing::TestParamInfo<ModeRow> const& row) {
                           return std::to_string(row.param.mode);
                         });

class KeySizeTest : public CryptoTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(KeySizeTest, OtherThanTheKeysIsRefused) {
  makeKeyFile(GetParam());
  EXPECT_EQ(nullptr, makeEncryption());
  EXPECT_EQ(std::string(GetParam(), 'k'), fileBytes(keyFile()));
}

INSTANTIATE_TEST_SUITE_P(Sizes, KeySizeTest, testing::Values(0U, 1U, 31U, 33U, 64U));

TEST_F(CryptoTest, KeyOfRootIsTakenAndThatOfAStrangerRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  constexpr uid_t kStranger = 54321;
  makeKeyFile();
  ASSERT_NE(nullptr, makeEncryption());
  ASSERT_EQ(0, ::chown(keyFile().c_str(), kStranger, 0));
  EXPECT_EQ(nullptr, makeEncryption());
}

TEST_F(CryptoTest, KeyOfTheEffectiveUserIsTaken) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  constexpr uid_t kUser = 54321;
  makeKeyFile();
  ASSERT_EQ(0, ::chown(keyFile().c_str(), kUser, 0));
  ChildResult const result = runInChild([this] {
    for (std::string const& above : {data() + "/..", data(), keyFolder()}) {
      fs::permissions(above, fs::perms::all);
    }
    ASSERT_EQ(0, ::seteuid(kUser));
    EXPECT_NE(nullptr, makeEncryption());
    ASSERT_EQ(0, ::seteuid(0));
  });
  EXPECT_EQ(0, result.status);
}

TEST_F(CryptoTest, SymbolicLinkIsRefused) {
  makeKeyFile();
  fs::rename(keyFile(), other());
  fs::create_symlink(other(), keyFile());
  EXPECT_EQ(nullptr, makeEncryption());
  EXPECT_TRUE(fs::is_symlink(keyFile()));
}

TEST_F(CryptoTest, SymbolicLinkToNothingIsRefused) {
  fs::create_directories(keyFolder());
  fs::create_symlink(other(), keyFile());
  EXPECT_EQ(nullptr, makeEncryption());
  EXPECT_FALSE(fs::exists(other()));
}

TEST_F(CryptoTest, FolderInTheKeysPlaceIsRefused) {
  fs::create_directories(keyFile());
  ASSERT_EQ(0, ::chmod(keyFile().c_str(), 0600));
  EXPECT_EQ(nullptr, makeEncryption());
}

TEST_F(CryptoTest, FifoInTheKeysPlaceIsRefused) {
  fs::create_directories(keyFolder());
  ASSERT_EQ(0, ::mkfifo(keyFile().c_str(), 0600));
  EXPECT_EQ(nullptr, makeEncryption());
}

TEST_F(CryptoTest, FileInAFoldersPlaceIsRefused) {
  makeFile(data(), "");
  EXPECT_EQ(nullptr, makeEncryption());
  fs::remove(data());
  fs::create_directories(data());
  makeFile(keyFolder(), "");
  EXPECT_EQ(nullptr, makeEncryption());
  EXPECT_EQ("", fileBytes(keyFolder()));
}

TEST_F(CryptoTest, KeyThatCannotBeWrittenIsNoneAndKillsNothing) {
  fs::create_directories(keyFolder());
  ChildResult const result = runInChild([] {
    ::signal(SIGXFSZ, SIG_DFL);
    rlimit const limit{.rlim_cur = kKeySize - 1, .rlim_max = RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
    EXPECT_EQ(nullptr, makeEncryption());
  });
  EXPECT_EQ(0, result.status) << result.standardError;
  EXPECT_EQ(std::set<std::string>{}, entriesOf(keyFolder()));
}

TEST_F(CryptoTest, KeyWithASecondNameIsTaken) {
  // As a process leaves it that ended between giving the name and removing the first.
  makeKeyFile();
  fs::create_hard_link(keyFile(), keyFile() + ".abcdef");
  EXPECT_NE(nullptr, makeEncryption());
}

TEST_F(CryptoTest, DataFolderThatTheLocaleCannotExpressIsRefused) {
  class Foreign final : public IConfiguration {
  public:
    std::wstring GetFrameworkDataDirectory() override {
      return {L'/', static_cast<wchar_t>(0xD800)};
    }

    std::wstring GetUpdaterDataDir() override { return L""; }
  };

  Foreign configuration;
  IConfiguration::SetConfiguration(&configuration);
  EXPECT_EQ(nullptr, makeEncryption());
  IConfiguration::SetConfiguration(nullptr);
}

TEST_F(CryptoTest, ConfigurationThatThrowsGivesNull) {
  class Throwing final : public IConfiguration {
  public:
    std::wstring GetFrameworkDataDirectory() override { throw std::runtime_error("no data"); }

    std::wstring GetUpdaterDataDir() override { return L""; }
  };

  Throwing configuration;
  IConfiguration::SetConfiguration(&configuration);
  EXPECT_EQ(nullptr, makeEncryption());
  IConfiguration::SetConfiguration(nullptr);
}

#ifdef __linux__

enum class Making { done, refused, notPossible };

/// What comes of an encryption object while fsync(2) fails: of all files, or of
/// the one opened after so many others.
Making makeWithoutFlush(std::optional<int> opened = std::nullopt) {
  ChildResult const result = runInChild([&] {
    Fault fault{"fsync", {SYS_fsync}, failsWith(EIO)};
    int const next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    if (opened) fault.argument = Argument{0, next + *opened};
    bool const isPossible = inject(fault);
    bool const isMade = isPossible && makeEncryption() != nullptr;
    ::_exit(static_cast<int>(!isPossible ? Making::notPossible
                             : isMade    ? Making::done
                                         : Making::refused));
  });
  return static_cast<Making>(WEXITSTATUS(result.status));
}

TEST_F(CryptoTest, NewKeyIsFlushedBeforeItHasItsName) {
  Making const making = makeWithoutFlush();
  if (making == Making::notPossible) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(Making::refused, making);
  EXPECT_EQ(std::set<std::string>{}, entriesOf(keyFolder()));
}

TEST_F(CryptoTest, NameOfANewKeyIsFlushedBeforeItIsUsed) {
  constexpr int kFolder = 1;  // opened after the key
  Making const making = makeWithoutFlush(kFolder);
  if (making == Making::notPossible) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(Making::refused, making);
  EXPECT_EQ(std::set<std::string>{"type3.key"}, entriesOf(keyFolder()));
}

TEST_F(CryptoTest, NameIsFlushedBeforeUseWhereItsMakerMayNotHaveDoneSo) {
  makeKeyFile();
  Making const making = makeWithoutFlush();
  if (making == Making::notPossible) GTEST_SKIP() << kNotInjected;
  EXPECT_EQ(Making::done, making);
  fs::create_hard_link(keyFile(), keyFile() + ".abcdef");
  EXPECT_EQ(Making::refused, makeWithoutFlush());
}

TEST_F(CryptoTest, KeyOfRootIsTakenByAnotherUserWhoMayReadIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can hand on capabilities";
  constexpr uid_t kUser = 54321;
  makeKeyFile();
  ChildResult const result = runInChild([] {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    sets[0].permitted = sets[0].effective = 1U << CAP_DAC_OVERRIDE;
    ASSERT_EQ(0, ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0));
    ASSERT_EQ(0, ::setuid(kUser));
    ASSERT_EQ(0, ::syscall(SYS_capset, &header, sets.data()));
    EXPECT_NE(nullptr, makeEncryption());
  });
  EXPECT_EQ(0, result.status) << result.standardError;
}

#endif

/// Several processes, let go at the same moment. Each appends what it has
/// encrypted to the file `results`.
class Starters {
public:
  Starters(int count, std::string const& results) {
    std::array<int, 2> start{};
    EXPECT_EQ(0, ::pipe(start.data()));
    std::fflush(stdout);
    for (int i = 0; i < count; ++i) {
      pid_t const child = ::fork();
      if (child == 0) {
        ::close(start[1]);
        readToEnd(start[0]);  // until the parent closes its end
        ::_exit(appendEncrypted(results) ? 0 : 1);
      }
      processes_.push_back(child);
    }
    ::close(start[0]);
    ::close(start[1]);
  }

  /// Waits for the end of all; how many failed.
  int join() const {
    int failed = 0;
    for (pid_t const process : processes_) failed += waitFor(process) == 0 ? 0 : 1;
    return failed;
  }

private:
  static bool appendEncrypted(std::string const& results) {
    std::string const text = encrypted("text");
    int const file = ::open(results.c_str(), O_WRONLY | O_APPEND);
    return ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  std::vector<pid_t> processes_;
};

TEST_F(CryptoTest, ProcessesThatStartAtOnceEndWithOneKey) {
  constexpr int kProcesses = 6;
  constexpr int kRounds = 60;
  constexpr std::size_t kTextSize = kHeaderSize + 4 + kTagSize;
  for (int round = 0; round < kRounds; ++round) {
    fs::remove_all(data());
    makeFile(other(), "");
    EXPECT_EQ(0, Starters(kProcesses, other()).join());
    std::string const texts = fileBytes(other());
    ASSERT_EQ(kProcesses * kTextSize, texts.size());
    for (std::size_t start = 0; start < texts.size(); start += kTextSize) {
      EXPECT_EQ("text", decrypted(texts.substr(start, kTextSize))) << "round " << round;
    }
    EXPECT_EQ(std::set<std::string>{"type3.key"}, entriesOf(keyFolder()));
  }
}

TEST_F(CryptoTest, ThreadsThatStartAtOnceEndWithOneKey) {
  for (int round = 0; round < 20; ++round) {
    fs::remove_all(data());
    std::array<std::string, 4> texts;
    std::vector<std::thread> threads;
    threads.reserve(texts.size());
    for (std::string& text : texts) threads.emplace_back([&text] { text = encrypted("text"); });
    for (std::thread& thread : threads) thread.join();
    for (std::string const& text : texts) EXPECT_EQ("text", decrypted(text));
  }
}

// --- The service in use -----------------------------------------------------

class NoCrypto final : public CryptShim {
public:
  IEncryption* create_encryption_object(EncryptionType /*type*/) override { return nullptr; }

  void destroy_encryption_object(IEncryption* /*object*/) override {}
};

TEST_F(CryptoTest, SetInstanceReturnsTheOneBeforeAndNullBringsTheBuiltInBack) {
  CryptShim* const builtIn = CryptShim::instance();
  ASSERT_NE(nullptr, builtIn);
  NoCrypto first;
  NoCrypto second;
  EXPECT_EQ(builtIn, CryptShim::set_instance(&first));
  EXPECT_EQ(&first, CryptShim::instance());
  EXPECT_EQ(nullptr, makeEncryption());
  EXPECT_EQ(&first, CryptShim::set_instance(&second));
  EXPECT_EQ(&second, CryptShim::set_instance(nullptr));
  EXPECT_EQ(builtIn, CryptShim::instance());
  EXPECT_EQ(builtIn, CryptShim::set_instance(nullptr));
  EXPECT_NE(nullptr, makeEncryption());
}

}  // namespace

}  // namespace vrxutil::test
