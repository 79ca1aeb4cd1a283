// One writer of a profile file at a time.
//
// Internal; not installed. Nothing is logged; only std::bad_alloc is thrown.

#pragma once

#include "platform/common/file_io.h"

#include <string>

namespace vrxutil::detail {

/// A regular file that no other ProfileLock holds, in any process.
///
/// The lock is an exclusive flock(2) on the file itself. A writer replaces the file
/// by another and so leaves those that wait with a lock on a file without a name:
/// they see that and start again with the new one. No lock file stays behind.
class ProfileLock {
public:
  enum class Missing { make, fail };

  ProfileLock() = default;

  /// Removes a file that was made here and is still empty.
  ~ProfileLock();

  ProfileLock(ProfileLock const&) = delete;
  ProfileLock& operator=(ProfileLock const&) = delete;

  /// Waits for the file. 0, or errno's number: ETIMEDOUT after ten seconds, EISDIR
  /// for a folder, EINVAL for another thing that is no regular file, ENOENT where
  /// it does not exist and `missing` is fail.
  int acquire(std::string const& path, Missing missing);

  /// Where the file is, symbolic links followed.
  std::string const& path() const { return path_; }

  /// The file, open at its beginning.
  Descriptor const& file() const { return file_; }

private:
  int open(std::string const& path, Missing missing);
  bool hasName() const;
  void removeIfUnused() const;

  std::string path_;
  Descriptor file_;
  bool isMade_ = false;
};

}  // namespace vrxutil::detail
