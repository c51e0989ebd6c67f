#pragma once

#include <expected>
#include <string>

#include "platform/unique_fd.h"

namespace busd {

// The broker's listening socket in the file system: there while this object lives, removed by its destructor.
//
// One broker serves a path. A lock on `path`.lock says so for as long as its process lives, and so lets exactly one of
// several that start at once go on; besides, a socket that answers is never replaced. What a broker that was killed
// left behind is.
class Listener {
 public:
  // Makes the folder of the socket when it is missing (its parent too). The error is a text for the log.
  [[nodiscard]] static std::expected<Listener, std::string> open(const std::string& path);

  Listener(Listener&&) = default;
  Listener& operator=(Listener&&) = delete;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  [[nodiscard]] int fd() const { return socket_.get(); }

 private:
  Listener(std::string path, UniqueFd lock, UniqueFd socket)
      : path_(std::move(path)), lock_(std::move(lock)), socket_(std::move(socket)) {}

  std::string path_;
  UniqueFd lock_;
  UniqueFd socket_;  // empty in an object that was moved from
};

}  // namespace busd
