#include "examples/shared_counter/count_file.h"

#include <vrxutil/binary.h>
#include <vrxutil/file.h>
#include <vrxutil/log.h>

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>

namespace shared_counter {

namespace {

constexpr wchar_t kGroup[] = L"Counter";

AString neighbourOf(AString const& fileName) { return AString(fileName) << L".new"; }

std::optional<long> parse(ABuffer const& bytes) {
  std::string const text(bytes.getBytes(), bytes.getBytes() + bytes.size());
  char const* const end = text.data() + text.size();
  long count = 0;
  auto const [rest, error] = std::from_chars(text.data(), end, count);
  bool const isCount = error == std::errc() && std::string_view(rest, end) == "\n" && count >= 0;
  return isCount ? std::optional(count) : std::nullopt;
}

}  // namespace

std::optional<long> readCount(AString const& fileName) {
  bool exists = false;
  if (!AFiler::getFileAccessibility(fileName, AFiler::readAccess, exists)) return std::nullopt;
  if (!exists) return 0;
  ABuffer bytes("");
  if (!AFile::read(/*reportMissing=*/true, fileName, bytes)) return std::nullopt;
  std::optional<long> const count = parse(bytes);
  if (!count) logError(kGroup, AString(L"no count: ") << fileName);
  return count;
}

bool prepareCount(AString const& fileName, long count) {
  return AFile::write(neighbourOf(fileName), ABuffer(std::to_string(count) + "\n"));
}

bool commitCount(AString const& fileName) {
  ADetailTrace const trace(kGroup, AString(L"rename,") << fileName);
  int const result = std::rename(ACharString(neighbourOf(fileName)), ACharString(fileName));
  return !logErrnoIf(kGroup, result != 0);
}

}  // namespace shared_counter
