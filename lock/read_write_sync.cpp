#include "platform/common/cancellation.h"

#include <vrxutil/lock.h>

// The results of the pthread functions are not looked at: with a lock that was made here
// and is used as documented they cannot fail.

namespace {

using vrxutil::detail::CancellationDisabled;

/// Tells the processor that the thread is only waiting.
void relax() {
#if defined __x86_64__ || defined __i386__
  __builtin_ia32_pause();
#elif defined __aarch64__
  asm volatile("isb");  // "yield" ends at once on most of these
#endif
}

/// Short waits for what is mostly held for a moment only: to sleep and to be woken takes a
/// hundred times as long. While a thread spins it has not come yet, as far as others see.
class Patience {
public:
  /// Waits, longer each time; false when it is time to sleep.
  bool wait() {
    if (pauses_ > kLongestWait) return false;
    for (int i = 0; i < pauses_; ++i) relax();
    pauses_ *= 2;
    return true;
  }

private:
  static constexpr int kFirstWait = 256;
  static constexpr int kLongestWait = 1024;

  int pauses_ = kFirstWait;
};

// Not inline, like all that only happens when threads meet: who meets nobody would pay.
[[gnu::noinline, gnu::cold]] void lockPatiently(pthread_mutex_t& mutex) {
  Patience patience;
  while (patience.wait()) {
    if (::pthread_mutex_trylock(&mutex) == 0) return;
  }
  ::pthread_mutex_lock(&mutex);
}

void lock(pthread_mutex_t& mutex) {
  if (::pthread_mutex_trylock(&mutex) != 0) lockPatiently(mutex);
}

/// Returns when `isClosed` does not hold.
template <class IsClosed>
[[gnu::noinline, gnu::cold]] void waitWhile(IsClosed isClosed, int& waiting,
                                            pthread_cond_t& condition, pthread_mutex_t& mutex) {
  for (Patience patience; isClosed();) {
    ::pthread_mutex_unlock(&mutex);
    bool const isPatient = patience.wait();
    lock(mutex);
    if (!isPatient) break;
  }
  CancellationDisabled const undisturbed;  // who went from here would leave others waiting
  while (isClosed()) {
    ++waiting;
    ::pthread_cond_wait(&condition, &mutex);
    --waiting;
  }
}

}  // namespace

CReadWriteSync::CReadWriteSync() {
  ::pthread_cond_init(&readCondition, nullptr);
  ::pthread_cond_init(&writeCondition, nullptr);
  ::pthread_mutex_init(&mutex, nullptr);
}

CReadWriteSync::~CReadWriteSync() {
  ::pthread_mutex_destroy(&mutex);
  ::pthread_cond_destroy(&writeCondition);
  ::pthread_cond_destroy(&readCondition);
}

void CReadWriteSync::ReadLock() {
  lock(mutex);
  auto const isClosed = [this] { return writers >= 1 || waitingWriters >= 1; };
  if (isClosed()) waitWhile(isClosed, waitingReaders, readCondition, mutex);
  ++readers;
  ::pthread_mutex_unlock(&mutex);
}

void CReadWriteSync::ReadUnlock() {
  ::pthread_mutex_lock(&mutex);
  --readers;
  bool const wakeWriter = readers == 0 && waitingWriters > 0;
  ::pthread_mutex_unlock(&mutex);
  if (wakeWriter) ::pthread_cond_signal(&writeCondition);
}

void CReadWriteSync::WriteLock() {
  lock(mutex);
  auto const isClosed = [this] { return readers >= 1 || writers >= 1; };
  if (isClosed()) waitWhile(isClosed, waitingWriters, writeCondition, mutex);
  ++writers;
  ::pthread_mutex_unlock(&mutex);
}

void CReadWriteSync::WriteUnlock() {
  ::pthread_mutex_lock(&mutex);
  --writers;
  bool const wakeWriter = waitingWriters >= 1;
  bool const wakeReaders = waitingWriters == 0 && waitingReaders > 0;
  ::pthread_mutex_unlock(&mutex);
  if (wakeWriter) {
    ::pthread_cond_signal(&writeCondition);
  } else if (wakeReaders) {
    ::pthread_cond_broadcast(&readCondition);
  }
}

void CReadWriteSyncAuto::ReadLock() {
  sync.ReadLock();
  locked = 1;
  isWriter = 0;
}

void CReadWriteSyncAuto::WriteLock() {
  sync.WriteLock();
  locked = 1;
  isWriter = 1;
}

void CReadWriteSyncAuto::Unlock() {
  if (locked == 0) return;
  if (isWriter != 0) {
    sync.WriteUnlock();
  } else {
    sync.ReadUnlock();
  }
  locked = 0;
}
