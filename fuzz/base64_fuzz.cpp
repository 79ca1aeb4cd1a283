// Encoding and decoding in pieces, from any state and into targets of any size,
// against the definition one step at a time. The first bytes of an input choose the
// state, the size of the target and where the source is split.

#include "fuzz/support.h"
#include "tests/binary/base64_reference.h"

#include <vrxutil/binary.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

using vrxutil::fuzz::require;
using vrxutil::test::referenceDecode;
using vrxutil::test::referenceEncode;

struct Result {
  std::vector<char> target;
  unsigned long written;
  unsigned long consumed;
};

/// `bytes` is copied to memory of its size, and so is the target: what is touched
/// beyond them is found.
template <class Function>
Result run(Function function, std::string const& bytes, std::size_t room, int& state) {
  std::vector<char> const source(bytes.begin(), bytes.end());
  Result result{std::vector<char>(room, 'Z'), 0, 0};
  // Not null, which has a meaning of its own.
  char const* const start = source.empty() ? "" : source.data();
  result.written =
      function(start, source.size(), result.target.data(), room, &state, &result.consumed);
  return result;
}

template <class Function>
void checkPiece(Function function, Function reference, std::string const& piece, std::size_t room,
                int& state) {
  int expectedState = state;
  Result const actual = run(function, piece, room, state);
  Result const expected = run(reference, piece, room, expectedState);
  require(actual.written == expected.written, "the count written");
  require(actual.consumed == expected.consumed, "the count consumed");
  require(state == expectedState, "the state");
  require(actual.target == expected.target, "the target, with what is not written");
}

void checkRoundTrip(std::string const& bytes) {
  AnObjectBuffer<unsigned char> const buffer(bytes);
  require(ABase64Encode::decode(ABase64Encode::encode(buffer)).cpp_str() == bytes,
          "what was encoded is decoded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzedDataProvider fields(data, size);
  int encoderState = fields.ConsumeIntegral<std::uint16_t>();
  int decoderState = encoderState;
  std::size_t const room = fields.ConsumeIntegral<std::uint16_t>() % 1024;
  std::size_t const split = fields.ConsumeIntegral<std::uint16_t>();
  std::string const bytes = fields.ConsumeRemainingBytesAsString();
  std::size_t const firstSize = bytes.empty() ? 0 : split % bytes.size();
  for (std::string const& piece : {bytes.substr(0, firstSize), bytes.substr(firstSize)}) {
    checkPiece(&Base64Encode, &referenceEncode, piece, room, encoderState);
    checkPiece(&Base64Decode, &referenceDecode, piece, room, decoderState);
  }
  checkRoundTrip(bytes);
  return 0;
}
