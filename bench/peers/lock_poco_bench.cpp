// lock_bench's figures for POCO's RWLock.

#include "bench/lock_contenders.h"

#include <Poco/RWLock.h>

namespace vrxutil::bench {
namespace {

class PocoLock {
public:
  void readLock() { lock_.readLock(); }

  void readUnlock() { lock_.unlock(); }

  void writeLock() { lock_.writeLock(); }

  void writeUnlock() { lock_.unlock(); }

private:
  Poco::RWLock lock_;
};

[[maybe_unused]] bool const kIsAdded = addContender<PocoLock>("Poco");

}  // namespace
}  // namespace vrxutil::bench
