// AResourceFile and ALocalizedString.

#include "linux/call_text.h"
#include "platform/common/file_io.h"

#include <vrxutil/binary.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <nl_types.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using vrxutil::detail::callText;
using vrxutil::detail::Descriptor;
using vrxutil::detail::openWithoutWaiting;

constexpr wchar_t kGroup[] = L"RcFile";

constexpr int kSet = 1;

/// What catgets() returns for a message that is missing.
constexpr char kMissing[] = "~`~`~`~`~`";

constexpr int kLastArgument = 9;

/// What catopen() returns after a failure (POSIX catopen).
nl_catd closedCatalogue() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the standard has it so
  return reinterpret_cast<nl_catd>(-1);
}

AString digitsOf(nl_catd catalogue) { return {static_cast<void*>(catalogue)}; }

#ifdef __GLIBC__

/// Set, message, and where in the texts it starts.
using CatalogueEntry = std::array<std::uint32_t, 3>;

bool readAt(int fd, std::uint64_t offset, void* target, std::size_t size) {
  return ::pread(fd, target, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

/// Whether `count` entries from `offset` on, but empty ones, have texts before `end`.
bool entriesStayBefore(std::uint64_t end, int fd, std::uint64_t offset, std::uint64_t count) {
  std::array<CatalogueEntry, 256> entries;
  while (count > 0) {
    std::size_t const part = std::min<std::uint64_t>(count, entries.size());
    if (!readAt(fd, offset, entries.data(), part * sizeof(CatalogueEntry))) return false;
    for (std::size_t i = 0; i < part; ++i) {
      if (entries[i] != CatalogueEntry{} && entries[i][2] >= end) return false;
    }
    offset += part * sizeof(CatalogueEntry);
    count -= part;
  }
  return true;
}

/// Whether a catalogue is whole. The GNU C Library believes its numbers: catopen()
/// and catgets() read behind the end of a file that is cut or damaged, and divide
/// by 0, which ends the process.
///
/// It is a magic number, width and depth of the tables; two tables of as many
/// entries as their product, in little and in big endian; the texts.
bool isWhole(int fd, std::uint64_t fileSize) {
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

bool isWhole(int /*fd*/, std::uint64_t /*fileSize*/) { return true; }

#endif

/// Whether a file may be given to catopen(), which would wait for ever at a FIFO
/// without a writer. False with errno set.
bool isCatalogue(std::string const& path) {
  struct stat status {};

  Descriptor const file = openWithoutWaiting(path, O_RDONLY);
  if (!file || ::fstat(file.get(), &status) != 0) return false;
  errno = EINVAL;
  return S_ISREG(status.st_mode) && isWhole(file.get(), static_cast<std::uint64_t>(status.st_size));
}

/// catopen(). A name without a slash is looked for by the C library alone, so that
/// what it finds is not looked at before.
nl_catd openCatalogue(std::string const& name) {
  bool const isPath = name.find('/') != std::string::npos;
  if (isPath && !isCatalogue(name)) return closedCatalogue();
  errno = EINVAL;  // stays where the C library sets none: the file is no catalogue
  return ::catopen(name.c_str(), NL_CAT_LOCALE);
}

}  // namespace

AResourceFile::AResourceFile() : catalogue(closedCatalogue()) {}

AResourceFile::~AResourceFile() { close(); }

bool AResourceFile::openExisting(wchar_t const* path, unsigned short /*unused*/) {
  AString const name(path);
  AnObjectBuffer<unsigned char> utf8(0, nullptr);
  if (!AnXml::convertUnicodeToUtf8(name, utf8)) return false;
  ADetailTrace const trace(kGroup, callText(L"catopen", name));
  // NOLINTNEXTLINE(misc-misplaced-const): constant is the descriptor
  nl_catd const opened = openCatalogue(utf8.cpp_str());
  if (logErrnoIf(kGroup, opened == closedCatalogue())) return false;
  catalogue = opened;
  logResult(kGroup, digitsOf(opened));
  return true;
}

void AResourceFile::close() {
  if (catalogue == closedCatalogue()) return;
  ::catclose(catalogue);  // fails for what is not open only
  catalogue = closedCatalogue();
}

wchar_t const* AResourceFile::getString(int id, AString* text) const {
  ADetailTrace const trace(kGroup, callText(L"catgets", digitsOf(catalogue), id));
  // Stays where the C library sets none, and where a message reads like the default.
  errno = catalogue == closedCatalogue() ? EBADF : ENOMSG;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc and macOS only read the catalogue
  char const* const message = ::catgets(catalogue, kSet, id, kMissing);
  bool const isMissing = std::strcmp(message, kMissing) == 0;
  logErrnoIf(kGroup, isMissing);
  if (isMissing || !AnXml::convertUtf8ToUnicode(message, *text)) {
    *text = AString(L"<") << id << L">";
  }
  return *text;
}

AResourceFile* ALocalizedString::DefaultResourceFile = nullptr;

ALocalizedString::ALocalizedString(wchar_t const* text) : AString(text) {}

ALocalizedString::ALocalizedString(int id) : ALocalizedString(id, DefaultResourceFile) {}

ALocalizedString::ALocalizedString(int id, AResourceFile* file) {
  if (file != nullptr) {
    open(id, *file);
  } else {
    AString::operator=(L"Error:  Uninitialized resource file.");
  }
}

ALocalizedString& ALocalizedString::open(int id, AResourceFile const& file) {
  nextArgument = 1;
  file.getString(id, this);
  return *this;
}

void ALocalizedString::setDefaultResourceFile(AResourceFile* file) { DefaultResourceFile = file; }

ALocalizedString& ALocalizedString::operator<<(wchar_t const* argument) { return fill(argument); }

ALocalizedString& ALocalizedString::operator<<(char const* argument) { return fill(argument); }

ALocalizedString& ALocalizedString::operator<<(int argument) { return fill(argument); }

ALocalizedString& ALocalizedString::operator<<(void* argument) { return fill(argument); }

ALocalizedString& ALocalizedString::operator<<(wchar_t argument) { return fill(argument); }

ALocalizedString& ALocalizedString::fill(AString const& argument) {
  if (nextArgument > kLastArgument) return *this;
  findAndReplace(AString(L"%") << nextArgument, argument);
  ++nextArgument;
  return *this;
}
