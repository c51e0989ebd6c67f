#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/bus/frame_queue.h"
#include "platform/bus/frame_reader.h"
#include "platform/bus/message.h"
#include "platform/bus/thin_runner.h"

namespace tn::testing_support {

// A folder of its own for a broker's socket, removed with it.
struct SocketFolder {
  SocketFolder() {
    std::string pattern = "/tmp/tn-bus-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) name = pattern;
  }
  SocketFolder(const SocketFolder&) = delete;
  SocketFolder& operator=(const SocketFolder&) = delete;
  ~SocketFolder() {
    unlink(path().c_str());
    rmdir(name.c_str());
  }
  [[nodiscard]] std::string path() const { return name + "/bus"; }
  std::string name;
};

// A listening socket at a path, which takes the place of one that is there.
inline UniqueFd listenAt(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  unlink(path.c_str());
  const bool bound = bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (!bound || listen(socket.get(), 16) != 0) socket.reset();
  return socket;
}

// As much of a broker as two programs need to talk: it gives ids, moves frames with their descriptors, copies to
// groups, and bounces. Driven by a runner.
class SmallBroker {
 public:
  SmallBroker(ThinRunner& runner, const std::string& path) : runner_(runner), listener_(listenAt(path)) {
    runner_.addSocket(listener_.get(), readable, [this](int, unsigned) { accept(); });
  }
  SmallBroker(const SmallBroker&) = delete;
  SmallBroker& operator=(const SmallBroker&) = delete;
  ~SmallBroker() {
    runner_.removeSocket(listener_.get());
    for (const auto& [fd, client] : clients_)
      runner_.removeSocket(fd);
  }

  [[nodiscard]] std::size_t joined() const { return byId_.size(); }

 private:
  struct Client {
    UniqueFd socket;
    FrameReader reader{64U << 10};
    FrameQueue queue;
    std::uint32_t id = 0;
    std::set<std::uint32_t> groups;
  };

  void accept() {
    UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) return;
    const int fd = socket.get();
    clients_[fd] = std::make_unique<Client>();
    clients_[fd]->socket = std::move(socket);
    runner_.addSocket(fd, readable, [this](int ready, unsigned) { serve(ready); });
  }

  void serve(int fd) {
    Client& client = *clients_[fd];
    if (client.reader.receive(fd) == FrameReader::Receive::ended) return drop(client);
    FrameReader::Frame frame;
    while (client.reader.next(frame) == FrameReader::Next::frame)
      route(client, frame);
    for (const auto& [other, to] : clients_)
      (void)to->queue.flush(other);
  }

  void drop(Client& client) {
    const int fd = client.socket.get();
    byId_.erase(client.id);
    runner_.removeSocket(fd);
    clients_.erase(fd);
  }

  void route(Client& from, FrameReader::Frame& frame) {
    const std::uint32_t peer = frame.header.peer;
    if (frame.header.kind == static_cast<std::uint32_t>(FrameKind::control)) return answer(from, frame);
    if (peer >= firstGroup) {
      for (const auto& [fd, to] : clients_) {
        if (to->groups.contains(peer)) to->queue.append(FrameKind::message, from.id, frame.payload, UniqueFd());
      }
    } else if (const auto to = byId_.find(peer); to != byId_.end()) {
      to->second->queue.append(FrameKind::message, from.id, frame.payload, std::move(frame.descriptor));
    } else {
      from.queue.append(FrameKind::bounced, peer, frame.payload, UniqueFd());
    }
  }

  void answer(Client& from, const FrameReader::Frame& frame) {
    message request;
    if (!request.unflatten(frame.payload)) return;
    const std::uint32_t operation = request.get(u32_id(1)).value_or(0);
    const std::uint32_t number = request.get(u32_id(2)).value_or(0);
    if (operation == control::join) {
      from.id = number != 0 ? number : ++lastId_;
      byId_[from.id] = &from;
    }
    if (operation == control::joinGroup) from.groups.insert(number);
    message reply;
    reply.insert(u32_id(1), operation);
    reply.insert(u32_id(2), from.id);
    from.queue.append(FrameKind::control, brokerId, reply.flattened(), UniqueFd());
  }

  ThinRunner& runner_;
  UniqueFd listener_;
  std::map<int, std::unique_ptr<Client>> clients_;
  std::map<std::uint32_t, Client*> byId_;
  std::uint32_t lastId_ = firstFreeId - 1;
};

}  // namespace tn::testing_support
