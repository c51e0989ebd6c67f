#include "tools/units.h"

#include <arpa/inet.h>
#include <cstdio>
#include <ctime>

#include "platform/bus/text.h"
#include "platform/log.h"

namespace tool {

namespace {

constexpr std::uint64_t second = 1000;
constexpr std::uint64_t minute = 60 * second;
constexpr std::uint64_t hour = 60 * minute;
constexpr std::uint64_t day = 24 * hour;

std::string inUnits(std::uint64_t value, const char* unit) {
  return decimal(value).append(" ").append(unit);
}

}  // namespace

std::string decimal(std::uint64_t value) {
  return std::string(std::string_view(NumberText(value)));
}

std::string durationText(std::uint64_t milliseconds) {
  if (milliseconds < second) return inUnits(milliseconds, "ms");
  if (milliseconds < minute) return inUnits(milliseconds / second, "s");
  if (milliseconds < hour) return inUnits(milliseconds / minute, "min");
  if (milliseconds < day) {
    return inUnits(milliseconds / hour, "h ") + inUnits(milliseconds % hour / minute, "min");
  }
  return inUnits(milliseconds / day, "d ") + inUnits(milliseconds % day / hour, "h");
}

std::string bytesText(std::uint64_t bytes) {
  constexpr std::uint64_t step = 1024;
  if (bytes < step) return decimal(bytes);
  constexpr std::string_view units = "KMGTPE";
  std::size_t unit = 0;
  std::uint64_t tenths = bytes * 10 / step;
  if (bytes > UINT64_MAX / 10) tenths = bytes / step * 10;
  for (; tenths >= step * 10 && unit + 1 < units.size(); ++unit)
    tenths /= step;
  std::string out = decimal(tenths / 10);
  if (tenths < 100) out.append(".").append(decimal(tenths % 10));
  return out + units[unit];
}

std::string timeText(std::uint64_t milliseconds) {
  const auto seconds = static_cast<std::time_t>(milliseconds / second);
  std::tm parts{};
  if (::gmtime_r(&seconds, &parts) == nullptr) return decimal(milliseconds);
  char text[64];
  const int length = std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03u", parts.tm_year + 1900,
                                   parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                                   static_cast<unsigned>(milliseconds % second));
  return {text, static_cast<std::size_t>(length)};
}

std::string secondsText(std::uint64_t milliseconds) {
  char text[32];
  const int length =
      std::snprintf(text, sizeof text, "%llu.%03u", static_cast<unsigned long long>(milliseconds / second),
                    static_cast<unsigned>(milliseconds % second));
  return {text, static_cast<std::size_t>(length)};
}

std::string addressText(const tn::Addr6& address) {
  char text[INET6_ADDRSTRLEN];
  if (::inet_ntop(AF_INET6, address.data(), text, sizeof text) == nullptr) return {};
  const std::string_view shown = text;
  constexpr std::string_view mapped = "::ffff:";
  const bool isIPv4 = shown.starts_with(mapped) && shown.find('.') != std::string_view::npos;
  return std::string(isIPv4 ? shown.substr(mapped.size()) : shown);
}

std::uint64_t numberOf(const tn::message& msg, tn::u32_id id) {
  return msg.get(id).value_or(0);
}
std::uint64_t numberOf(const tn::message& msg, tn::u64_id id) {
  return msg.get(id).value_or(0);
}
bool flagOf(const tn::message& msg, tn::bool_id id) {
  return msg.get(id).value_or(false);
}
std::string textOf(const tn::message& msg, tn::string_id id) {
  return tn::printableText(msg.get(id).value_or(std::string_view()));
}
std::vector<tn::message> messagesOf(const tn::message& msg, tn::message_array_id id) {
  return msg.get(id).value_or(std::vector<tn::message>());
}

}  // namespace tool
