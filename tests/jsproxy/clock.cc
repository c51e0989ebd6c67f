#include "tests/jsproxy/clock.h"

namespace jsproxy_test {

std::time_t clockSeconds = 0;

}  // namespace jsproxy_test

// The linker leads the tunnel's calls of time() here, by the name that it has on this machine.
extern "C" {
std::time_t __wrap_time(std::time_t* out);
std::time_t __wrap___time64(std::time_t* out);

std::time_t __wrap_time(std::time_t* out) {
  if (out != nullptr) *out = jsproxy_test::clockSeconds;
  return jsproxy_test::clockSeconds;
}
std::time_t __wrap___time64(std::time_t* out) {
  return __wrap_time(out);
}
}
