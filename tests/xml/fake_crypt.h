// A crypto service that a test looks into, and that fails on demand.

#pragma once

#include <vrxcomn/crypto.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vrxutil::test {

/// The crypto service in use from construction to destruction. Encrypts by
/// turning each byte over.
class FakeCryptShim final : public vornix_com::RQ::crypto::CryptShim {
public:
  enum class Failure { none, create, encrypt, decrypt, exception };

  FakeCryptShim() : before_(set_instance(this)) {}

  ~FakeCryptShim() override { set_instance(before_); }

  vornix_com::RQ::crypto::IEncryption* create_encryption_object(
      vornix_com::RQ::crypto::EncryptionType type) override {
    typesAsked.push_back(static_cast<int>(type));
    if (failure == Failure::create) return nullptr;
    ++objectsAlive;
    return std::make_unique<Flip>(*this).release();
  }

  void destroy_encryption_object(vornix_com::RQ::crypto::IEncryption* object) override {
    if (object != nullptr) --objectsAlive;
    std::unique_ptr<vornix_com::RQ::crypto::IEncryption> const owner(object);
  }

  Failure failure = Failure::none;
  std::vector<int> typesAsked;
  std::vector<std::string> encrypted;  // what encrypt was called with
  std::vector<std::string> decrypted;  // what decrypt was called with
  int objectsAlive = 0;

  static std::string flip(std::string bytes) {
    for (char& byte : bytes) byte = static_cast<char>(~byte);
    return bytes;
  }

private:
  using Buffer = vornix_com::RQ::crypto::AnObjectBuffer<unsigned char>;

  class Flip final : public vornix_com::RQ::crypto::IEncryption {
  public:
    explicit Flip(FakeCryptShim& shim) : shim_(shim) {}

    int encrypt(Buffer const& in, Buffer& out) override {
      shim_.encrypted.push_back(in.cpp_str());
      shim_.throwIfAsked();
      if (shim_.failure == Failure::encrypt) return 0;
      out.cpp_str() = flip(in.cpp_str());
      return 1;
    }

    int decrypt(Buffer const& in, Buffer& out) override {
      shim_.decrypted.push_back(in.cpp_str());
      shim_.throwIfAsked();
      if (shim_.failure == Failure::decrypt) return 0;
      out.cpp_str() = flip(in.cpp_str());
      return 1;
    }

  private:
    FakeCryptShim& shim_;
  };

  void throwIfAsked() const {
    if (failure == Failure::exception) throw std::runtime_error("crypto service");
  }

  vornix_com::RQ::crypto::CryptShim* before_;
};

}  // namespace vrxutil::test
