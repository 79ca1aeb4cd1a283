#include "platform/common/file_io.h"

#include <zulral/zulral.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __ELF__
#include <link.h>
#endif

namespace {

using Status = struct stat;

constexpr std::string_view kForeignEnding = ".dylib";

#ifdef __APPLE__
constexpr std::string_view kOwnEnding = ".dylib";
#else
constexpr std::string_view kOwnEnding = ".so";
#endif

bool isPath(std::string_view name) { return name.find('/') != std::string_view::npos; }

#ifdef __ELF__

/// How the files begin that the host's loader takes: magic number, class, byte order.
constexpr std::array<unsigned char, EI_DATA + 1> kOwnIdent = {
    ELFMAG0,
    ELFMAG1,
    ELFMAG2,
    ELFMAG3,
    sizeof(ElfW(Addr)) == 8 ? ELFCLASS64 : ELFCLASS32,
    std::endian::native == std::endian::big ? ELFDATA2MSB : ELFDATA2LSB,
};

template <class Record>
bool readAt(int fd, std::uint64_t offset, Record& record) {
  return ::pread(fd, &record, sizeof record, static_cast<off_t>(offset)) == sizeof record;
}

/// Whether an ELF file ends before one of its segments does, as a copy does that was
/// interrupted: dlopen() maps the segment all the same, and what is beyond the end
/// is SIGBUS. What else is wrong with a file, dlopen() itself finds.
bool isCutShort(char const* path) {
  vrxutil::detail::Descriptor const file = vrxutil::detail::openWithoutWaiting(path, O_RDONLY);
  ElfW(Ehdr) header{};
  Status status{};
  // The size of this very file: another may be renamed to `path` at any time.
  if (!file || !readAt(file.get(), 0, header) || ::fstat(file.get(), &status) != 0) return false;
  if (!std::equal(kOwnIdent.begin(), kOwnIdent.end(), header.e_ident)) return false;
  auto const size = static_cast<std::uint64_t>(status.st_size);
  for (std::uint64_t i = 0; i < header.e_phnum; ++i) {
    ElfW(Phdr) segment{};
    if (!readAt(file.get(), header.e_phoff + i * sizeof segment, segment)) return false;
    bool const isInFile = segment.p_offset <= size && segment.p_filesz <= size - segment.p_offset;
    if (segment.p_type == PT_LOAD && !isInFile) return true;
  }
  return false;
}

#else

bool isCutShort(char const* /*path*/) { return false; }

#endif

/// Why a file is not even worth a try of dlopen(), which would wait for the writer of
/// a FIFO; null where there is no such reason.
char const* whyRefused(char const* path) {
  Status status{};
  if (::stat(path, &status) != 0) return nullptr;
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  return isCutShort(path) ? "the file is cut short" : nullptr;
}

/// What went wrong in this thread since the last time that it asked; null where
/// nothing did.
char const* loaderError() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): known hosts have an error for each thread
  return ::dlerror();
}

/// Null, with the text of the error for whoever asks.
void* failed(char const** error, char const* text) {
  if (error != nullptr) *error = text;
  return nullptr;
}

/// Loads a library; null with the text of the error.
void* load(char const* name, char const** error) {
  char const* const reason = isPath(name) ? whyRefused(name) : nullptr;
  if (reason != nullptr) return failed(error, reason);
  // All at once: an undefined symbol is an error here, not in the middle of a call.
  void* const handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
  return handle != nullptr ? handle : failed(error, loaderError());
}

/// Whether the host's own ending is worth a try; whether a name without a slash
/// exists, only dlopen() knows.
bool mayHaveOwnEnding(std::string_view name) {
  if (kForeignEnding == kOwnEnding || !name.ends_with(kForeignEnding)) return false;

  Status status{};
  return !isPath(name) || ::stat(std::string(name).c_str(), &status) != 0;
}

}  // namespace

void* zulLoadLibrary(char const* name, char const** error) {
  if (name == nullptr || *name == '\0') return failed(error, "no name of a library");
  void* const handle = load(name, error);
  if (handle != nullptr || !mayHaveOwnEnding(name)) return handle;
  std::string own(name);
  own.replace(own.size() - kForeignEnding.size(), kForeignEnding.size(), kOwnEnding);
  return load(own.c_str(), error);
}

// To dlsym() a null handle means all that is loaded.
void* zulGetProcAddress(void* library, char const* symbol, char const** error) {
  if (library == nullptr) return failed(error, "no library is loaded");
  if (symbol == nullptr) return failed(error, "no name of a symbol");
  static_cast<void>(loaderError());  // what was left by another call
  void* const address = ::dlsym(library, symbol);
  if (address != nullptr) return address;
  char const* const text = loaderError();
  return failed(error, text != nullptr ? text : "the symbol has no address");
}

int zulFreeLibrary(void* library) { return library != nullptr && ::dlclose(library) == 0 ? 1 : 0; }
