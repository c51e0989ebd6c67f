#include "core/server_record.h"

#include <optional>

namespace {

namespace field {
constexpr tn::string_id name{1};
constexpr tn::u32_id port{2};
constexpr tn::u32_id tlsRef{5};
constexpr tn::message_array_id allowed{6};
}  // namespace field

// Fields of one element of `allowed`.
namespace prefix_field {
constexpr tn::u32_id ipv4{1};
constexpr tn::u32_id ipv4Mask{2};
constexpr tn::addr6_id ipv6{3};
constexpr tn::u32_id ipv6Length{4};
}  // namespace prefix_field

// An address whose mask or length is missing stands for itself alone: what a broken record leaves out must not open the
// server to everyone.
constexpr std::uint32_t hostMask = 0xFFFFFFFF;
constexpr std::uint32_t hostLength = 128;

std::optional<IPPrefix6> readPrefix(const tn::message& element) {
  if (const auto address = element.get(prefix_field::ipv4)) {
    IPPrefix6 prefix;
    prefix.address().setIPv4(*address);
    prefix.setIPv4Mask(element.get(prefix_field::ipv4Mask).value_or(hostMask));
    return prefix;
  }
  if (const auto address = element.get(prefix_field::ipv6)) {
    return IPPrefix6(IPAddr6(*address), element.get(prefix_field::ipv6Length).value_or(hostLength));
  }
  return std::nullopt;
}

std::vector<IPPrefix6> readAllowed(const tn::message& command) {
  std::vector<IPPrefix6> allowed;
  const auto elements = command.get(field::allowed);
  if (!elements) return allowed;
  allowed.reserve(elements->size());
  for (const tn::message& element : *elements) {
    if (const auto prefix = readPrefix(element)) allowed.push_back(*prefix);
  }
  return allowed;
}

}  // namespace

std::string_view serverName(const tn::message& command) {
  return command.get(field::name).value_or(std::string_view());
}

bool hasServerName(const tn::message& command) {
  return command.has(field::name);
}

bool hasTlsRef(const tn::message& command) {
  return command.has(field::tlsRef);
}

ServerRecord readServerRecord(const tn::message& command) {
  ServerRecord record;
  record.enabled = !command.get(tn::field::disabled).value_or(false);
  record.port = command.get(field::port).value_or(ServerRecord::defaultPort);
  record.tlsRef = command.get(field::tlsRef).value_or(ServerRecord::noTlsRef);
  record.allowed = readAllowed(command);
  return record;
}
