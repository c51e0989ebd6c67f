#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// What has to hold of every input; else the fuzzer ends, and says where, and which error the system has told last.
inline void require(bool holds, int line = __builtin_LINE()) {
  const int error = errno;
  if (holds) return;
  std::fprintf(stderr, "what line %d of the fuzzer requires does not hold (last error: %s)\n", line,
               std::strerror(error));
  std::abort();
}
