#include "services/hotspotd/record.h"

#include <algorithm>
#include <array>
#include <vector>

#include "services/common/known_fields.h"

namespace hotspot {
namespace {

using service::checkKnown;
using service::keyOf;

constexpr std::uint32_t defaultPort = 8090;
constexpr std::uint32_t loopbackNet = 0x7f000000;
constexpr std::uint32_t loopbackMask = 0xff000000;
constexpr std::uint32_t addressBits = 128;

constexpr std::array recordKeys = {keyOf(field::name),    keyOf(field::port),      keyOf(field::tlsRef),
                                   keyOf(field::allowed), keyOf(field::lastError), keyOf(field::applied)};
constexpr std::array prefixKeys = {keyOf(prefix_field::ipv4), keyOf(prefix_field::ipv4Mask), keyOf(prefix_field::ipv6),
                                   keyOf(prefix_field::ipv6Length)};

Problem checkPrefix(const tn::message& element) {
  if (Problem problem = checkKnown(element, prefixKeys)) return problem;
  const bool ipv4 = element.has(prefix_field::ipv4) && element.has(prefix_field::ipv4Mask);
  const bool ipv6 = element.has(prefix_field::ipv6) && element.has(prefix_field::ipv6Length);
  if (ipv4 == ipv6) return "a prefix has fields 1 and 2, or 3 and 4";
  if (ipv6 && element.get(prefix_field::ipv6Length).value_or(0) > addressBits) return "a prefix has at most 128 bits";
  return std::nullopt;
}

Problem checkAllowed(const tn::message& record) {
  const auto allowed = record.get(field::allowed);
  if (!allowed) return "who may connect (messages 6) is missing";
  if (allowed->size() > maxPrefixes) return "at most " + std::to_string(maxPrefixes) + " prefixes can be allowed";
  for (const tn::message& element : *allowed) {
    if (Problem problem = checkPrefix(element)) return problem;
  }
  return std::nullopt;
}

bool isPrintable(char c) {
  return c >= ' ' && c <= '~';
}

template <tn::FieldType T>
void take(tn::message& record, const tn::message& given, tn::FieldId<T> id) {
  if (const auto value = given.get(id)) record.insert(id, *value);
}

}  // namespace

Problem checkRecord(const tn::message& record) {
  if (Problem problem = checkFields(record)) return problem;
  const std::string_view name = nameOf(record);
  if (name.empty() || name.size() > maxNameBytes || !std::ranges::all_of(name, isPrintable)) {
    return "the name (string 1) has 1 to " + std::to_string(maxNameBytes) + " printable ASCII characters";
  }
  const std::uint32_t port = record.get(field::port).value_or(0);
  if (port == 0 || port > maxPort) return "the port (u32 2) is 1 to " + std::to_string(maxPort);
  return checkAllowed(record);
}

tn::message recordFrom(const tn::message& base, const tn::message& given) {
  tn::message record;
  for (const tn::message* source : {&base, &given}) {
    take(record, *source, field::name);
    take(record, *source, tn::field::disabled);
    take(record, *source, field::port);
    take(record, *source, field::tlsRef);
    if (const auto allowed = source->get(field::allowed)) record.insert_vector(field::allowed, *allowed);
  }
  return record;
}

Problem checkFields(const tn::message& given) {
  return checkKnown(given, recordKeys);
}

std::string_view nameOf(const tn::message& record) {
  return record.get(field::name).value_or(std::string_view());
}

tn::message defaultRecord() {
  tn::Addr6 loopback{};
  loopback.back() = 1;
  std::vector<tn::message> allowed(2);
  allowed[0].insert(prefix_field::ipv4, loopbackNet);
  allowed[0].insert(prefix_field::ipv4Mask, loopbackMask);
  allowed[1].insert(prefix_field::ipv6, loopback);
  allowed[1].insert(prefix_field::ipv6Length, addressBits);
  tn::message record;
  record.insert(field::name, "hotspot");
  record.insert(field::port, defaultPort);
  record.insert_vector(field::allowed, allowed);
  return record;
}

}  // namespace hotspot
