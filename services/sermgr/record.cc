#include "services/sermgr/record.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "services/common/known_fields.h"

namespace sermgr {
namespace {

using service::checkKnown;
using service::keyOf;

// The state of a record may stand in a command, so that a record that was listed can be given back as it is.
constexpr std::array recordKeys = {keyOf(field::name),    keyOf(field::port),      keyOf(field::tlsRef),
                                   keyOf(field::allowed), keyOf(field::lastError), keyOf(field::applied),
                                   keyOf(field::trial)};
constexpr std::array prefixKeys = {keyOf(prefix_field::ipv4), keyOf(prefix_field::ipv4Mask), keyOf(prefix_field::ipv6),
                                   keyOf(prefix_field::ipv6Length)};

Problem readIpv4(const tn::message& element, Prefix& prefix) {
  const auto address = element.get(prefix_field::ipv4);
  const auto mask = element.get(prefix_field::ipv4Mask);
  if (!address || !mask) return "an IPv4 address needs fields 1 and 2";
  const auto length = maskLength(*mask);
  if (!length) return "the bits of an IPv4 mask stand together at its front";
  prefix = Prefix::ofIpv4(*address, *length);
  return std::nullopt;
}

Problem readIpv6(const tn::message& element, Prefix& prefix) {
  const auto address = element.get(prefix_field::ipv6);
  const auto length = element.get(prefix_field::ipv6Length);
  if (!address || !length) return "an IPv6 address needs fields 3 and 4";
  if (*length > 128) return "an IPv6 prefix has 0 to 128 bits";
  prefix = {false, *address, *length};
  return std::nullopt;
}

Problem readPrefix(const tn::message& element, Prefix& prefix) {
  if (Problem problem = checkKnown(element, prefixKeys)) return problem;
  const bool ipv4 = element.has(prefix_field::ipv4) || element.has(prefix_field::ipv4Mask);
  const bool ipv6 = element.has(prefix_field::ipv6) || element.has(prefix_field::ipv6Length);
  if (ipv4 == ipv6) return "either an IPv4 or an IPv6 address is needed";
  return ipv4 ? readIpv4(element, prefix) : readIpv6(element, prefix);
}

Problem readAllowed(const std::vector<tn::message>& elements, std::vector<Prefix>& allowed) {
  if (elements.size() > maxPrefixes) return "at most " + std::to_string(maxPrefixes) + " prefixes can be allowed";
  for (const tn::message& element : elements) {
    Prefix prefix;
    if (const Problem problem = readPrefix(element, prefix)) {
      return "allowed prefix " + std::to_string(allowed.size() + 1) + ": " + *problem;
    }
    allowed.push_back(prefix);
  }
  return std::nullopt;
}

tn::message writePrefix(const Prefix& prefix) {
  tn::message element;
  if (prefix.ipv4) {
    element.insert(prefix_field::ipv4, prefix.ipv4Address());
    element.insert(prefix_field::ipv4Mask, prefix.ipv4Mask());
  } else {
    element.insert(prefix_field::ipv6, prefix.address);
    element.insert(prefix_field::ipv6Length, prefix.length);
  }
  return element;
}

}  // namespace

Problem checkName(std::string_view name) {
  const bool printable = std::ranges::all_of(name, [](char c) { return c >= ' ' && c <= '~'; });
  if (!name.empty() && name.size() <= maxNameBytes && printable) return std::nullopt;
  return "the name (string 1) has 1 to " + std::to_string(maxNameBytes) + " printable ASCII characters";
}

Problem checkPort(std::uint32_t port) {
  if (port != 0 && port <= maxPort) return std::nullopt;
  return "the port (u32 2) is 1 to " + std::to_string(maxPort);
}

Problem checkTrial(const tn::message& command) {
  const std::uint32_t seconds = command.get(field::trial).value_or(1);
  if (seconds != 0 && seconds <= maxTrialSeconds) return std::nullopt;
  return "a trial (u32 12) takes 1 to " + std::to_string(maxTrialSeconds) + " seconds";
}

Problem applyFields(Record& record, const tn::message& command) {
  if (Problem problem = checkKnown(command, recordKeys)) return problem;
  Record changed = record;
  changed.enabled = !command.get(tn::field::disabled).value_or(!record.enabled);
  changed.port = command.get(field::port).value_or(record.port);
  if (Problem problem = checkPort(changed.port)) return problem;
  if (const auto tlsRef = command.get(field::tlsRef)) {
    changed.tlsRef = *tlsRef == noTlsRef ? std::nullopt : tlsRef;
  }
  if (const auto elements = command.get(field::allowed)) {
    changed.allowed.clear();
    if (Problem problem = readAllowed(*elements, changed.allowed)) return problem;
  }
  record = std::move(changed);
  return std::nullopt;
}

void writeRecord(const Record& record, tn::message& msg) {
  msg.insert(field::name, record.name);
  msg.insert(tn::field::disabled, !record.enabled);
  msg.insert(field::port, record.port);
  if (record.tlsRef) msg.insert(field::tlsRef, *record.tlsRef);
  std::vector<tn::message> allowed;
  std::ranges::transform(record.allowed, std::back_inserter(allowed), writePrefix);
  msg.insert_vector(field::allowed, allowed);
}

}  // namespace sermgr
