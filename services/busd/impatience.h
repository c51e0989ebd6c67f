#pragma once

namespace busd {

// While one lives, no close makes this thread wait for longer than a moment.
//
// The last close of a socket that lingers waits until its peer has taken what was written: as long as whoever set the
// option chose, also when the socket is non-blocking, and wherever the kernel happens to drop the last reference. Here
// that is where a passed descriptor is closed whose receiver was quicker, where a connection ends with descriptors that
// nobody has read, and where a descriptor arrives for which no number is free. Asking first whether a socket lingers
// does not help, because whoever shares it may change that in between. But a pending signal ends such a wait, so
// meanwhile one is sent every millisecond. It is caught and means nothing. What was not sent yet the kernel goes on
// sending by itself.
//
// It is for the one thread of the program, and uses SIGALRM and the interval timer. They may be nested.
class Impatience {
 public:
  Impatience();
  Impatience(const Impatience&) = delete;
  Impatience& operator=(const Impatience&) = delete;
  ~Impatience();
};

}  // namespace busd
