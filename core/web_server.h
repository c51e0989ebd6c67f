#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "core/server_entry.h"
#include "platform/bus/handler.h"
#include "platform/bus/timer.h"
#include "platform/xml/document.h"

// The control handler of the process, bus handler 1: it keeps the servers, and opens and closes their listeners as the
// records of the configuration services say.
//
// The configuration names the servers and their servlets; until a record comes, none of them listens. Servers are never
// removed: connections, servlets and pending hand-overs refer to them for as long as the process lives, so they are
// left alone even when this handler is destroyed.
class WebServer : public tn::Handler {
 public:
  WebServer() = default;

  // Reads the configuration directory, builds its servers, and arms the timer that asks for records when none comes by
  // itself. What is wrong with a document is logged, and the others stand. The loop must be there.
  void start(const std::string& configDirectory);

  // A record for a server that is there.
  tn::message cmdSet(tn::message& msg) override;
  // A record for a server that is there, or is made now; a new one forwards all its requests over the bus.
  tn::message cmdAddObj(tn::message& msg) override;
  // Closes the listeners of a server; the server stays.
  tn::message cmdRemoveObj(tn::message& msg, std::uint32_t object) override;
  // The configuration services push records under commands of their own.
  tn::message cmdUnknown(tn::message& msg, std::uint32_t command) override;
  // Asks for records after all, when there was no link at the time to ask.
  void linked() override;

  ServerMap servers;
  // Whether any record has been applied since the start.
  bool settingsReceived = false;
  std::unique_ptr<xml::DocumentCollection> config;

 private:
  void askForSettings();
  void sendRequests();
  void askService(std::span<const std::uint32_t> path);
  [[nodiscard]] ServerEntry* findServer(std::string_view name) const;
  tn::message applyServer(ServerEntry& entry, const tn::message& command);

  tn::Timer askTimer_;
  bool askWhenLinked_ = false;  // the requests went nowhere
};
