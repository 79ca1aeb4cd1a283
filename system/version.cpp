#include <vrxutil/system.h>

#include <climits>
#include <cwctype>

namespace {

bool isDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

/// Takes off `text` what swscanf reads for "%d": blanks, a sign and digits. False,
/// with `number` as it was, where that is no number. (By hand, since swscanf and
/// wcstol take several times as long for a number of a few digits.)
bool takeNumber(wchar_t const*& text, int& number) {
  while (!isDigit(*text) && std::iswspace(static_cast<std::wint_t>(*text)) != 0) ++text;
  bool const isNegative = *text == L'-';
  if (isNegative || *text == L'+') ++text;
  if (!isDigit(*text)) return false;

  unsigned long const limit = LONG_MAX + (isNegative ? 1UL : 0UL);
  unsigned long magnitude = 0;
  for (; isDigit(*text); ++text) {
    auto const digit = static_cast<unsigned long>(*text - L'0');
    magnitude = magnitude <= (limit - digit) / 10 ? magnitude * 10 + digit : limit;
  }
  number = static_cast<int>(isNegative ? 0 - magnitude : magnitude);
  return true;
}

}  // namespace

AVersion::AVersion(int part1, int part2, int part3, int part4) { set(part1, part2, part3, part4); }

AVersion::AVersion(wchar_t const* text) { set(text); }

void AVersion::set(int part1, int part2, int part3, int part4) {
  // By way of 64 bits with a sign: what a part out of range does to others is known.
  auto const widened = [](int part) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(part));
  };
  packed_ = widened(part1) << 48 | widened(part2) << 32 | widened(part3) << 16 | widened(part4);
}

void AVersion::set(wchar_t const* text) {
  int parts[4] = {};
  for (int& part : parts) {
    if (text == nullptr || !takeNumber(text, part) || *text != L'.') break;
    ++text;
  }
  set(parts[0], parts[1], parts[2], parts[3]);
}

AString AVersion::getString() const {
  AStringList parts(L".", /*afterEach=*/false);
  parts << get1() << get2() << get3() << get4();
  return {parts};
}

int AVersion::compare(AVersion const* other) const {
  if (packed_ == other->packed_) return 0;
  return packed_ < other->packed_ ? -1 : 1;
}
