#include "linux/spare_text.h"

#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include <pthread.h>

namespace vrxutil::detail {

namespace {

/// What a thread keeps at most: the texts of 32 nested scopes, 64 KiB in all.
constexpr std::size_t kKeptTexts = 64;
constexpr std::size_t kKeptCapacity = 256;

/// What a text has room for at first: a message of 64 characters with its
/// decoration in an error trace.
constexpr std::size_t kFirstCapacity = 72;

struct Store {
  std::array<std::wstring, kKeptTexts> texts;
  std::size_t count = 0;
};

// Plain variables without destructors: they can be read as long as the thread
// runs.
constinit thread_local Store* store = nullptr;
constinit thread_local bool storeHasEnded = false;

void endStore(void* ended) {
  store = nullptr;
  storeHasEnded = true;
  delete static_cast<Store*>(ended);
}

/// Ends the stores of threads. A key and not a thread_local object: those are
/// gone, and new ones never destroyed, by the time that the last scopes of a
/// thread are deleted and its last errors logged. The main thread's store stays
/// to the end of the process.
class StoreKey {
public:
  StoreKey() : isUsable_(::pthread_key_create(&key_, endStore) == 0) {}

  ~StoreKey() {
    if (isUsable_.exchange(false)) ::pthread_key_delete(key_);
  }

  StoreKey(StoreKey const&) = delete;
  StoreKey& operator=(StoreKey const&) = delete;

  bool keep(Store* kept) const { return isUsable_ && ::pthread_setspecific(key_, kept) == 0; }

private:
  pthread_key_t key_{};
  std::atomic<bool> isUsable_;  // other threads may go on while the process ends
};

StoreKey storeKey;

/// This thread's store, or null where there cannot be one.
Store* threadStore() noexcept {
  if (store != nullptr || storeHasEnded) return store;
  std::unique_ptr<Store> made(new (std::nothrow) Store);
  if (made == nullptr || !storeKey.keep(made.get())) return nullptr;
  return store = made.release();
}

}  // namespace

std::wstring takeSpareText() {
  if (store != nullptr && store->count > 0) return std::move(store->texts[--store->count]);
  std::wstring text;
  text.reserve(kFirstCapacity);
  return text;
}

void giveSpareText(std::wstring&& text) noexcept {
  std::wstring given = std::move(text);
  if (given.capacity() < kFirstCapacity || given.capacity() > kKeptCapacity) return;
  Store* const kept = threadStore();
  if (kept == nullptr || kept->count == kKeptTexts) return;
  given.clear();
  kept->texts[kept->count++] = std::move(given);
}

}  // namespace vrxutil::detail
