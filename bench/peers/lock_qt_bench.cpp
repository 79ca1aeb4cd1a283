// lock_bench's figures for Qt's QReadWriteLock.

#include "bench/lock_contenders.h"

#include <QReadWriteLock>

namespace vrxutil::bench {
namespace {

class QtLock {
public:
  void readLock() { lock_.lockForRead(); }

  void readUnlock() { lock_.unlock(); }

  void writeLock() { lock_.lockForWrite(); }

  void writeUnlock() { lock_.unlock(); }

private:
  QReadWriteLock lock_;
};

[[maybe_unused]] bool const kIsAdded = addContender<QtLock>("Qt");

}  // namespace
}  // namespace vrxutil::bench
