// vrxtool crypt: bytes under the agent's key.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxcomn/configuration.h>
#include <vrxutil/system.h>

#include <optional>
#include <string>

namespace vrxtool {

namespace {

using vornix_com::oxa::configuration::IConfiguration;
using File = std::optional<std::string>;

/// Where the service has no key it does not say why.
std::string noKey() {
  std::wstring const folder = IConfiguration::GetConfiguration()->GetFrameworkDataDirectory();
  return "the agent's key cannot be had: see the folder " + utf8(folder) + "/keys";
}

int encrypt(Tool& tool, File const& file) {
  Input input(file.value_or("-"));
  std::string encrypted;
  if (!ACryptWrap::encrypt_data(input.readAll(), encrypted)) throw Failure(noKey());
  tool.output.write(encrypted);
  return yes;
}

/// The service does not say whether key or data are to blame.
std::string whyNotDecrypted(std::string const& title) {
  std::string ignored;
  bool const hasKey = ACryptWrap::encrypt_data("", ignored);
  return hasKey ? title + ": not encrypted with this agent's key, or changed since" : noKey();
}

int decrypt(Tool& tool, File const& file) {
  Input input(file.value_or("-"));
  std::string plain;
  if (!ACryptWrap::decrypt_data(input.readAll(), plain)) {
    throw Failure(whyNotDecrypted(input.title()));
  }
  tool.output.write(plain);
  return yes;
}

constexpr CommandText kEncrypt{
    "encrypt", "Encrypt bytes with the agent's key",
    "The result is what the library's programs decrypt, not an encrypted XML file; for\n"
    "those there is vrxtool xml encrypt. The key is made where there is none yet.",
    "vrxtool crypt encrypt secret.txt >secret.bin"};

constexpr CommandText kDecrypt{"decrypt", "Decrypt what was encrypted with the agent's key",
                               "Nothing is written of data that were changed or cut.",
                               "vrxtool crypt decrypt secret.bin"};

}  // namespace

void addCryptCommands(CommandLine& line, Tool& tool) {
  Actions<File> const does(tool);
  Family family = line.family("crypt", "Encryption with the agent's key");
  auto const add = [&](CommandText const& text, int (*command)(Tool&, File const&)) {
    family.command(text)
        .optionalArgument("FILE", does.arguments(), "What is read; without it, standard input")
        .action(does(command));
  };
  add(kEncrypt, encrypt);
  add(kDecrypt, decrypt);
}

}  // namespace vrxtool
