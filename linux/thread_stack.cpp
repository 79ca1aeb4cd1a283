#include "linux/thread_stack.h"

#include <cstddef>
#include <functional>

#include <pthread.h>

namespace vrxutil::detail {

bool isOnThreadStack(void const* object) noexcept {
  void* lowest = nullptr;
  std::size_t size = 0;
#if defined(__APPLE__)
  size = ::pthread_get_stacksize_np(::pthread_self());
  lowest = static_cast<char*>(::pthread_get_stackaddr_np(::pthread_self())) - size;
#else
  pthread_attr_t attributes;
  if (::pthread_getattr_np(::pthread_self(), &attributes) != 0) return true;
  bool const known = ::pthread_attr_getstack(&attributes, &lowest, &size) == 0;
  ::pthread_attr_destroy(&attributes);
  if (!known) return true;
#endif
  std::less<> const before;
  return !before(object, lowest) && before(object, static_cast<char*>(lowest) + size);
}

}  // namespace vrxutil::detail
