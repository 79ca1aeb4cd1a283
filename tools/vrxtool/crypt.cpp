// vrxtool crypt: bytes under the agent's key.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/key.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/system.h>

#include <optional>
#include <string>

namespace vrxtool {

namespace {

using File = std::optional<std::string>;

int encrypt(Tool& tool, File const& file) {
  Input input(file.value_or("-"));
  std::string encrypted;
  if (!ACryptWrap::encrypt_data(input.readAll(), encrypted)) throw noKey();
  tool.output.write(encrypted);
  return yes;
}

int decrypt(Tool& tool, File const& file) {
  Input input(file.value_or("-"));
  std::string plain;
  if (!ACryptWrap::decrypt_data(input.readAll(), plain)) {
    if (!hasKey()) throw noKey();
    throw Failure(input.title() + ": not encrypted with this agent's key, or changed since");
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
