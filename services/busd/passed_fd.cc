#include "services/busd/passed_fd.h"

#include <sys/socket.h>

namespace busd {

void PassedFd::dropOpen() {
  const Impatience impatience;
  const linger none{};
  // Anything but a socket refuses, and does not linger.
  (void)setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  fd_.reset();
}

}  // namespace busd
