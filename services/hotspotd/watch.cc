#include "services/hotspotd/watch.h"

#include <string_view>
#include <utility>

#include "platform/bus/frame.h"

namespace hotspot {
namespace {

constexpr std::string_view serverProgram = "www";

// Of the broker's control messages; docs/bus-protocol.md.
constexpr tn::u32_id controlOperation{1};
constexpr tn::message_array_id listedPrograms{4};
constexpr tn::u32_id programId{2};
constexpr tn::string_id programName{3};

std::set<std::uint32_t> serversIn(const tn::message& list) {
  std::set<std::uint32_t> servers;
  for (const tn::message& program : list.get(listedPrograms).value_or(std::vector<tn::message>())) {
    const auto id = program.get(programId);
    if (id && program.get(programName) == serverProgram) servers.insert(*id);
  }
  return servers;
}

}  // namespace

Watch::Watch(tn::Looper& looper, Ready ready)
    : looper_(looper), ready_(std::move(ready)), timer_([this] { round(); }) {}

void Watch::asked(std::uint32_t program) {
  askers_.insert(program);
  look(false);
}

void Watch::forget() {
  servers_.clear();
  askers_.clear();
}

std::vector<std::uint32_t> Watch::served() const {
  std::vector<std::uint32_t> programs;
  for (const auto& [program, done] : servers_) {
    if (done) programs.push_back(program);
  }
  return programs;
}

void Watch::round() {
  timer_.start(looper_.runner().timers(), roundMs);
  look(true);
}

void Watch::look(bool endsRound) {
  if (std::exchange(looking_, true)) return;
  tn::message request;
  request.insert(controlOperation, tn::control::list);
  looper_.control(
      request, [this, endsRound](const tn::message& list) { onList(list, endsRound); }, answerMs);
}

void Watch::onList(const tn::message& list, bool endsRound) {
  looking_ = false;
  if (tn::isError(list)) return;
  const std::set<std::uint32_t> askers = std::exchange(askers_, {});
  std::map<std::uint32_t, bool> before = std::exchange(servers_, {});
  std::vector<std::uint32_t> ready;
  for (const std::uint32_t server : serversIn(list)) {
    const auto known = before.find(server);
    const bool done = known != before.end() && known->second;
    const bool due = askers.contains(server) || (known != before.end() && !done && endsRound);
    servers_[server] = done || due;
    if (due) ready.push_back(server);
  }
  for (const std::uint32_t server : ready)
    ready_(server);
}

}  // namespace hotspot
