#pragma once

#include "platform/bus/looper.h"

namespace service {

// The status to end with when the loop has ended. One that never turned has nothing to wait with, and has said so.
[[nodiscard]] inline int exitStatus(tn::Looper& looper) {
  return looper.runner().waits() == 0 ? 1 : 0;
}

}  // namespace service
