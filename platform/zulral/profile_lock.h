// One writer of a profile file at a time.
//
// Internal; not installed. Nothing is logged; only std::bad_alloc is thrown.

#pragma once

#include "platform/common/file_io.h"

#include <chrono>
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

  /// Longer waits are for a lock that is not a writer's: whoever may read a file may
  /// lock it, for ever.
  static constexpr std::chrono::seconds kLongestWait{10};

  ProfileLock() = default;

  /// Removes a file that was made here and is still empty.
  ~ProfileLock();

  ProfileLock(ProfileLock const&) = delete;
  ProfileLock& operator=(ProfileLock const&) = delete;

  /// Waits for the file, once in the life of the object. 0, or errno's number:
  /// ETIMEDOUT after `longestWait`, EISDIR for a folder, EINVAL for another thing
  /// that is no regular file, ENOENT where it does not exist and `missing` is fail.
  int acquire(std::string const& path, Missing missing,
              std::chrono::milliseconds longestWait = kLongestWait);

  /// The file's name, symbolic links followed.
  Entry const& entry() const { return entry_; }

  /// The file, open at its beginning.
  Descriptor const& file() const { return file_; }

private:
  int attempt(std::string const& path, Missing missing);
  int open(std::string const& path, Missing missing);
  bool isNamed(std::string const& path) const;

  Entry entry_;
  Descriptor file_;
  bool isMade_ = false;
  bool isHeld_ = false;
};

}  // namespace vrxutil::detail
