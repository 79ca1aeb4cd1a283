#include <vrxutil/system.h>

#include <cwchar>

AVersion::AVersion(int part1, int part2, int part3, int part4) { set(part1, part2, part3, part4); }

AVersion::AVersion(wchar_t const* text) { set(text); }

void AVersion::set(int part1, int part2, int part3, int part4) {
  // By way of 64 bits with a sign: what a part out of range does to others is known.
  auto const widened = [](int part) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(part));
  };
  packed = widened(part1) << 48 | widened(part2) << 32 | widened(part3) << 16 | widened(part4);
}

void AVersion::set(wchar_t const* text) {
  int parts[4] = {};
  for (int& part : parts) {
    if (text == nullptr) break;
    wchar_t* end = nullptr;
    part = static_cast<int>(std::wcstol(text, &end, 10));
    text = end != text && *end == L'.' ? end + 1 : nullptr;
  }
  set(parts[0], parts[1], parts[2], parts[3]);
}

AString AVersion::getString() const {
  AStringList parts(L".", /*afterEach=*/false);
  parts << get1() << get2() << get3() << get4();
  return {parts};
}

int AVersion::compare(AVersion const* other) const {
  if (packed == other->packed) return 0;
  return packed < other->packed ? -1 : 1;
}
