#include "services/hotspotd/form.h"

#include <algorithm>
#include <charconv>

namespace hotspot {
namespace {

std::optional<std::string> decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i] == '+' ? ' ' : text[i]);
      continue;
    }
    const std::string_view digits = text.substr(i + 1, 2);
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) return std::nullopt;
    out.push_back(static_cast<char>(value));
    i += 2;
  }
  return out;
}

}  // namespace

std::optional<std::string> formField(std::string_view form, std::string_view name) {
  std::optional<std::string> found;
  while (!form.empty()) {
    const std::string_view pair = form.substr(0, form.find('&'));
    form.remove_prefix(std::min(pair.size() + 1, form.size()));
    const std::size_t equals = std::min(pair.find('='), pair.size());
    const auto key = decode(pair.substr(0, equals));
    const auto value = decode(pair.substr(std::min(equals + 1, pair.size())));
    if (!key || !value) return std::nullopt;
    if (!found && *key == name) found = value;
  }
  return found.value_or(std::string());
}

}  // namespace hotspot
