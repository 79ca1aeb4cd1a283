#include "linux/spare_text.h"

#include <array>
#include <new>
#include <utility>

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
// runs, while the objects that thread_local destroys are gone before the last
// scopes are deleted and the last errors logged.
constinit thread_local Store* store = nullptr;
constinit thread_local bool storeHasEnded = false;

struct StoreOwner {
  ~StoreOwner() {
    delete std::exchange(store, nullptr);
    storeHasEnded = true;
  }
};

Store* threadStore() noexcept {
  if (store != nullptr || storeHasEnded) return store;
  thread_local StoreOwner const owner;
  return store = new (std::nothrow) Store;
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
