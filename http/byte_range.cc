#include "http/byte_range.h"

#include "platform/web/functions.h"

namespace {

constexpr std::string_view unit = "bytes=";

// "-N": the last N bytes. "-0" is a part as well, an empty one.
std::optional<ByteRange> parseSuffix(std::string_view text, std::uint32_t size) {
  unsigned count = 0;
  if (!parseNumber(text, &count) || count >= size) return std::nullopt;
  return ByteRange{size - count, size - 1};
}

}  // namespace

std::optional<ByteRange> parseRange(std::string_view value, std::uint32_t size) {
  if (!value.starts_with(unit)) return std::nullopt;
  value.remove_prefix(unit.size());
  const std::size_t dash = value.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const std::string_view end = value.substr(dash + 1);
  if (dash == 0) return parseSuffix(end, size);

  unsigned first = 0;
  unsigned last = size - 1;  // of an empty file: beyond it, and so refused below
  if (!parseNumber(value.substr(0, dash), &first)) return std::nullopt;
  if (!end.empty() && !parseNumber(end, &last)) return std::nullopt;
  if (first > last || last >= size) return std::nullopt;
  return ByteRange{first, last};
}
