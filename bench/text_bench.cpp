// Numbers and fields appended to text, conversion to and from the locale's
// encoding, replacing, cutting in parts; beside each, what one would write
// without the library.
//
// Texts keep their memory from one iteration to the next, as a line that is
// built again and again does.

#include "bench/allocations.h"
#include "tests/support/locale_scope.h"

#include <vrxutil/text.h>

#include <benchmark/benchmark.h>

#if __has_include(<boost/algorithm/string/replace.hpp>)
#include <boost/algorithm/string/replace.hpp>
#define VRXUTIL_BENCH_HAS_BOOST_REPLACE 1
#endif

#include <array>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <string>
#include <string_view>

namespace vrxutil::bench {
namespace {

using test::LocaleScope;

constexpr char kUtf8Locale[] = "C.UTF-8";

/// What is printed most: small counts, sizes, times, now and then a large one.
constexpr std::array<long, 8> kNumbers{7, 42, -1, 1013, 65536, 1714559696, -2147483647, 5000000000};

/// Appends to a text that has room, over and over. `append` gets the text and one
/// of the numbers.
template <class Append>
void appendNumbers(benchmark::State& state, Append append) {
  std::wstring text;
  text.reserve(256);
  std::size_t next = 0;
  AllocationCount const allocations(state);
  for (auto _ : state) {
    text.clear();
    append(text, kNumbers[next++ % kNumbers.size()]);
    benchmark::DoNotOptimize(text.data());
  }
}

/// As appendNumbers(), to an AString.
template <class Append>
void appendToAString(benchmark::State& state, Append append) {
  AString text;
  text.cpp_str().reserve(256);
  std::size_t next = 0;
  AllocationCount const allocations(state);
  for (auto _ : state) {
    text.cpp_str().clear();
    append(text, kNumbers[next++ % kNumbers.size()]);
    benchmark::DoNotOptimize(text.const_cpp_str().data());
  }
}

template <class... Arguments>
void appendPrinted(std::wstring& text, wchar_t const* format, Arguments... arguments) {
  std::array<wchar_t, 64> buffer;
  std::swprintf(buffer.data(), buffer.size(), format, arguments...);
  text.append(buffer.data());
}

void BM_AStringAppendLong(benchmark::State& state) {
  appendToAString(state, [](AString& text, long number) { text << number; });
}

void BM_SwprintfLong(benchmark::State& state) {
  appendNumbers(state, [](std::wstring& text, long n) { appendPrinted(text, L"%ld", n); });
}

void BM_ToWstringLong(benchmark::State& state) {
  appendNumbers(state, [](std::wstring& text, long n) { text += std::to_wstring(n); });
}

void BM_AStringAppendInt(benchmark::State& state) {
  appendToAString(state, [](AString& text, long n) { text << static_cast<int>(n); });
}

void BM_SwprintfInt(benchmark::State& state) {
  appendNumbers(
      state, [](std::wstring& text, long n) { appendPrinted(text, L"%d", static_cast<int>(n)); });
}

void BM_ToWstringInt(benchmark::State& state) {
  appendNumbers(state,
                [](std::wstring& text, long n) { text += std::to_wstring(static_cast<int>(n)); });
}

void BM_AStringAppendUnsignedLong(benchmark::State& state) {
  appendToAString(state,
                  [](AString& text, long n) { text << static_cast<unsigned long>(n & LONG_MAX); });
}

void BM_SwprintfUnsignedLong(benchmark::State& state) {
  appendNumbers(state, [](std::wstring& text, long n) {
    appendPrinted(text, L"%lu", static_cast<unsigned long>(n & LONG_MAX));
  });
}

void BM_ToWstringUnsignedLong(benchmark::State& state) {
  appendNumbers(state, [](std::wstring& text, long n) {
    text += std::to_wstring(static_cast<unsigned long>(n & LONG_MAX));
  });
}

void BM_AStringAppendPointer(benchmark::State& state) {
  appendToAString(state, [](AString& text, long /*n*/) { text << static_cast<void*>(&text); });
}

void BM_SwprintfPointer(benchmark::State& state) {
  appendNumbers(state, [](std::wstring& text, long /*n*/) {
    appendPrinted(text, L"%08x", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&text)));
  });
}

void BM_AStringAppendHexField(benchmark::State& state) {
  appendToAString(state, [](AString& text, long n) { text << AFormat(n & 0xFFFF, L"x0", 4); });
}

void BM_SwprintfHexField(benchmark::State& state) {
  appendNumbers(state, [](std::wstring& text, long n) {
    appendPrinted(text, L"%04x", static_cast<unsigned>(n & 0xFFFF));
  });
}

void BM_AStringAppendTextField(benchmark::State& state) {
  appendToAString(state,
                  [](AString& text, long /*n*/) { text << AFormat(L"schedule", L"-", 20, -1); });
}

void BM_SwprintfTextField(benchmark::State& state) {
  appendNumbers(
      state, [](std::wstring& text, long /*n*/) { appendPrinted(text, L"%-20ls", L"schedule"); });
}

BENCHMARK(BM_AStringAppendLong);
BENCHMARK(BM_SwprintfLong);
BENCHMARK(BM_ToWstringLong);
BENCHMARK(BM_AStringAppendInt);
BENCHMARK(BM_SwprintfInt);
BENCHMARK(BM_ToWstringInt);
BENCHMARK(BM_AStringAppendUnsignedLong);
BENCHMARK(BM_SwprintfUnsignedLong);
BENCHMARK(BM_ToWstringUnsignedLong);
BENCHMARK(BM_AStringAppendPointer);
BENCHMARK(BM_SwprintfPointer);
BENCHMARK(BM_AStringAppendHexField);
BENCHMARK(BM_SwprintfHexField);
BENCHMARK(BM_AStringAppendTextField);
BENCHMARK(BM_SwprintfTextField);

// Conversion. The range is the number of characters.

/// The first `length` characters of `sample`, repeated.
std::wstring repeated(std::wstring_view sample, std::size_t length) {
  std::wstring text;
  while (text.size() < length) text += sample;
  text.resize(length);
  return text;
}

enum class Script { ascii, mixed };

std::wstring wideSample(Script script, benchmark::State const& state) {
  constexpr std::wstring_view kAscii = L"/Library/Vornix/oxa/tasks: 17 done, 3 left; ";
  constexpr std::wstring_view kMixed =
      L"Gr\u00F6\u00DFe der Pr\u00FCfung: 12 \u20AC, \u0437\u0430\u0434\u0430\u0447\u0430 7, "
      L"\u4EFB\u52A1\u5B8C\u6210 \U0001F600 ok; ";
  return repeated(script == Script::ascii ? kAscii : kMixed,
                  static_cast<std::size_t>(state.range(0)));
}

std::string narrowSample(Script script, benchmark::State const& state) {
  LocaleScope const locale(kUtf8Locale);
  ACharString const narrow(wideSample(script, state).c_str());
  return {narrow, static_cast<std::size_t>(narrow.size())};
}

void countCharacters(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

template <Script script>
void BM_WidenToAString(benchmark::State& state) {
  std::string const narrow = narrowSample(script, state);
  LocaleScope const locale(kUtf8Locale);
  AString text;
  for (auto _ : state) {
    text = narrow.c_str();
    benchmark::DoNotOptimize(text.const_cpp_str().data());
  }
  countCharacters(state);
}

template <Script script>
void BM_Mbstowcs(benchmark::State& state) {
  std::string const narrow = narrowSample(script, state);
  LocaleScope const locale(kUtf8Locale);
  std::wstring text;
  for (auto _ : state) {
    text.resize(std::mbstowcs(nullptr, narrow.c_str(), 0));
    benchmark::DoNotOptimize(std::mbstowcs(text.data(), narrow.c_str(), text.size()));
  }
  countCharacters(state);
}

template <Script script>
void BM_NarrowToACharString(benchmark::State& state) {
  std::wstring const wide = wideSample(script, state);
  LocaleScope const locale(kUtf8Locale);
  for (auto _ : state) {
    ACharString const narrow(wide.c_str());
    benchmark::DoNotOptimize(static_cast<char const*>(narrow));
  }
  countCharacters(state);
}

template <Script script>
void BM_Wcstombs(benchmark::State& state) {
  std::wstring const wide = wideSample(script, state);
  LocaleScope const locale(kUtf8Locale);
  for (auto _ : state) {
    std::size_t const size = std::wcstombs(nullptr, wide.c_str(), 0) + 1;
    auto const narrow = std::make_unique_for_overwrite<char[]>(size);
    benchmark::DoNotOptimize(std::wcstombs(narrow.get(), wide.c_str(), size));
  }
  countCharacters(state);
}

/// What it takes to put "?" for a character that cannot be converted.
template <Script script>
void BM_WcrtombLoop(benchmark::State& state) {
  std::wstring const wide = wideSample(script, state);
  LocaleScope const locale(kUtf8Locale);
  for (auto _ : state) {
    auto const narrow =
        std::make_unique_for_overwrite<char[]>(wide.size() * static_cast<std::size_t>(MB_CUR_MAX));
    char* end = narrow.get();
    std::mbstate_t conversion{};
    for (wchar_t const c : wide) {
      std::size_t const size = std::wcrtomb(end, c, &conversion);
      if (size == static_cast<std::size_t>(-1)) *end = '?';
      end += size == static_cast<std::size_t>(-1) ? 1 : size;
    }
    benchmark::DoNotOptimize(end);
  }
  countCharacters(state);
}

void conversionLengths(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(16)->Arg(256)->Arg(64 << 10);
}

BENCHMARK_TEMPLATE(BM_WidenToAString, Script::ascii)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_Mbstowcs, Script::ascii)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_WidenToAString, Script::mixed)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_Mbstowcs, Script::mixed)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_NarrowToACharString, Script::ascii)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_Wcstombs, Script::ascii)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_WcrtombLoop, Script::ascii)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_NarrowToACharString, Script::mixed)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_Wcstombs, Script::mixed)->Apply(conversionLengths);
BENCHMARK_TEMPLATE(BM_WcrtombLoop, Script::mixed)->Apply(conversionLengths);

// Replacing. The range is the number of characters; every eighth begins a hit.

constexpr std::wstring_view kFind = L", ";
constexpr std::wstring_view kReplacement = L";\n  ";

std::wstring manyHits(benchmark::State const& state) {
  return repeated(L"entry1, ", static_cast<std::size_t>(state.range(0)));
}

void BM_FindAndReplace(benchmark::State& state) {
  AString const original(manyHits(state));
  AString const find{std::wstring(kFind)};
  AString const replacement{std::wstring(kReplacement)};
  for (auto _ : state) {
    AString text = original;
    text.findAndReplace(find, replacement);
    benchmark::DoNotOptimize(text.const_cpp_str().data());
  }
  countCharacters(state);
}

/// What comes to mind first: its time grows with the square of the text's length.
void BM_ReplaceInPlace(benchmark::State& state) {
  std::wstring const original = manyHits(state);
  for (auto _ : state) {
    std::wstring text = original;
    for (std::size_t at = text.find(kFind); at != std::wstring::npos;
         at = text.find(kFind, at + kReplacement.size())) {
      text.replace(at, kFind.size(), kReplacement);
    }
    benchmark::DoNotOptimize(text.data());
  }
  countCharacters(state);
}

BENCHMARK(BM_FindAndReplace)->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK(BM_ReplaceInPlace)->Arg(16 << 10);

#if defined(VRXUTIL_BENCH_HAS_BOOST_REPLACE)
void BM_BoostReplaceAll(benchmark::State& state) {
  std::wstring const original = manyHits(state);
  for (auto _ : state) {
    std::wstring text = original;
    boost::replace_all(text, kFind, kReplacement);
    benchmark::DoNotOptimize(text.data());
  }
  countCharacters(state);
}

BENCHMARK(BM_BoostReplaceAll)->Arg(16 << 10)->Arg(1 << 20);
#endif

// Cutting a line in parts, of ten characters each.

constexpr std::size_t kLineLength = 64 << 10;
constexpr wchar_t kDelimiters[] = L",;";

void BM_StringParserGet(benchmark::State& state) {
  std::wstring const line = repeated(L"value 0001,name 00002;", kLineLength);
  AStringParser parser;
  for (auto _ : state) {
    parser.startAt(line.c_str(), kDelimiters);
    while (!parser.atEnd()) benchmark::DoNotOptimize(parser.get(nullptr));
  }
}

void BM_FindFirstOf(benchmark::State& state) {
  std::wstring const line = repeated(L"value 0001,name 00002;", kLineLength);
  std::wstring copy;
  for (auto _ : state) {
    copy = line;
    std::wstring_view rest = copy;
    while (!rest.empty()) {
      std::size_t const end = std::min(rest.find_first_of(kDelimiters), rest.size());
      benchmark::DoNotOptimize(rest.substr(0, end).data());
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
}

BENCHMARK(BM_StringParserGet);
BENCHMARK(BM_FindFirstOf);

}  // namespace
}  // namespace vrxutil::bench
