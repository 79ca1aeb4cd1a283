// A place of its own for what a benchmark writes.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace vrxutil::bench {

/// An empty folder, removed at the end of the process, that is the agent's data
/// folder until then: keys and logs go there. To be asked for before either is
/// used.
class DataFolder {
public:
  static DataFolder const& instance() {
    static DataFolder const folder;
    return folder;
  }

  /// The path of an entry.
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

  std::wstring wide(std::string const& name) const {
    std::string const narrow = *this / name;
    return {narrow.begin(), narrow.end()};  // ASCII
  }

private:
  DataFolder() : path_(std::filesystem::temp_directory_path() / "vrxutil-bench-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make " + path_);
    ::setenv("VRX_DATA_DIR", path_.c_str(), /*overwrite=*/1);
  }

  ~DataFolder() {
    std::error_code ignored;  // nobody is left to hear of it
    std::filesystem::remove_all(path_, ignored);
  }

  std::string path_;
};

}  // namespace vrxutil::bench
