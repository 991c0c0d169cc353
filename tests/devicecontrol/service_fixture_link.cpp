// Builds the service host's in-process test fixture into this test program: its source lives
// with the service tests, and each subsystem folder of tests/ is a program of its own.
#include "service/service_fixture.cpp"  // NOLINT(bugprone-suspicious-include)
