#pragma once

#include <ctime>

namespace jsproxy_test {

// What time() says in this test program.
extern std::time_t clockSeconds;

}  // namespace jsproxy_test
