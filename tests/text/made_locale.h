// Locales that a test needs but the host may lack, made by localedef(1).

#pragma once

#include "tests/support/locale_scope.h"
#include "tests/support/temporary_folder.h"

#include <cstdlib>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

namespace vrxutil::test {

/// A locale by name, or the source and character map to make it from.
struct LocaleChoice {
  /// For the name of the test.
  char const* label;
  /// The host's locale of this name, or null for one to be made.
  char const* name;
  char const* source;
  char const* charmap;
};

/// How GoogleTest prints a choice.
inline void PrintTo(LocaleChoice const& choice, std::ostream* out) { *out << choice.label; }

inline constexpr LocaleChoice kPlainC{"C", "C", nullptr, nullptr};
inline constexpr LocaleChoice kUtf8{"Utf8", "C.UTF-8", nullptr, nullptr};
inline constexpr LocaleChoice kLatin1{"Latin1", nullptr, "en_US", "ISO-8859-1"};
inline constexpr LocaleChoice kEucJp{"EucJp", nullptr, "ja_JP", "EUC-JP"};
/// Bytes 0x5C and 0x7E are no ASCII here; trail bytes lie in the lower half.
inline constexpr LocaleChoice kShiftJis{"ShiftJis", nullptr, "ja_JP", "SHIFT_JIS"};
/// No letter, digit or blank stands where ASCII has it.
inline constexpr LocaleChoice kEbcdic{"Ebcdic", nullptr, "en_US", "IBM037"};
/// The capital of "i" is U+0130.
inline constexpr LocaleChoice kTurkish{"Turkish", nullptr, "tr_TR", "UTF-8"};

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

  ~ChosenLocale() {
    scope_.reset();
    if (folder_) restoreSearchPath();
  }

  ChosenLocale(ChosenLocale const&) = delete;
  ChosenLocale& operator=(ChosenLocale const&) = delete;

  /// Why the locale is not in use; empty when it is.
  std::string const& whyMissing() const { return whyMissing_; }

private:
  // localedef ends with status 1 after a mere warning, as it gives for a
  // character map that is not a superset of ASCII: setlocale decides.
  void make(LocaleChoice const& choice) {
    folder_.emplace();
    std::string const command = std::string("localedef -c -i ") + choice.source + " -f " +
                                choice.charmap + " " + *folder_ / "made" + " >/dev/null 2>&1";
    int const status = std::system(command.c_str());
    if (char const* const before = std::getenv("LOCPATH")) searchPathBefore_ = before;
    ::setenv("LOCPATH", folder_->path().c_str(), /*overwrite=*/1);
    try {
      scope_.emplace("made");
    } catch (std::runtime_error const&) {
      whyMissing_ = "no locale from \"" + command + "\", status " + std::to_string(status);
    }
  }

  void restoreSearchPath() {
    if (searchPathBefore_) {
      ::setenv("LOCPATH", searchPathBefore_->c_str(), /*overwrite=*/1);
    } else {
      ::unsetenv("LOCPATH");
    }
  }

  std::optional<TemporaryFolder> folder_;
  std::optional<std::string> searchPathBefore_;
  std::optional<LocaleScope> scope_;
  std::string whyMissing_;
};

}  // namespace vrxutil::test
