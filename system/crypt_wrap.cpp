#include <vrxcomn/crypto.h>
#include <vrxutil/system.h>

#include <memory>
#include <utility>

namespace {

using vornix_com::RQ::crypto::CryptShim;
using vornix_com::RQ::crypto::EncryptionType;
using vornix_com::RQ::crypto::IEncryption;
using Bytes = vornix_com::RQ::crypto::AnObjectBuffer<unsigned char>;
using Operation = int (IEncryption::*)(Bytes const&, Bytes&);

/// Hands an encryption object back to the service that made it, which need not
/// be the one in use by then.
struct HandBack {
  CryptShim* maker;

  void operator()(IEncryption* object) const { maker->destroy_encryption_object(object); }
};

bool apply(Operation operation, std::string const& in, std::string& out) {
  CryptShim* const shim = CryptShim::instance();
  std::unique_ptr<IEncryption, HandBack> const object(
      shim->create_encryption_object(EncryptionType::authenticated), HandBack{shim});
  if (object == nullptr) return false;
  Bytes const source(in);
  Bytes result(0, nullptr);
  if ((object.get()->*operation)(source, result) == 0) return false;
  out = std::move(result.cpp_str());
  return true;
}

}  // namespace

bool ACryptWrap::encrypt_data(std::string const& in, std::string& out) {
  return apply(&IEncryption::encrypt, in, out);
}

bool ACryptWrap::decrypt_data(std::string const& in, std::string& out) {
  return apply(&IEncryption::decrypt, in, out);
}

bool ACryptWrap::encryptDataBuffer(AnObjectBuffer<unsigned char> const& in,
                                   AnObjectBuffer<unsigned char>& out) {
  return encrypt_data(in.cpp_str(), out.cpp_str());
}

bool ACryptWrap::decryptDataBuffer(AnObjectBuffer<unsigned char> const& in,
                                   AnObjectBuffer<unsigned char>& out) {
  return decrypt_data(in.cpp_str(), out.cpp_str());
}
