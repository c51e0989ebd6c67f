#include "core/counter_handler.h"

#include <array>
#include <chrono>
#include <utility>
#include <vector>

#include "core/admission.h"
#include "http/connection.h"
#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"

namespace {

constexpr tn::message_array_id serversField{1};
constexpr tn::u32_id openField{2};
constexpr tn::u32_id limitField{3};
constexpr tn::u64_id runningField{4};
constexpr tn::u64_id droppedLinesField{5};

// Of each server:
constexpr tn::string_id nameField{1};
constexpr tn::bool_id enabledField{2};
constexpr tn::u32_id portField{3};
constexpr tn::bool_id sslField{4};
constexpr std::uint32_t firstCounterField = 5;
constexpr tn::u32_id openHereField{0x11};
constexpr tn::bool_id listensField{0x12};

tn::message describe(std::string_view name, const ServerEntry& entry) {
  const SiteCounters& counted = entry.counters;
  tn::message server;
  server.insert(nameField, name);
  server.insert(enabledField, entry.enabled);
  server.insert(portField, entry.port);
  server.insert(sslField, entry.ssl);
  const std::array counters{counted.accepted,     counted.refusedByPrefix, counted.responses[0],  counted.responses[1],
                            counted.responses[2], counted.responses[3],    counted.bytesRead,     counted.bytesWritten,
                            counted.headTimeouts, counted.bodyTimeouts,    counted.writeTimeouts, counted.pauses};
  std::uint32_t number = firstCounterField;
  for (const std::uint64_t value : counters)
    server.insert(tn::u64_id(number++), value);
  server.insert(openHereField, counted.open);
  server.insert(listensField, entry.tcpSocket || entry.unixSocket);
  return server;
}

}  // namespace

CounterHandler::CounterHandler(const ServerMap& servers) : servers_(servers), began_(tn::Clock::now()) {}

tn::message CounterHandler::cmdGet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
  std::vector<tn::message> servers;
  servers.reserve(servers_.size());
  for (const auto& [name, entry] : servers_)
    servers.push_back(describe(name, *entry));
  const auto running = std::chrono::duration_cast<std::chrono::milliseconds>(tn::Clock::now() - began_);
  tn::message answer;
  answer.insert_vector(serversField, servers);
  answer.insert(openField, openConnections);
  answer.insert(limitField, maxOpenConnections);
  answer.insert(runningField, static_cast<std::uint64_t>(running.count()));
  answer.insert(droppedLinesField, droppedLogLines());
  return answer;
}
