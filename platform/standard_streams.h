#pragma once

#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

// Standard input, output and errors that whoever started the program has closed: files that can neither be read nor
// written take their numbers. Otherwise the next socket would, and what is printed or logged would be sent over it. To
// be called first in a program that anybody may start.
inline void holdStandardStreams() {
  for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The lowest free number is given.
    if (::fcntl(number, F_GETFD) < 0) static_cast<void>(::open("/dev/null", O_PATH));
  }
}
