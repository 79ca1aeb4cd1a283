// lock_bench's figures for GLib's GRWLock.

#include "bench/lock_contenders.h"

#include <glib.h>

namespace vrxutil::bench {
namespace {

class GlibLock {
public:
  GlibLock() { g_rw_lock_init(&lock_); }

  ~GlibLock() { g_rw_lock_clear(&lock_); }

  GlibLock(GlibLock const&) = delete;
  GlibLock& operator=(GlibLock const&) = delete;

  void readLock() { g_rw_lock_reader_lock(&lock_); }

  void readUnlock() { g_rw_lock_reader_unlock(&lock_); }

  void writeLock() { g_rw_lock_writer_lock(&lock_); }

  void writeUnlock() { g_rw_lock_writer_unlock(&lock_); }

private:
  GRWLock lock_;
};

[[maybe_unused]] bool const kIsAdded = addContender<GlibLock>("Glib");

}  // namespace
}  // namespace vrxutil::bench
