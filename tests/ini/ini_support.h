// What the tests of INI files share.

#pragma once

#include "tests/file/file_support.h"
#include "tests/support/temporary_folder.h"

#include <vrxutil/ini.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <string>

namespace vrxutil::test {

/// A file "file.ini", not there yet, in a folder of its own.
class IniFileTest : public testing::Test {
protected:
  std::string bytes() const { return fileBytes(path); }

  /// Of the folder.
  std::size_t entries() const { return entryCount(folder.path()); }

  TemporaryFolder folder;
  std::string path = folder / "file.ini";
  std::wstring widePath = folder.wide("file.ini");
};

/// The contents of a store that has a map.
inline AnIni2::SectionMap mapOf(AnIni2& ini) {
  AnIni2::SectionMap map;
  EXPECT_TRUE(ini.getIniMap(map));
  return map;
}

/// Runs `scenario` in a process that begins with the locale "C", where the
/// environment says `locale`.
template <class Scenario>
void runWithLocale(char const* locale, Scenario scenario) {
  SCOPED_TRACE(locale);
  EXPECT_TRUE(holdsInChild([&] {
    ::setenv("LC_ALL", locale, /*overwrite=*/1);
    std::setlocale(LC_ALL, "C");
    scenario();
  }));
}

}  // namespace vrxutil::test
