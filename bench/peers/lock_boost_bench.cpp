// lock_bench's figures for boost::shared_mutex.

#include "bench/lock_contenders.h"

#include <boost/thread/shared_mutex.hpp>

namespace vrxutil::bench {
namespace {

class BoostSharedMutex {
public:
  void readLock() { lock_.lock_shared(); }

  void readUnlock() { lock_.unlock_shared(); }

  void writeLock() { lock_.lock(); }

  void writeUnlock() { lock_.unlock(); }

private:
  boost::shared_mutex lock_;
};

[[maybe_unused]] bool const kIsAdded = addContender<BoostSharedMutex>("Boost");

}  // namespace
}  // namespace vrxutil::bench
