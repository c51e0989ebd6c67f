#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/bus/message.h"
#include "platform/web/ip_addr6.h"

// What one bus message says about one server: the record of set and add commands.
//
//   string  1         name of the server
//   bool    0xfe000a  disabled; enabled when absent
//   u32     2         port; 80 when absent
//   u32     5         reference for the TLS service; all ones when absent
//   messages 6        addresses that may connect; all when absent
//
// A field of another type than the one told is another field, and so counts as absent.
struct ServerRecord {
  static constexpr std::uint32_t defaultPort = 80;
  static constexpr std::uint32_t noTlsRef = 0xFFFFFFFF;

  bool enabled = true;
  std::uint32_t port = defaultPort;
  std::uint32_t tlsRef = noTlsRef;
  std::vector<IPPrefix6> allowed;
};

// The name that a command is about; empty when it has none. The view dies with the next change of the message.
[[nodiscard]] std::string_view serverName(const tn::message& command);
[[nodiscard]] bool hasServerName(const tn::message& command);

// Whether the record has a reference for the TLS service, so that a server it makes is a TLS server.
[[nodiscard]] bool hasTlsRef(const tn::message& command);

[[nodiscard]] ServerRecord readServerRecord(const tn::message& command);
