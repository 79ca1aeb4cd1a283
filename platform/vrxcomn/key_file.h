// The key of the crypto service: 32 bytes in a file of their own.

#pragma once

#include <sodium.h>

#include <array>
#include <string>

namespace vrxutil::detail {

/// A secret key, wiped from memory at the end of its life.
class SecretKey {
public:
  SecretKey() = default;

  ~SecretKey() { sodium_memzero(bytes_.data(), bytes_.size()); }

  SecretKey(SecretKey const&) = delete;
  SecretKey& operator=(SecretKey const&) = delete;

  static constexpr std::size_t size() { return crypto_aead_xchacha20poly1305_ietf_KEYBYTES; }

  unsigned char* data() { return bytes_.data(); }

  unsigned char const* data() const { return bytes_.data(); }

private:
  std::array<unsigned char, crypto_aead_xchacha20poly1305_ietf_KEYBYTES> bytes_{};
};

/// Reads the key from the file `type3.key` in the folder `keys` of `dataFolder`.
/// Where there is no such file it is made first, mode 0600 in a folder of mode
/// 0700: complete or not at all, once however many processes ask at the same
/// time, and flushed to disk before anybody uses it.
///
/// False, without a reason, for a file that is no regular one (a symbolic link is
/// none), that group or others can read or write, that belongs to neither root
/// nor the effective user, or that is not of the key's size; and when it can be
/// neither read nor made.
///
/// REQUIRES: sodium_init() has succeeded.
[[nodiscard]] bool readOrMakeKey(std::string const& dataFolder, SecretKey& key);

}  // namespace vrxutil::detail
