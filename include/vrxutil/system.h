// Dynamic libraries, versions, encryption through the agent's crypto service,
// wildcards, and helpers about the host and its names.
//
// Errors: false; nothing is logged unless the class says so. Only std::bad_alloc and
// what the crypto service throws pass through.
// Threads: functions and static operations may run anywhere; an object belongs to
// one thread at a time.

#pragma once

#include <vrxutil/binary.h>
#include <vrxutil/export.h>
#include <vrxutil/text.h>

#include <cstdint>
#include <string>

/// A dynamic library, loaded through the runtime layer (zulral/zulral.h).
///
/// Errors are logged under "Library", with the runtime layer's text. Each operation
/// opens a detail scope there.
class VRXUTIL_EXPORT ALibrary {
public:
  /// Nothing is loaded.
  ALibrary() = default;

  /// close().
  ~ALibrary();

  ALibrary(ALibrary const&) = delete;
  ALibrary& operator=(ALibrary const&) = delete;

  /// Loads the library in the file `name`; with `decorate`, "foo" is the file
  /// "libfoo.dylib", "/opt/x/foo" the file "/opt/x/libfoo.dylib" (the runtime layer
  /// knows the host's own ending, too). A name without a slash is looked for where
  /// the host keeps libraries. False, with the error logged whatever `required` says,
  /// when that fails; nothing is loaded then.
  ///
  /// What is loaded already is neither unloaded nor known any more: close() it first.
  /// With `keepLoaded` it stays in the process for good, which is what a library with
  /// threads or exit handlers of its own needs.
  bool open(bool required, wchar_t const* name, bool decorate, bool keepLoaded);

  /// Stores the address of `symbol` in the pointer at `out`. False, and null there,
  /// when there is none, which is logged only if `required`. Do not use what was
  /// found after close(), unless the library is kept loaded.
  bool get(bool required, char const* symbol, void* out);

  /// Unloads the library, unless it is to be kept loaded, and forgets it. A failure
  /// is logged as "failed". Does nothing when nothing is loaded.
  void close();

private:
  void* handle = nullptr;
  bool keepLoaded_ = false;
};

/// A version of four parts, as in 4.6.0.1234, packed into a number of 64 bits by which
/// versions compare.
class VRXUTIL_EXPORT AVersion {
public:
  /// 0.0.0.0.
  AVersion() = default;

  /// set() with the same arguments.
  ///@{
  AVersion(int part1, int part2, int part3, int part4);
  AVersion(wchar_t const* text);
  ///@}

  /// Parts are meant to be 0 to 65535. They are not cut: what is greater spills into
  /// the part before, and a negative part sets all bits above its own.
  void set(int part1, int part2, int part3, int part4);

  /// Reads "4.6.0.1234" as swscanf with "%d.%d.%d.%d" does: blanks and a sign may
  /// stand before a number; what is missing, and all from the first error on, is 0;
  /// what follows the fourth number does not count. A number beyond the range of
  /// long is the nearest in it, and of a number beyond the range of int the low 32
  /// bits count. Null is 0.0.0.0.
  void set(wchar_t const* text);

  /// The parts, each 0 to 65535.
  ///@{
  int get1() const { return part(48); }

  int get2() const { return part(32); }

  int get3() const { return part(16); }

  int get4() const { return part(0); }

  ///@}

  /// The parts in decimal, joined by ".".
  AString getString() const;

  /// -1, 0 or 1 as this version is lower than, equal to or higher than `other`, which
  /// must not be null.
  int compare(AVersion const* other) const;

private:
  int part(int shift) const { return static_cast<int>(packed_ >> shift & 0xFFFF); }

  std::uint64_t packed_ = 0;
};

/// Encrypts and decrypts byte strings with encryption type 3 of the agent's crypto
/// service, to which cipher, key and data format belong (vrxcomn/crypto.h).
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

  /// The same of buffers.
  ///@{
  static bool encryptDataBuffer(AnObjectBuffer<unsigned char> const& in,
                                AnObjectBuffer<unsigned char>& out);
  static bool decryptDataBuffer(AnObjectBuffer<unsigned char> const& in,
                                AnObjectBuffer<unsigned char>& out);
  ///@}
};

/// Whether the whole `text` matches the whole `pattern`, in which "*" stands for any
/// run of characters; all others, "?" and brackets too, stand for themselves. Case is
/// ignored, byte by byte, by tolower in the C locale of the process.
///
/// A "*" matches the empty run, but never at the end of the text: "abc*" does not
/// match "abc", nor "*" the empty text. The time is at most proportional to the sum of
/// both lengths.
VRXUTIL_EXPORT bool MatchWildcard(std::string pattern, std::string text);

/// What kind of machine the host is.
class VRXUTIL_EXPORT CEnclosureType {
public:
  /// Sets `portable` when the host's model (sysctl "hw.model", see zulral/zulral.h)
  /// has "book" in its name, in any case; false when the host does not tell, or its
  /// model has more than 255 bytes. Always returns 0.
  static int iIsAPortableComputer(bool& portable);
};

/// Cuts a host name at its first "." and returns true; a name without one stays, and
/// so does an IPv4 address (POSIX inet_addr), with false. 255.255.255.255 counts as a
/// name.
VRXUTIL_EXPORT bool convertFqdnToNetbios(std::wstring& name);

/// Replaces each blank by "%20"; nothing else is encoded, not even "%".
VRXUTIL_EXPORT void percentEncodeSpaceInPath(std::string& path);
