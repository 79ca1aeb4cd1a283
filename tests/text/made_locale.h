// Locales that a test needs but the host may lack, made by localedef(1).

#pragma once

#include "tests/support/locale_scope.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/variable_scope.h"

#include <cstdlib>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

namespace vrxutil::test {

/// A locale by name, or what to make it from.
struct LocaleChoice {
  /// For the name of the test.
  char const* label;
  /// The host's locale of this name, or null for one to be made.
  char const* name;
  char const* charmap;
  /// The lines of the source's section LC_CTYPE.
  char const* letters;
};

/// How GoogleTest prints a choice.
inline void PrintTo(LocaleChoice const& choice, std::ostream* out) { *out << choice.label; }

/// Letters and case do not matter to conversion. The sources of languages have
/// tables of thousands of letters, which take localedef half a second each.
inline constexpr char kPosixLetters[] = "copy \"POSIX\"\n";

inline constexpr char kTurkishLetters[] =
    "upper <U0049>;<U0130>\n"
    "lower <U0069>;<U0131>\n"
    "toupper (<U0069>,<U0130>);(<U0131>,<U0049>)\n"
    "tolower (<U0130>,<U0069>);(<U0049>,<U0131>)\n";

inline constexpr LocaleChoice kPlainC{"C", "C", nullptr, nullptr};
inline constexpr LocaleChoice kUtf8{"Utf8", "C.UTF-8", nullptr, nullptr};
inline constexpr LocaleChoice kLatin1{"Latin1", nullptr, "ISO-8859-1", kPosixLetters};
inline constexpr LocaleChoice kEucJp{"EucJp", nullptr, "EUC-JP", kPosixLetters};
/// Bytes 0x5C and 0x7E are no ASCII here; trail bytes lie in the lower half.
inline constexpr LocaleChoice kShiftJis{"ShiftJis", nullptr, "SHIFT_JIS", kPosixLetters};
/// No letter, digit or blank stands where ASCII has it.
inline constexpr LocaleChoice kEbcdic{"Ebcdic", nullptr, "IBM037", kPosixLetters};
/// The capital of "i" is U+0130.
inline constexpr LocaleChoice kTurkish{"Turkish", nullptr, "ISO-8859-9", kTurkishLetters};

/// The process's locale from construction to destruction.
class ChosenLocale {
public:
  explicit ChosenLocale(LocaleChoice const& choice) {
    if (choice.name != nullptr) {
      scope_.emplace(choice.name);
    } else {
      make(choice);
    }
  }

  ChosenLocale(ChosenLocale const&) = delete;
  ChosenLocale& operator=(ChosenLocale const&) = delete;

  /// Why the locale is not in use; empty when it is.
  std::string const& whyMissing() const { return whyMissing_; }

private:
  static std::string sourceOf(LocaleChoice const& choice) {
    std::string source = std::string("LC_CTYPE\n") + choice.letters + "END LC_CTYPE\n";
    for (char const* const category :
         {"COLLATE", "MONETARY", "NUMERIC", "TIME", "MESSAGES", "PAPER", "NAME", "ADDRESS",
          "TELEPHONE", "MEASUREMENT", "IDENTIFICATION"}) {
      source += std::string("LC_") + category + "\ncopy \"POSIX\"\nEND LC_" + category + "\n";
    }
    return source;
  }

  // localedef ends with status 1 after a mere warning, as it gives for a
  // character map that is not a superset of ASCII: setlocale decides.
  void make(LocaleChoice const& choice) {
    folder_.emplace();
    makeFile(*folder_ / "source", sourceOf(choice));
    std::string const command = "localedef -c -i " + *folder_ / "source" + " -f " + choice.charmap +
                                " " + *folder_ / "made" + " >/dev/null 2>&1";
    int const status = std::system(command.c_str());
    searchPath_.emplace("LOCPATH", folder_->path());
    try {
      scope_.emplace("made");
    } catch (std::runtime_error const&) {
      whyMissing_ = "no locale from \"" + command + "\", status " + std::to_string(status);
    }
  }

  std::optional<TemporaryFolder> folder_;
  std::optional<VariableScope> searchPath_;
  std::optional<LocaleScope> scope_;
  std::string whyMissing_;
};

}  // namespace vrxutil::test
