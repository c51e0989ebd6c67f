// servers: the records of the service manager.

#include <arpa/inet.h>
#include <bit>

#include "tools/fields.h"
#include "tools/table.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::message;

constexpr tn::string_id name{1};
constexpr tn::u32_id port{2};
constexpr tn::u32_id certificate{5};
constexpr tn::message_array_id allowed{6};
constexpr tn::string_id problem{0x10};
constexpr tn::bool_id applied{0x11};
constexpr tn::message_array_id records{1};
constexpr tn::u32_id ipv4{1};
constexpr tn::u32_id ipv4Mask{2};
constexpr tn::addr6_id ipv6{3};
constexpr tn::u32_id ipv6Length{4};
constexpr std::uint32_t noCertificate = 0xffffffff;

tn::Addr6 mapped(std::uint32_t address) {
  tn::Addr6 bytes{};
  bytes[10] = bytes[11] = 0xff;
  for (unsigned i = 0; i < 4; ++i)
    bytes[12 + i] = static_cast<std::uint8_t>(address >> (24 - 8 * i));
  return bytes;
}

std::string prefixText(const message& prefix) {
  if (const auto address = prefix.get(ipv6)) {
    return addressText(*address) + '/' + decimal(numberOf(prefix, ipv6Length));
  }
  const auto mask = prefix.get(ipv4Mask).value_or(0);
  return addressText(mapped(prefix.get(ipv4).value_or(0))) + '/' + decimal(static_cast<unsigned>(std::popcount(mask)));
}

std::string allowedText(const message& record) {
  std::string out;
  for (const message& prefix : messagesOf(record, allowed))
    out.append(out.empty() ? "" : ", ").append(prefixText(prefix));
  return out.empty() ? "everyone" : out;
}

// 10.0.0.0/8, fe80::/10, or an address alone.
std::optional<message> readPrefix(std::string_view text) {
  const std::string address(text.substr(0, text.find('/')));
  const bool hasLength = address.size() < text.size();
  const auto length = wholeNumber32(hasLength ? text.substr(address.size() + 1) : "0x80");
  message prefix;
  in_addr four{};
  if (::inet_pton(AF_INET, address.c_str(), &four) == 1) {
    constexpr std::uint32_t whole = 32;
    const std::uint32_t bits = hasLength ? length.value_or(whole + 1) : whole;
    if (bits > whole) return std::nullopt;
    const std::uint32_t mask = bits == 0 ? 0 : ~std::uint32_t{0} << (whole - bits);
    prefix.insert(ipv4, loadBe32(reinterpret_cast<const std::uint8_t*>(&four)));
    prefix.insert(ipv4Mask, mask);
    return prefix;
  }
  tn::Addr6 six{};
  if (!length || *length > 128 || ::inet_pton(AF_INET6, address.c_str(), six.data()) != 1) return std::nullopt;
  prefix.insert(ipv6, six);
  prefix.insert(ipv6Length, *length);
  return prefix;
}

// An empty list is for everyone, and an empty word is no such list: where a variable of a script is empty, nothing is
// to be opened.
std::optional<std::string> readAllowed(std::string_view text, message& record) {
  std::vector<message> prefixes;
  bool isMore = text != "everyone";
  while (isMore) {
    const std::string_view one = text.substr(0, text.find(','));
    const auto prefix = readPrefix(one);
    if (!prefix) return "allowed needs prefixes such as 10.0.0.0/8,fe80::/10 or everyone, not " + quoted(one);
    prefixes.push_back(*prefix);
    isMore = one.size() < text.size();
    text.remove_prefix(isMore ? one.size() + 1 : 0);
  }
  record.insert_vector(allowed, prefixes);
  return std::nullopt;
}

// One word of what is to be set; what is wrong with it, or nothing.
std::optional<std::string> readSetting(std::string_view word, message& record) {
  const std::size_t equals = word.find('=');
  const std::string_view key = word.substr(0, equals);
  if (equals == std::string_view::npos) return quoted(word) + " is not of the kind port=8081";
  const std::string_view value = word.substr(equals + 1);
  if (key == "port") {
    const auto number = wholeNumber32(value);
    if (!number || *number == 0 || *number > 65535) return "port needs a number from 1 to 65535, not " + quoted(value);
    record.insert(port, *number);
    return std::nullopt;
  }
  if (key == "enabled") {
    const auto on = readBool(value);
    if (!on) return "enabled needs yes or no, not " + quoted(value);
    record.insert(tn::field::disabled, !*on);
    return std::nullopt;
  }
  if (key == "tls") {
    const auto reference = value == "no" ? noCertificate : wholeNumber32(value);
    if (!reference) return "tls needs the number of a certificate or no, not " + quoted(value);
    record.insert(certificate, *reference);
    return std::nullopt;
  }
  if (key == "allowed") return readAllowed(value, record);
  return "a server has port, enabled, tls and allowed, not " + quoted(key);
}

ExitStatus listServers(Context& context, const HandlerShape& manager) {
  if (context.bus() == nullptr) return ExitStatus::unreachable;
  const message answer = context.ask(manager, tn::command::getAll);
  if (tn::isError(answer)) return context.fail(answer);
  Output& out = context.output();
  if (!out.isReadable()) {
    const tn::FieldNames* const names = commandOf(&manager, tn::command::get)->out;
    for (const message& record : messagesOf(answer, records))
      out.show(record, names);
    return ExitStatus::done;
  }
  using enum Table::Column;
  Table table{{"name", cut}, {"state", text}, {"port", number}, {"tls", text}, {"allowed", cut}, {"error", cut}};
  for (const message& record : messagesOf(answer, records)) {
    const bool isOff = flagOf(record, tn::field::disabled);
    const std::string state = isOff ? "off" : flagOf(record, applied) ? "on" : "waiting";
    const std::uint32_t reference = record.get(certificate).value_or(noCertificate);
    table.add({textOf(record, name), state, decimal(numberOf(record, port)),
               reference == noCertificate ? "no" : decimal(reference), allowedText(record), textOf(record, problem)});
  }
  out.print(table.text(out.width(), out.colours()));
  return ExitStatus::done;
}

ExitStatus change(Context& context, const HandlerShape& manager, std::uint32_t command) {
  message record;
  if (!record.insert(name, context.operand(1))) return context.failUsage("the name is too long");
  for (const std::string_view word : std::span(context.arguments().operands).subspan(2)) {
    if (const auto error = readSetting(word, record)) return context.failUsage(*error);
  }
  if (context.bus() == nullptr) return ExitStatus::unreachable;
  const message answer = context.ask(manager, command, record);
  if (tn::isError(answer)) return context.fail(answer);
  const std::string reason = textOf(answer, problem);
  if (reason.empty()) return ExitStatus::done;
  return context.fail(ExitStatus::refused, "the record is stored, but not applied: " + reason);
}

}  // namespace

ExitStatus servers(Context& context) {
  const HandlerShape& manager = *handlerNamed("sermgr", "servers");
  const std::size_t count = context.operandCount();
  if (count == 0 || (count == 1 && context.operand(0) == "list")) return listServers(context, manager);
  const std::string_view what = context.operand(0);
  if (what == "set" && count > 2) return change(context, manager, tn::command::set);
  if (what == "add" && count > 1) return change(context, manager, tn::command::addObj);
  if (what == "remove" && count == 2) return change(context, manager, tn::command::removeObj);
  return context.failUsage("usage: tn " + std::string(findVerb(allVerbs(), "servers")->usage));
}

}  // namespace tool::verbs
