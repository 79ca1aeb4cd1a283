// Where the calling thread's own stack lies.

#pragma once

namespace vrxutil::detail {

/// Whether `object` is in automatic storage of the calling thread. True where
/// the host does not tell.
bool isOnThreadStack(void const* object) noexcept;

}  // namespace vrxutil::detail
