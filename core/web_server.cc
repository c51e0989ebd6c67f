#include "core/web_server.h"

#include <array>
#include <span>
#include <string_view>
#include <utility>

#include "core/configuration.h"
#include "core/listeners.h"
#include "core/server_record.h"
#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"

namespace {

// How long the configuration services may take to push their records unasked.
constexpr std::uint32_t askAfterMs = 200;

constexpr std::uint32_t commandAskForRecords = 0x30003;
// Records as the service manager and the hotspot service push them.
constexpr std::uint32_t commandServiceRecord = 0x30001;
constexpr std::uint32_t commandHotspotRecord = 0x30002;

constexpr std::array<std::uint32_t, 2> serviceManagerPath{68, 1};
constexpr std::array<std::uint32_t, 1> hotspotPath{63};

tn::message noSuchService() {
  return tn::errorMsg(tn::error::noSuchService, "no such service");
}

// Services may change servers, and so may a browser's session whose user has the right to change settings.
bool mayChange(const tn::message& msg) {
  return tn::policies::holds(msg, tn::policies::changeSettings);
}

tn::message notAllowed() {
  return tn::errorMsg(tn::error::notAllowed, "not allowed");
}

}  // namespace

void WebServer::start(const std::string& configDirectory) {
  config = std::make_unique<xml::DocumentCollection>(configDirectory);
  for (const xml::ParseError& error : config->errors())
    logLine("configuration: ", error.text());
  buildServers(*config, servers);
  settingsReceived = false;
  askTimer_.setCallback([this] { askForSettings(); });
  // The loop's time has stood still while the documents were read.
  tn::TimerQueue& timers = tn::getRunner()->timers();
  timers.setNow(tn::Clock::now());
  askTimer_.start(timers, askAfterMs);
}

void WebServer::askForSettings() {
  if (settingsReceived) return;
  logLine("no settings, asking sermgr and hotspot");
  askWhenLinked_ = tn::getLooper()->busId() == 0;
  sendRequests();
}

void WebServer::sendRequests() {
  askService(serviceManagerPath);
  askService(hotspotPath);
}

void WebServer::linked() {
  if (std::exchange(askWhenLinked_, false) && !settingsReceived) sendRequests();
}

void WebServer::askService(std::span<const std::uint32_t> path) {
  tn::message request;
  request.insert_vector(tn::field::destination, path);
  request.insert(tn::field::command, commandAskForRecords);
  sendMessage(std::move(request));
}

tn::message WebServer::cmdSet(tn::message& msg) {
  if (!mayChange(msg)) return notAllowed();
  const std::string_view name = serverName(msg);
  if (ServerEntry* entry = findServer(name)) return applyServer(*entry, msg);
  logLine("failed to set server ", name, ": unknown server");
  return noSuchService();
}

tn::message WebServer::cmdAddObj(tn::message& msg) {
  if (!mayChange(msg)) return notAllowed();
  const std::string_view name = serverName(msg);
  ServerEntry* entry = findServer(name);
  // A record without a name makes no server: nobody meant one whose name is empty.
  if (entry == nullptr && !hasServerName(msg)) return cmdSet(msg);
  if (entry == nullptr) entry = &addForwardingServer(servers, name, hasTlsRef(msg));
  return applyServer(*entry, msg);
}

tn::message WebServer::cmdRemoveObj(tn::message& msg, std::uint32_t /*object*/) {
  if (!mayChange(msg)) return notAllowed();
  const std::string_view name = serverName(msg);
  ServerEntry* entry = findServer(name);
  if (entry == nullptr) {
    logLine("failed to remove server ", name, ": unknown server");
    return noSuchService();
  }
  logLine("disabling server ", name);
  closeListeners(*entry);
  return {};
}

tn::message WebServer::cmdUnknown(tn::message& msg, std::uint32_t command) {
  if (command == commandServiceRecord || command == commandHotspotRecord) return cmdSet(msg);
  return Handler::cmdUnknown(msg, command);
}

ServerEntry* WebServer::findServer(std::string_view name) const {
  const auto found = servers.find(name);
  return found == servers.end() ? nullptr : found->second;
}

// Stores a record and opens the listeners anew, also when nothing changed. Without one of the two kinds the other
// stands.
tn::message WebServer::applyServer(ServerEntry& entry, const tn::message& command) {
  settingsReceived = true;
  ServerRecord record = readServerRecord(command);
  logLine("set ", serverName(command), " enabled=", boolText(record.enabled), " port=", NumberText(record.port));
  entry.enabled = record.enabled;
  entry.port = record.port;
  entry.allowed = std::move(record.allowed);
  entry.tlsRef = record.tlsRef;
  closeListeners(entry);
  if (!entry.enabled) return {};
  if (entry.listenUnix) {
    tn::message answer = openUnixListener(entry);
    if (tn::isError(answer)) return answer;
  }
  if (entry.listenTcp) return openTcpListener(entry);
  return {};
}
