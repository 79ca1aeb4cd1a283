#include "platform/common/file_io.h"
#include "platform/vrxcomn/key_file.h"
#include "platform/vrxcomn/service_slot.h"

#include <vrxcomn/configuration.h>
#include <vrxcomn/crypto.h>

#include <sodium.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <utility>

namespace vornix_com::RQ::crypto {

namespace {

using Bytes = AnObjectBuffer<unsigned char>;
using oxa::configuration::IConfiguration;

// An encrypted text: version, nonce, then ciphertext and tag together. The
// version is authenticated, too.
constexpr unsigned char kVersion = 1;
constexpr std::size_t kVersionSize = 1;
constexpr std::size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr std::size_t kHeaderSize = kVersionSize + kNonceSize;
constexpr std::size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;
static_assert(kNonceSize == 24 && kTagSize == 16, "the format is fixed");

unsigned char* bytesOf(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

unsigned char const* bytesOf(std::string const& text) {
  return reinterpret_cast<unsigned char const*>(text.data());
}

std::string encryptText(std::string const& plain, unsigned char const* key) {
  std::string encrypted(kHeaderSize + plain.size() + kTagSize, '\0');
  unsigned char* const version = bytesOf(encrypted);
  unsigned char* const nonce = version + kVersionSize;
  *version = kVersion;
  randombytes_buf(nonce, kNonceSize);
  crypto_aead_xchacha20poly1305_ietf_encrypt(version + kHeaderSize, nullptr, bytesOf(plain),
                                             plain.size(), version, kVersionSize, nullptr, nonce,
                                             key);  // never fails
  return encrypted;
}

bool decryptText(std::string const& encrypted, unsigned char const* key, std::string& plain) {
  if (encrypted.size() < kHeaderSize + kTagSize) return false;
  unsigned char const* const version = bytesOf(encrypted);
  if (*version != kVersion) return false;
  std::string text(encrypted.size() - kHeaderSize - kTagSize, '\0');
  if (crypto_aead_xchacha20poly1305_ietf_decrypt(
          bytesOf(text), nullptr, nullptr, version + kHeaderSize, encrypted.size() - kHeaderSize,
          version, kVersionSize, version + kVersionSize, key) != 0) {
    return false;
  }
  plain = std::move(text);
  return true;
}

/// Calls `action` and passes its result on; null or zero for lack of memory.
template <class Action>
auto withoutException(Action action) -> decltype(action()) {
  try {
    return action();
  } catch (std::exception const&) {
    return {};
  }
}

class AuthenticatedEncryption final : public IEncryption {
public:
  vrxutil::detail::SecretKey& key() { return key_; }

  int encrypt(Bytes const& in, Bytes& out) override {
    return withoutException([&] {
      out.cpp_str() = encryptText(in.cpp_str(), key_.data());
      return 1;
    });
  }

  int decrypt(Bytes const& in, Bytes& out) override {
    return withoutException(
        [&] { return decryptText(in.cpp_str(), key_.data(), out.cpp_str()) ? 1 : 0; });
  }

private:
  vrxutil::detail::SecretKey key_;  // wipes itself
};

std::unique_ptr<IEncryption> makeAuthenticated() {
  if (::sodium_init() < 0) return nullptr;
  auto const dataFolder = vrxutil::detail::narrowFileName(
      IConfiguration::GetConfiguration()->GetFrameworkDataDirectory());
  if (!dataFolder) return nullptr;
  auto object = std::make_unique<AuthenticatedEncryption>();
  if (!vrxutil::detail::readOrMakeKey(*dataFolder, object->key())) return nullptr;
  return object;
}

class BuiltInCrypto final : public CryptShim {
public:
  IEncryption* create_encryption_object(EncryptionType type) override {
    if (type != EncryptionType::authenticated) return nullptr;
    return withoutException([] { return makeAuthenticated(); }).release();
  }

  void destroy_encryption_object(IEncryption* object) override { delete object; }
};

using Slot = vrxutil::detail::ServiceSlot<CryptShim, BuiltInCrypto>;

}  // namespace

CryptShim* CryptShim::instance() { return Slot::inUse(); }

CryptShim* CryptShim::set_instance(CryptShim* shim) { return Slot::replace(shim); }

}  // namespace vornix_com::RQ::crypto
