// Compares versions, filters names, encrypts a secret, loads a library.

#include <vrxutil/system.h>

#include <cstdio>
#include <string>

namespace {

bool keepSecret(std::string const& secret) {
  std::string encrypted;
  if (!ACryptWrap::encrypt_data(secret, encrypted)) return false;
  std::string decrypted;
  if (!ACryptWrap::decrypt_data(encrypted, decrypted) || decrypted != secret) return false;
  std::printf("%zu bytes for %zu\n", encrypted.size(), secret.size());
  encrypted.back() ^= 1;  // changed data never decrypts
  return !ACryptWrap::decrypt_data(encrypted, decrypted);
}

bool useLibrary() {
  ALibrary library;
  if (!library.open(/*required=*/true, L"libm.so.6", /*decorate=*/false, /*keepLoaded=*/false))
    return false;
  double (*squareRoot)(double) = nullptr;
  if (!library.get(/*required=*/true, "sqrt", &squareRoot)) return false;
  std::printf("%.1f\n", squareRoot(6.25));
  return true;
}

}  // namespace

int main() {
  AVersion const installed(L"4.6.0.1234");
  AVersion const wanted(4, 10, 0, 0);
  std::puts(installed.compare(&wanted) < 0 ? "too old" : "new enough");
  for (char const* const name : {"agent.log", "Agent.LOG", "agent.xml"}) {
    if (MatchWildcard("*.log", name)) std::puts(name);
  }
  std::wstring host = L"db1.example.org";
  if (convertFqdnToNetbios(host)) std::printf("%ls\n", host.c_str());
  if (!keepSecret("swordfish") || !useLibrary()) return 1;

  ALibrary missing;
  return missing.open(/*required=*/true, L"plugins/none.so", /*decorate=*/false,
                      /*keepLoaded=*/false)
             ? 1
             : 0;
}
