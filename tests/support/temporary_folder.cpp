#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <unistd.h>

namespace vrxutil::test {

namespace {

/// TMPDIR may be closed to a user that a test becomes.
std::filesystem::path temporaryPlace() {
  std::filesystem::path const place = std::filesystem::temp_directory_path();
  return ::access(place.c_str(), W_OK | X_OK) == 0 ? place : "/tmp";
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string name = (temporaryPlace() / "vrxutil-test-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + name);
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;  // a test that leaves a busy folder has failed already
  std::filesystem::remove_all(path_, ignored);
}

std::wstring TemporaryFolder::wide(std::string const& name) const {
  std::string const narrow = *this / name;
  return {narrow.begin(), narrow.end()};  // ASCII
}

std::size_t entryCount(std::string const& folder) {
  std::filesystem::directory_iterator const entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::string fileBytes(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << "cannot open " << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

void makeFile(std::string const& path, std::string const& bytes) {
  std::ofstream file(path, std::ios::binary);
  file << bytes << std::flush;
  EXPECT_TRUE(file.good()) << "cannot write " << path;
}

}  // namespace vrxutil::test
