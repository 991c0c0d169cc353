// The pipe's wire format and reconnection pace (short messages and the answers' bytes go through the pipe test).
#include <gtest/gtest.h>

#include "pipe/core/pipe_protocol.h"

namespace {

namespace pipe = korva::pipe;

TEST(PipeProtocol, CodesAreFourLittleEndianBytesAndTheBackoffDoublesToAMinute) {
  const unsigned char code[] = {0xC1, 0x00, 0x00, 0x80};
  EXPECT_EQ(pipe::DecodeControlCode(code, 4), 0x800000C1u);
  EXPECT_EQ(pipe::DecodeControlCode(nullptr, 4), std::nullopt);
  unsigned wait = 0;
  std::vector<unsigned> waits;
  waits.reserve(8);
  for (int i = 0; i < 8; ++i) waits.push_back(wait = pipe::NextBackoffMs(wait));
  EXPECT_EQ(waits, (std::vector<unsigned>{1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000}));
}

}  // namespace
