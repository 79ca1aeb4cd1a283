// AResourceFile and ALocalizedString.

#include "linux/call_text.h"
#include "linux/catalogue_file.h"
#include "platform/common/file_io.h"

#include <vrxutil/binary.h>
#include <vrxutil/log.h>
#include <vrxutil/text.h>
#include <vrxutil/xml.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <nl_types.h>
#include <sys/stat.h>

namespace {

using vrxutil::detail::callText;
using vrxutil::detail::Descriptor;
using vrxutil::detail::isWholeCatalogue;
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

/// Whether a file may be given to catopen(), which would wait for ever at a FIFO
/// without a writer. False with errno set.
bool isCatalogue(std::string const& path) {
  struct stat status {};

  Descriptor const file = openWithoutWaiting(path, O_RDONLY);
  if (!file || ::fstat(file.get(), &status) != 0) return false;
  errno = EINVAL;
  return S_ISREG(status.st_mode) &&
         isWholeCatalogue(file.get(), static_cast<std::uint64_t>(status.st_size));
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
