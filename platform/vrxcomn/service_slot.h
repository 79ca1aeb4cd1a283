// The place of a service that the process may replace: which object is in use.

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <new>
#include <type_traits>

namespace vrxutil::detail {

/// One service of the interface `Service`, at first an object of `BuiltIn`.
/// Safe from any thread, at any time between the process's start and its end.
template <class Service, class BuiltIn>
class ServiceSlot {
public:
  /// The object in use.
  static Service* inUse() noexcept {
    return orBuiltIn(replacement.load(std::memory_order_acquire));
  }

  /// Puts `service` in use, or the built-in one for null; returns the one before.
  static Service* replace(Service* service) noexcept {
    return orBuiltIn(replacement.exchange(service, std::memory_order_acq_rel));
  }

  /// Made at first use and never destroyed, so that it serves what runs while
  /// the process exits.
  static BuiltIn& builtIn() noexcept {
    static_assert(std::is_nothrow_default_constructible_v<BuiltIn>);
    alignas(BuiltIn) static std::array<std::byte, sizeof(BuiltIn)> storage;
    static auto* const object = ::new (static_cast<void*>(storage.data())) BuiltIn;
    return *object;
  }

private:
  static Service* orBuiltIn(Service* service) noexcept {
    return service != nullptr ? service : &builtIn();
  }

  static inline constinit std::atomic<Service*> replacement{nullptr};
};

}  // namespace vrxutil::detail
