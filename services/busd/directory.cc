#include "services/busd/directory.h"

#include <algorithm>

#include "platform/bus/frame.h"
#include "services/busd/client.h"

namespace busd {

Client* Directory::lookUp(std::uint32_t id) const {
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : found->second;
}

bool Directory::claim(std::uint32_t id, Client& client) {
  found_ = Found();
  return byId_.emplace(id, &client).second;
}

// Programs are far fewer than ids, so the search ends soon.
std::uint32_t Directory::freeId() {
  do {
    ++lastFree_;
    if (lastFree_ < tn::firstFreeId || lastFree_ >= tn::firstGroup) lastFree_ = tn::firstFreeId;
  } while (byId_.contains(lastFree_));
  return lastFree_;
}

void Directory::join(std::uint32_t group, Client& client) {
  if (std::ranges::find(client.groups, group) != client.groups.end()) return;
  client.groups.push_back(group);
  groups_[group].push_back(&client);
}

void Directory::leave(std::uint32_t group, Client& client) {
  if (std::erase(client.groups, group) == 0) return;
  const auto found = groups_.find(group);
  std::erase(found->second, &client);
  if (found->second.empty()) groups_.erase(found);
}

std::span<Client* const> Directory::members(std::uint32_t group) const {
  const auto found = groups_.find(group);
  if (found == groups_.end()) return {};
  return found->second;
}

void Directory::release(Client& client) {
  while (!client.groups.empty())
    leave(client.groups.back(), client);
  found_ = Found();
  if (client.id != 0) byId_.erase(client.id);
}

}  // namespace busd
