#include "lock/fork_generation.h"

#include <atomic>
#include <new>

#include <pthread.h>

namespace vrxutil::detail {

namespace {

constinit std::atomic<unsigned> generation{0};

// In the child: its only thread is the one that has forked.
void countChild() { generation.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

void countForks() {
  [[maybe_unused]] static bool const isRegistered = [] {
    if (::pthread_atfork(nullptr, nullptr, countChild) != 0) throw std::bad_alloc();
    return true;
  }();
}

unsigned forkGeneration() noexcept { return generation.load(std::memory_order_relaxed); }

}  // namespace vrxutil::detail
