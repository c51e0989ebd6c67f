#pragma once

// Small helpers for tests with real sockets.

#include <array>
#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace tn::testing_support {

// Two connected stream sockets.
struct SocketPair {
  SocketPair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    here.reset(ends[0]);
    there.reset(ends[1]);
  }
  UniqueFd here;
  UniqueFd there;
};

// A pipe whose write end can be handed over; the read end tells when every copy of it is closed.
struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    reader.reset(ends[0]);
    writer.reset(ends[1]);
  }
  [[nodiscard]] bool allWritersClosed() const {
    char byte = 0;
    return read(reader.get(), &byte, 1) == 0;
  }
  UniqueFd reader;
  UniqueFd writer;
};

inline std::size_t openDescriptors() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
  EXPECT_NE(folder, nullptr);
  std::size_t count = 0;
  while (folder && readdir(folder.get()) != nullptr)
    ++count;
  return count;
}

inline bool sameFile(int a, int b) {
  struct stat first {};
  struct stat second {};
  return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

}  // namespace tn::testing_support
