// In-process fixture for the service host: a test agent folder (bin with stand-ins, logs), the
// process globals pointed at it, a stop event and a captured log.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/test_support.h"

namespace korva::test {

class ServiceHostTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Access log text so far.
  std::string AccessLog() const;
  // Polls until the access log holds `name` `count` times, at most `timeoutMs`.
  std::size_t WaitForAccessRows(const std::string& name, std::size_t count, unsigned long timeoutMs) const;
  static std::size_t CountOf(const std::string& text, const std::string& part);
  bool StopEventSignalled() const;

  TempDir dir_;
  std::unique_ptr<StandInFolder> bin_;
  std::unique_ptr<LogCapture> log_;
};

}  // namespace korva::test
