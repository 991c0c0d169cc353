// A benchmark's numeric command-line arguments.
#pragma once

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace korva::bench {

// Argument `index` as a positive number, `fallback` when it is not given. A malformed, zero,
// negative or too large one ends the program with a message: a benchmark run with other figures
// than the ones asked for would print misleading results.
inline int PositiveArgument(int argc, char* argv[], int index, int fallback) {
  if (index >= argc) return fallback;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(argv[index], &end, 10);
  if (errno != 0 || end == argv[index] || *end != '\0' || value <= 0 || value > INT_MAX) {
    (void)std::fprintf(stderr, "%s: argument %d (%s) is not a positive number\n", argv[0], index, argv[index]);
    std::exit(2);
  }
  return static_cast<int>(value);
}

}  // namespace korva::bench
