#include "platform/common/file_io.h"

#include <zulral/zulral.h>

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

constexpr std::string_view kForeignEnding = ".dylib";

#ifdef __APPLE__
constexpr std::string_view kOwnEnding = ".dylib";
#else
constexpr std::string_view kOwnEnding = ".so";
#endif

bool isPath(std::string_view name) { return name.find('/') != std::string_view::npos; }

#ifdef __ELF__

constexpr unsigned char kOwnClass = sizeof(ElfW(Addr)) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char kOwnByteOrder =
    std::endian::native == std::endian::big ? ELFDATA2MSB : ELFDATA2LSB;

template <class Record>
bool readAt(int fd, std::uint64_t offset, Record& record) {
  return ::pread(fd, &record, sizeof record, static_cast<off_t>(offset)) == sizeof record;
}

/// Whether an ELF file ends before one of its segments does, as a copy does that was
/// interrupted: dlopen() maps the segment all the same, and what is beyond the end
/// is SIGBUS. What else is wrong with a file, dlopen() itself finds.
bool isCutShort(char const* path, std::uint64_t size) {
  vrxutil::detail::Descriptor const file = vrxutil::detail::openWithoutWaiting(path, O_RDONLY);
  ElfW(Ehdr) header{};
  if (!file || !readAt(file.get(), 0, header)) return false;
  if (header.e_ident[EI_CLASS] != kOwnClass || header.e_ident[EI_DATA] != kOwnByteOrder) {
    return false;
  }
  for (std::uint64_t i = 0; i < header.e_phnum; ++i) {
    ElfW(Phdr) segment{};
    if (!readAt(file.get(), header.e_phoff + i * sizeof segment, segment)) return false;
    bool const isInFile = segment.p_offset <= size && segment.p_filesz <= size - segment.p_offset;
    if (segment.p_type == PT_LOAD && !isInFile) return true;
  }
  return false;
}

#else

bool isCutShort(char const* /*path*/, std::uint64_t /*size*/) { return false; }

#endif

/// Why a file is not even worth a try of dlopen(), which would wait for the writer of
/// a FIFO; null where there is no such reason.
char const* whyRefused(char const* path) {
  struct stat status {};

  if (::stat(path, &status) != 0) return nullptr;
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  return isCutShort(path, static_cast<std::uint64_t>(status.st_size)) ? "the file is cut short"
                                                                      : nullptr;
}

/// Loads a library; null with the text of the error.
void* load(char const* name, char const** error) {
  char const* const reason = isPath(name) ? whyRefused(name) : nullptr;
  if (reason != nullptr) {
    *error = reason;
    return nullptr;
  }
  // All at once: an undefined symbol is an error here, not in the middle of a call.
  void* const handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) *error = ::dlerror();
  return handle;
}

/// Whether the host's own ending is worth a try; whether a name without a slash
/// exists, only dlopen() knows.
bool mayHaveOwnEnding(std::string_view name) {
  if (kForeignEnding == kOwnEnding || !name.ends_with(kForeignEnding)) return false;

  struct stat status {};

  return !isPath(name) || ::stat(std::string(name).c_str(), &status) != 0;
}

}  // namespace

void* zulLoadLibrary(char const* name, char const** error) {
  if (name == nullptr || *name == '\0') {
    *error = "no name of a library";
    return nullptr;
  }
  void* const handle = load(name, error);
  if (handle != nullptr || !mayHaveOwnEnding(name)) return handle;
  std::string own(name);
  own.replace(own.size() - kForeignEnding.size(), kForeignEnding.size(), kOwnEnding);
  return load(own.c_str(), error);
}

// To dlsym() a null handle means all that is loaded.
void* zulGetProcAddress(void* library, char const* symbol, char const** error) {
  if (library == nullptr || symbol == nullptr) {
    *error = library == nullptr ? "no library is loaded" : "no name of a symbol";
    return nullptr;
  }
  static_cast<void>(::dlerror());  // what was left by another call
  void* const address = ::dlsym(library, symbol);
  char const* const text = address == nullptr ? ::dlerror() : nullptr;
  if (address == nullptr) *error = text != nullptr ? text : "the symbol has no address";
  return address;
}

int zulFreeLibrary(void* library) { return library != nullptr && ::dlclose(library) == 0 ? 1 : 0; }
