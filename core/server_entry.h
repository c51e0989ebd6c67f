#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core/server_record.h"
#include "http/site.h"
#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"
#include "platform/web/ip_addr6.h"

// One server: what the configuration says of it (its servlets, and whether clients speak TLS), what the last record
// said, and its listening sockets. Made once and never destroyed: see keepForProcess.
//
// Its listeners are closed (neither socket open) or open (each wanted kind, or what could be opened of it). Open ones
// are watched, or for a moment not (`pauseTimer`): see core/admission.h.
struct ServerEntry : Site {
  UniqueFd tcpSocket;
  bool ssl = false;
  UniqueFd unixSocket;
  bool listenUnix = false;
  bool listenTcp = true;
  bool enabled = false;
  std::uint32_t port = 0;
  std::vector<IPPrefix6> allowed;  // TCP peers that are let in; all when empty
  std::uint32_t tlsRef = ServerRecord::noTlsRef;
  tn::ThinRunner::TimerHandle pauseTimer = 0;
};

// All servers by name, in byte order of the names.
using ServerMap = std::map<std::string, ServerEntry*, std::less<>>;
