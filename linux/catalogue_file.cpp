#include "linux/catalogue_file.h"

#include <vrxutil/binary.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include <unistd.h>

namespace vrxutil::detail {

#ifdef __GLIBC__

namespace {

/// Set, message, and where in the texts it starts.
using CatalogueEntry = std::array<std::uint32_t, 3>;

bool readAt(int fd, std::uint64_t offset, void* target, std::size_t size) {
  return ::pread(fd, target, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

/// Whether `count` entries from `offset` on, but empty ones, have texts before `end`.
bool entriesStayBefore(std::uint64_t end, int fd, std::uint64_t offset, std::uint64_t count) {
  std::array<CatalogueEntry, 256> entries;
  while (count > 0) {
    auto const part = static_cast<std::size_t>(std::min<std::uint64_t>(count, entries.size()));
    if (!readAt(fd, offset, entries.data(), part * sizeof(CatalogueEntry))) return false;
    for (std::size_t i = 0; i < part; ++i) {
      if (entries[i] != CatalogueEntry{} && entries[i][2] >= end) return false;
    }
    offset += part * sizeof(CatalogueEntry);
    count -= part;
  }
  return true;
}

}  // namespace

// A catalogue is a magic number, width and depth of the tables; two tables of as many
// entries as their product, in little and in big endian; the texts.
bool isWholeCatalogue(int fd, std::uint64_t fileSize) {
  constexpr std::uint32_t kMagic = 0x960408DE;
  std::array<std::uint32_t, 3> header{};
  if (!readAt(fd, 0, header.data(), sizeof header) || fileSize < sizeof header) return false;
  auto* const ordered = Host2Le4(header[0]) == kMagic ? Host2Le4 : Host2Be4;
  std::uint64_t const width = ordered(header[1]);
  std::uint64_t const depth = ordered(header[2]);
  std::uint64_t const most = (fileSize - sizeof header) / (2 * sizeof(CatalogueEntry));
  if (ordered(header[0]) != kMagic || width == 0 || depth > most / width) return false;

  std::uint64_t const tableSize = width * depth * sizeof(CatalogueEntry);
  std::uint64_t const texts = sizeof header + 2 * tableSize;
  std::uint64_t const table =
      sizeof header + (std::endian::native == std::endian::little ? 0 : tableSize);
  char last = 'x';
  return depth != 0 && entriesStayBefore(fileSize - texts, fd, table, width * depth) &&
         readAt(fd, fileSize - 1, &last, 1) && last == '\0';
}

#else

bool isWholeCatalogue(int /*fd*/, std::uint64_t /*fileSize*/) { return true; }

#endif

}  // namespace vrxutil::detail
