// vrxtool base64: block by block, in constant memory.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/progress.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/binary.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vrxtool {

namespace {

/// Groups of three bytes, or four characters, in a block: what caches hold.
constexpr std::size_t kGroups = 65536;

struct Arguments {
  std::optional<std::string> file;
  bool ignoreGarbage = false;
};

Input openInput(Arguments const& arguments) { return Input(arguments.file.value_or("-")); }

int encode(Tool& tool, Arguments const& arguments) {
  Input input = openInput(arguments);
  Progress progress(input.sizeInBytes());
  std::vector<char> bytes(3 * kGroups);
  std::vector<char> text(4 * kGroups);
  bool isEmpty = true;
  // Blocks are whole groups but for the last, whose end gets the padding.
  while (std::size_t const size = input.readFully(bytes.data(), bytes.size())) {
    isEmpty = false;
    unsigned long const written =
        Base64Encode(bytes.data(), size, text.data(), text.size(), nullptr, nullptr);
    tool.output.write({text.data(), written});
    progress.advance(size);
  }
  if (!isEmpty) tool.output.write("\n");
  return yes;
}

using Byte = unsigned char;

/// 1 where `c` is one of the `count` bytes from `first` on, else 0.
constexpr Byte isWithin(Byte c, char first, unsigned count) {
  return static_cast<Byte>(c - static_cast<Byte>(first)) < count ? 1 : 0;
}

// Without branches, by | instead of ||: compilers make vector code of that.

struct IsBlank {
  constexpr Byte operator()(Byte c) const {
    return isWithin(c, '\t', 2) | isWithin(c, '\r', 1) | isWithin(c, ' ', 1);
  }
};

/// Of the alphabet (RFC 4648, section 4); padding is not.
struct IsCode {
  constexpr Byte operator()(Byte c) const {
    return isWithin(c | 0x20, 'a', 26) | isWithin(c, '/', 11) | isWithin(c, '+', 1);
  }
};

/// How many bytes of `text` are such ones: the check must not cost more than reading.
template <class Predicate>
std::size_t countOf(std::string_view text, Predicate isSo) {
  constexpr std::size_t kPiece = 128;  // counted in a byte
  std::size_t total = 0;
  for (; text.size() >= kPiece; text.remove_prefix(kPiece)) {
    Byte count = 0;
    for (std::size_t i = 0; i < kPiece; ++i) {
      count = static_cast<Byte>(count + isSo(static_cast<Byte>(text[i])));
    }
    total += count;
  }
  for (char const c : text) total += isSo(static_cast<Byte>(c));
  return total;
}

/// Refuses what the library leaves out: an operator must not take what is left of a text
/// that was spoilt for the whole.
class Checker {
public:
  explicit Checker(std::string const& title) : title_(title) {}

  /// The next piece of the text.
  void check(std::string_view text) {
    while (true) {
      std::size_t const end = text.find('=');
      checkCodes(text.substr(0, end));
      if (end == std::string_view::npos) return;
      checkPadding();
      text.remove_prefix(end + 1);
    }
  }

  void finish() const {
    if (characters_ % kGroup == 0) return;
    throw Failure(title_ + ": the text ends within a group of four characters: it may be cut");
  }

private:
  static constexpr unsigned kGroup = 4;

  void checkCodes(std::string_view text) {
    std::size_t const codes = countOf(text, IsCode());
    if (codes + countOf(text, IsBlank()) != text.size()) {
      refuseFirst(text, [](Byte c) { return (IsBlank()(c) | IsCode()(c)) == 0; });
    }
    if (codes > 0 && isPaddingDue_) refuseFirst(text, [](Byte c) { return IsCode()(c) != 0; });
    characters_ += codes;
    before_ += text.size();
  }

  /// One or two stand at the end of a group, for bytes that are not there.
  void checkPadding() {
    std::uint64_t const place = characters_ % kGroup;
    if (place < 2) refuse(before_);
    isPaddingDue_ = place == 2;
    ++characters_;
    ++before_;
  }

  template <class Predicate>
  void refuseFirst(std::string_view text, Predicate isSo) const {
    auto const first =
        std::find_if(text.begin(), text.end(), [&](char c) { return isSo(static_cast<Byte>(c)); });
    refuse(before_ + static_cast<std::size_t>(first - text.begin()));
  }

  [[noreturn]] void refuse(std::uint64_t offset) const {
    throw Failure(title_ + ": no Base64 at byte " + std::to_string(offset) +
                  "; --ignore-garbage leaves it out");
  }

  std::string const& title_;
  std::uint64_t characters_ = 0;  // padding among them
  std::uint64_t before_ = 0;
  bool isPaddingDue_ = false;
};

/// Decodes a text of pieces.
class Decoder {
public:
  explicit Decoder(Output& output) : output_(output), bytes_(3 * kGroups) {}

  void decode(std::string_view text) {
    while (!text.empty()) {
      unsigned long used = 0;
      unsigned long const written =
          Base64Decode(text.data(), text.size(), bytes_.data(), bytes_.size(), &state_, &used);
      output_.write({bytes_.data(), written});
      text.remove_prefix(used);
    }
  }

private:
  Output& output_;
  std::vector<char> bytes_;
  int state_ = 0;
};

int decode(Tool& tool, Arguments const& arguments) {
  Input input = openInput(arguments);
  Progress progress(input.sizeInBytes());
  Checker checker(input.title());
  Decoder decoder(tool.output);
  std::vector<char> text(4 * kGroups);
  while (std::size_t const size = input.readFully(text.data(), text.size())) {
    if (!arguments.ignoreGarbage) checker.check({text.data(), size});
    decoder.decode({text.data(), size});
    progress.advance(size);
  }
  if (!arguments.ignoreGarbage) checker.finish();
  return yes;
}

constexpr CommandText kEncode{"encode", "Encode bytes as Base64",
                              "The text is one line. Of a large file the progress is shown "
                              "where standard error\nis a terminal.",
                              "vrxtool base64 encode picture.png"};

constexpr CommandText kDecode{
    "decode", "Decode Base64",
    "Blanks and line ends do not count. Any other character outside the alphabet is a\n"
    "failure, and so is padding within a group of four characters, or a text that ends\n"
    "there. What came before has been written then.",
    "vrxtool base64 decode picture.txt >picture.png"};

constexpr char kFileText[] = "What is read; without it, standard input";

}  // namespace

void addBase64Commands(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  Family family = line.family("base64", "Base64, of any size");
  family.command(kEncode).optionalArgument("FILE", a.file, kFileText).action(does(encode));
  family.command(kDecode)
      .optionalArgument("FILE", a.file, kFileText)
      .flag("--ignore-garbage", a.ignoreGarbage, "Leave out what is no Base64")
      .action(does(decode));
}

}  // namespace vrxtool
