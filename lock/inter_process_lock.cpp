#include <vrxutil/lock.h>

namespace vornix_com::oxa::lock {

namespace {

/// Null, after an error that has been logged.
std::unique_ptr<ILock> open(std::string const& name) noexcept {
  try {
    return std::make_unique<UnixLock>(name);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

InterProcessReadLock::InterProcessReadLock(std::string const& name) noexcept : lock_(open(name)) {}

InterProcessReadLock::~InterProcessReadLock() {
  if (held_ && !static_cast<UnixLock const&>(*lock_).isInherited()) lock_->readUnlock();
}

bool InterProcessReadLock::tryLock() { return held_ = lock_ && lock_->tryReadLock(); }

bool InterProcessReadLock::lock(unsigned int timeout) {
  return held_ = lock_ && lock_->readLock(timeout);
}

bool InterProcessReadLock::unlock() {
  if (!lock_) return false;
  held_ = held_ && !lock_->readUnlock();
  return !held_;
}

void InterProcessReadLock::cleanSemaphore(std::string const& name) {
  UnixLock::cleanSemaphore(name);
}

InterProcessWriteLock::InterProcessWriteLock(std::string const& name) noexcept
    : lock_(open(name)) {}

InterProcessWriteLock::~InterProcessWriteLock() {
  if (held_ && !static_cast<UnixLock const&>(*lock_).isInherited()) lock_->writeUnlock();
}

bool InterProcessWriteLock::tryLock() { return held_ = lock_ && lock_->tryWriteLock(); }

bool InterProcessWriteLock::lock(unsigned int timeout) {
  return held_ = lock_ && lock_->writeLock(timeout);
}

bool InterProcessWriteLock::unlock() {
  if (!lock_) return false;
  held_ = held_ && !lock_->writeUnlock();
  return !held_;
}

void InterProcessWriteLock::cleanSemaphore(std::string const& name) {
  UnixLock::cleanSemaphore(name);
}

}  // namespace vornix_com::oxa::lock
