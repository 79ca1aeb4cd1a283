// Decryption of arbitrary bytes: never succeeds, touches no output. Encryption of
// the same bytes: comes back as it was, and not at all once a bit is changed or a
// byte cut off.

#include "fuzz/support.h"

#include <vrxutil/system.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using vrxutil::fuzz::require;

/// The agent's data folder, with a key of its own, for as long as the process runs.
class DataFolder {
public:
  DataFolder() : path_(std::filesystem::temp_directory_path() / "vrxutil-fuzz-XXXXXX") {
    require(::mkdtemp(path_.data()) != nullptr, "the data folder is made");
    ::setenv("VRX_DATA_DIR", path_.c_str(), /*overwrite=*/1);
  }

  ~DataFolder() {
    std::error_code ignored;  // nobody is left to hear of it
    std::filesystem::remove_all(path_, ignored);
  }

  DataFolder(DataFolder const&) = delete;
  DataFolder& operator=(DataFolder const&) = delete;

private:
  std::string path_;
};

void requireRefused(std::string const& bytes, char const* what) {
  std::string out = "as it was";
  require(!ACryptWrap::decrypt_data(bytes, out), what);
  require(out == "as it was", "a failed decryption leaves the output");
}

void checkRoundTrip(std::string const& plain) {
  std::string encrypted;
  require(ACryptWrap::encrypt_data(plain, encrypted), "anything can be encrypted");
  std::string decrypted;
  require(ACryptWrap::decrypt_data(encrypted, decrypted), "what was encrypted is decrypted");
  require(decrypted == plain, "decryption gives back what was encrypted");

  // Where it is changed depends on the input, so that the fuzzer tries all places.
  std::size_t const at = std::hash<std::string>()(plain) % encrypted.size();
  std::string changed = encrypted;
  changed[at] = static_cast<char>(changed[at] ^ (1 << (plain.size() % 8)));
  requireRefused(changed, "changed data is refused");
  requireRefused(encrypted.substr(0, at), "cut data is refused");
  requireRefused(encrypted + changed[at], "longer data is refused");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static DataFolder const folder;
  static vrxutil::fuzz::QuietLogger const logger;
  std::string const bytes(data, data + size);
  requireRefused(bytes, "what was not encrypted here is refused");
  checkRoundTrip(bytes);
  return 0;
}
