#include <vrxutil/binary.h>
#include <vrxutil/log.h>

#include <exception>
#include <new>
#include <utility>

namespace {

constexpr wchar_t kGroup[] = L"Buffer";

char const* asChars(unsigned char const* bytes) { return reinterpret_cast<char const*>(bytes); }

std::string bytesOf(unsigned long size, unsigned char const* source) {
  return source == nullptr ? std::string(size, '\0') : std::string(asChars(source), size);
}

/// Makes `bytes` the `size` bytes at `source`, which may be some of its own. Where
/// the size stays, so does the byte behind it: a change of it is the check's to find.
void assignBytes(std::string& bytes, unsigned long size, unsigned char const* source) {
  if (size == bytes.size()) {
    std::char_traits<char>::move(bytes.data(), asChars(source), size);
  } else {
    bytes.assign(asChars(source), size);
  }
}

/// Where there is no memory for the record either, the result alone tells.
void reportFailure(std::exception const& failure, unsigned long size) {
  try {
    logError(kGroup, AString(L"Exception ")
                         << failure.what() << L" trying to allocate " << size << L" bytes");
  } catch (std::bad_alloc const&) {
  }
}

/// Runs `resize`, which sets a buffer to `size` bytes, and reports where it
/// throws.
template <class Resize>
bool tryTo(unsigned long size, Resize resize) {
  try {
    resize();
    return true;
  } catch (std::exception const& failure) {
    reportFailure(failure, size);
    return false;
  }
}

}  // namespace

ABuffer::ABuffer(char const* text) : bytes_(text != nullptr ? text : "") {}

ABuffer::ABuffer(unsigned long size, unsigned char const* source) : bytes_(bytesOf(size, source)) {}

ABuffer::ABuffer(std::string const& bytes) : bytes_(bytes) {}

unsigned char const* ABuffer::getBytes() const {
  return reinterpret_cast<unsigned char const*>(bytes_.data());
}

unsigned char const* ABuffer::allocate(unsigned long size, unsigned char const* source) {
  if (source == nullptr) {
    bytes_.resize(size);
  } else {
    assignBytes(bytes_, size, source);
    checkAllocation();
  }
  return getBytes();
}

bool ABuffer::tryToChangeSizeTo(unsigned long size) {
  return tryTo(size, [&] { bytes_.resize(size); });
}

bool ABuffer::tryAllocate(unsigned long size, unsigned char const* source) {
  if (source == nullptr) return tryToChangeSizeTo(size);
  return tryTo(size, [&] { assignBytes(bytes_, size, source); }) && checkAllocation();
}

bool ABuffer::tryExpandBy(unsigned long count, unsigned char const* source) {
  unsigned long const sum = size() + count;
  if (source == nullptr) return tryToChangeSizeTo(sum);
  // An append of nothing would repair the byte that the check looks at.
  bool const appended = count == 0 || tryTo(sum, [&] { bytes_.append(asChars(source), count); });
  return appended && checkAllocation();
}

void ABuffer::shrinkTo(unsigned long size) {
  if (bytes_.size() > size) bytes_.resize(size);
}

bool ABuffer::checkAllocation() {
  if (bytes_.data()[bytes_.size()] == '\0') return true;
  logInternalError(kGroup, L"Buffer overflow");
  return false;
}

AnObjectBuffer<unsigned char>::AnObjectBuffer(unsigned int size, unsigned char const* source)
    : ABuffer(size, source) {}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is the interface
AnObjectBuffer<unsigned char>::AnObjectBuffer(std::string bytes) : ABuffer(bytes) {}
