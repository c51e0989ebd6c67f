#pragma once

#include <netinet/in.h>
#include <optional>

namespace core_test {

// Failures and answers of the kernel that no ordinary machine gives on demand. The program's own socket, listen and
// getsockopt stand before the C library's; what is not forced goes to the kernel.
struct ForcedCalls {
  int inet6Error = 0;   // errno of every socket of the family AF_INET6
  int listenError = 0;  // errno of every listen
  std::optional<sockaddr_in> originalDestination;
};

// What the last listen was asked for.
[[nodiscard]] int lastBacklog();

// Forced while it lives.
class Forcing {
 public:
  explicit Forcing(const ForcedCalls& calls);
  Forcing(const Forcing&) = delete;
  Forcing& operator=(const Forcing&) = delete;
  ~Forcing();
};

}  // namespace core_test
