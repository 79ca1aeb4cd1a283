// Encryption of data through the agent's crypto service.
//
// Cipher, key and data format belong to the service (vrxcomn/crypto.h).
// Errors: false; nothing is logged. Only std::bad_alloc and what the service
// throws pass through, with the encryption object handed back.
// Threads: the functions may run anywhere; each call uses an encryption object
// of its own.

#pragma once

#include <vrxutil/binary.h>
#include <vrxutil/export.h>

#include <string>

/// Encrypts and decrypts byte strings with the service's encryption type 3.
///
/// `out` is assigned on success only. It may be the same object as `in`. False
/// when the service has no such encryption object or the object fails, as
/// decryption does for data that was changed.
class VRXUTIL_EXPORT ACryptWrap {
public:
  /// Encrypts `in`, which may be empty.
  static bool encrypt_data(std::string const& in, std::string& out);

  /// Reverses encrypt_data().
  static bool decrypt_data(std::string const& in, std::string& out);

  static bool encryptDataBuffer(AnObjectBuffer<unsigned char> const& in,
                                AnObjectBuffer<unsigned char>& out);
  static bool decryptDataBuffer(AnObjectBuffer<unsigned char> const& in,
                                AnObjectBuffer<unsigned char>& out);
};
