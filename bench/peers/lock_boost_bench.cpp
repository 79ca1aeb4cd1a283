// lock_bench's figures for boost::shared_mutex.

#include "bench/lock_contenders.h"

#include <boost/thread/shared_mutex.hpp>

namespace vrxutil::bench {
namespace {

[[maybe_unused]] bool const kIsAdded = addContender<SharedLockable<boost::shared_mutex>>("Boost");

}  // namespace
}  // namespace vrxutil::bench
