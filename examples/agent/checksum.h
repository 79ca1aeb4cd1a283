// CRC-32 of a byte range.

#pragma once

#include <vrxutil/binary.h>

#include <cstdint>

namespace agent {

/// The CRC of ISO 3309 and ITU-T V.42, as gzip and PNG use it.
std::uint32_t crc32(ABuffer const& bytes);

}  // namespace agent
