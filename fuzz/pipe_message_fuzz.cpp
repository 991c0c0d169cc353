// A message from the pipe: a control code only when it is exactly four bytes, read little endian,
// and the result encoding gives the same bytes back; the reconnection wait.
#include "fuzz_input.h"
#include "pipe/core/pipe_protocol.h"

namespace pipe = korva::pipe;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::optional<std::uint32_t> code = pipe::DecodeControlCode(data, size);
  korva::fuzz::Check(code.has_value() == (size == 4));
  if (code) {
    const std::array<unsigned char, 4> bytes = pipe::EncodeResult(*code);
    korva::fuzz::Check(std::memcmp(bytes.data(), data, 4) == 0);
  }
  korva::fuzz::Input input(data, size);
  // The wait grows, from 1 s, to a minute at most.
  const auto previous = input.Number<unsigned>();
  const unsigned next = pipe::NextBackoffMs(previous);
  korva::fuzz::Check(next <= 60000 && (previous == 0 ? next == 1000 : next >= (previous < 60000 ? previous : 60000)));
  return 0;
}
