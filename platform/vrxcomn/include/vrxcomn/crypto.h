// The agent's crypto service: encryption objects by type.
//
// The built-in service knows type 3: XChaCha20-Poly1305 with a random nonce and
// a leading version byte, under a 32-byte key in the folder `keys` of the
// framework data folder (configuration.h). The key is made at first use, mode
// 0600; two processes that start at once end with one key. A key file that
// others can read, or of another size, is refused. Changed, cut or foreign data
// never decrypts.
//
// The service logs nothing: the caller knows what it was for.

#pragma once

#include <vrxcomn/export.h>

#include <string>

namespace vornix_com::RQ::crypto {

/// Bytes on their way into or out of an encryption object, copied by value.
class ABuffer {
public:
  /// The bytes as they are.
  ABuffer(std::string const& bytes) : bytes_(bytes) {}

  /// `size` bytes from `data`; zero bytes where `data` is null.
  ABuffer(unsigned long size, unsigned char const* data) : bytes_(size, '\0') {
    if (data != nullptr) bytes_.assign(reinterpret_cast<char const*>(data), size);
  }

  /// The bytes themselves.
  ///@{
  std::string& cpp_str() { return bytes_; }

  std::string const& cpp_str() const { return bytes_; }

  ///@}

private:
  std::string bytes_;
};

template <class T>
class AnObjectBuffer;

/// The typed face of ABuffer that the operations take.
template <>
class AnObjectBuffer<unsigned char> : public ABuffer {
public:
  /// What ABuffer's constructor of these arguments makes.
  ///@{
  AnObjectBuffer(std::string const& bytes) : ABuffer(bytes) {}

  AnObjectBuffer(unsigned int size, unsigned char const* data) : ABuffer(size, data) {}

  ///@}
};

/// Which cipher an encryption object applies. Any number may be asked for.
enum class EncryptionType : int { authenticated = 3 };

/// A cipher with its key. Used by one thread at a time.
class VRXCOMN_EXPORT IEncryption {
public:
  virtual ~IEncryption() = default;

  /// Puts the encrypted form of `in` into `out`. Nonzero on success; after a
  /// failure `out` is unspecified.
  virtual int encrypt(AnObjectBuffer<unsigned char> const& in,
                      AnObjectBuffer<unsigned char>& out) = 0;

  /// Not used; they keep the slots of encrypt and decrypt apart.
  ///@{
  virtual int reserved1() { return 0; }

  virtual int reserved2() { return 0; }

  ///@}

  /// The reverse of encrypt. Zero when `in` is not what encrypt made under this
  /// key.
  virtual int decrypt(AnObjectBuffer<unsigned char> const& in,
                      AnObjectBuffer<unsigned char>& out) = 0;

protected:
  /// For derived classes alone.
  ///@{
  IEncryption() = default;
  IEncryption(IEncryption const&) = default;
  IEncryption& operator=(IEncryption const&) = default;
  ///@}
};

/// Makes encryption objects. Operations may be called from any thread.
class VRXCOMN_EXPORT CryptShim {
public:
  virtual ~CryptShim() = default;

  /// A new object, to be handed back with destroy_encryption_object; null for
  /// an unknown type, or when the key cannot be had.
  virtual IEncryption* create_encryption_object(EncryptionType type) = 0;

  /// Releases what create_encryption_object made; null is accepted.
  virtual void destroy_encryption_object(IEncryption* object) = 0;

  /// The service in use; never null.
  static CryptShim* instance();

  /// Puts `shim` in use and returns the one in use before. Null brings the
  /// built-in service back. The caller keeps `shim`, which must live until it is
  /// replaced and no call is running in it. Safe from any thread.
  static CryptShim* set_instance(CryptShim* shim);

protected:
  /// For derived classes alone.
  ///@{
  CryptShim() = default;
  CryptShim(CryptShim const&) = default;
  CryptShim& operator=(CryptShim const&) = default;
  ///@}
};

}  // namespace vornix_com::RQ::crypto
