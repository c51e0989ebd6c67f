#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"
#include "tools/forwarder/forwarding_header.h"
#include "tools/forwarder/relay.h"

namespace forwarder {

// Takes TCP connections at one address and passes each request on to a server's local listener.
class Forwarder {
 public:
  static constexpr std::size_t maxRelays = 500;
  static constexpr int backlog = 64;
  static constexpr std::uint32_t pauseMs = 10;  // without accepting, when there is no room

  // The runner must outlive this.
  Forwarder(std::uint32_t serverPort, std::uint32_t tag, tn::ThinRunner& runner)
      : serverPort_(serverPort), tag_(tag), runner_(runner), pause_([this] { resume(); }) {}
  Forwarder(const Forwarder&) = delete;
  Forwarder& operator=(const Forwarder&) = delete;
  ~Forwarder();

  // False: nobody may listen there, errno says why.
  [[nodiscard]] bool listen(const Address& address);

 private:
  void accept();
  void pause();
  void resume();

  std::uint32_t serverPort_;
  std::uint32_t tag_;
  tn::ThinRunner& runner_;
  UniqueFd listener_;
  tn::Timer pause_;
  std::list<Relay> relays_;
};

}  // namespace forwarder
