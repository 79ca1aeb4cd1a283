// Whether a message catalogue is safe to open.
//
// Internal; not installed.

#pragma once

#include <cstdint>

namespace vrxutil::detail {

/// Whether a catalogue, open as `fd`, is whole. The GNU C Library believes the numbers
/// in it: its catopen() and catgets() read behind the end of a file that is cut or
/// damaged, and divide by 0, which ends the process. Elsewhere always true.
bool isWholeCatalogue(int fd, std::uint64_t fileSize);

}  // namespace vrxutil::detail
