// A folder of a test's own.

#pragma once

#include <cstddef>
#include <string>

namespace vrxutil::test {

/// An empty folder, removed with everything in it at the end of its scope.
class TemporaryFolder {
public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(TemporaryFolder const&) = delete;
  TemporaryFolder& operator=(TemporaryFolder const&) = delete;

  std::string const& path() const { return path_; }

  /// The path of an entry, as narrow and as wide text.
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

  std::wstring wide(std::string const& name) const;

private:
  std::string path_;
};

/// How many entries a folder has, those of folders in it not counted.
std::size_t entryCount(std::string const& folder);

/// The bytes of a file; fails the test where it cannot be read.
std::string fileBytes(std::string const& path);

/// Makes a file of these bytes; fails the test where it cannot be written.
void makeFile(std::string const& path, std::string const& bytes);

}  // namespace vrxutil::test
