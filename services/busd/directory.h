#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace busd {

struct Client;

// Who has which id, and who joined which group. It owns no client: whoever ends one releases it here first.
class Directory {
 public:
  // Null when no program has that id. Frames come in runs for one program, so the last answer is kept.
  [[nodiscard]] Client* find(std::uint32_t id) {
    if (id != found_.id) found_ = {id, lookUp(id)};
    return found_.client;
  }
  // False: the id is taken.
  [[nodiscard]] bool claim(std::uint32_t id, Client& client);
  // An id that nobody has, from tn::firstFreeId up. One that became free is given out again as late as possible, so
  // that late messages to a program that left do not reach another.
  [[nodiscard]] std::uint32_t freeId();

  // Membership twice over is membership once; leaving without it is nothing.
  void join(std::uint32_t group, Client& client);
  void leave(std::uint32_t group, Client& client);
  [[nodiscard]] std::span<Client* const> members(std::uint32_t group) const;

  // Forgets the client's id and memberships.
  void release(Client& client);

  [[nodiscard]] const std::unordered_map<std::uint32_t, Client*>& programs() const { return byId_; }

 private:
  struct Found {
    std::uint32_t id = 0;  // the broker's own, which no program has
    Client* client = nullptr;
  };
  [[nodiscard]] Client* lookUp(std::uint32_t id) const;

  std::unordered_map<std::uint32_t, Client*> byId_;
  std::unordered_map<std::uint32_t, std::vector<Client*>> groups_;
  std::uint32_t lastFree_ = 0;
  Found found_;
};

}  // namespace busd
