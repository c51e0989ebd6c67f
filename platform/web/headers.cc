#include "platform/web/headers.h"

#include <algorithm>
#include <charconv>

#include "platform/web/ascii.h"
#include "platform/web/authority.h"
#include "platform/web/functions.h"

namespace {

// Room made at the first field, so that a short request or response costs one allocation each and no growing in steps.
constexpr std::size_t firstBytes = 256;
constexpr std::size_t firstFields = 8;

constexpr std::size_t longestKeptHost = 255;

constexpr std::string_view separator = ": ";
constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view joint = ", ";

// The connection takes a length of 2^32 - 1 for "unknown".
constexpr unsigned unknownLength = 0xFFFFFFFF;

// Field content (RFC 9110, 5.5): visible characters, blanks, and the bytes above US-ASCII that old clients send.
constexpr ascii::CharSet valueChars{[](char c) { return !ascii::isControl(c) || c == '\t'; }};

// Nearly all requests name the same host: the last one that was found to be good need not be looked at again.
bool isHost(std::string_view text) {
  static std::string last;
  if (text == last) return true;
  if (!isAuthority(text)) return false;
  if (text.size() <= longestKeptHost) last.assign(text);
  return true;
}

}  // namespace

std::string_view Headers::nameAt(std::size_t i) const {
  const Entry& entry = fields_->entries[i];
  return {fields_->text.data() + entry.offset, entry.nameLength};
}

std::string_view Headers::valueAt(std::size_t i) const {
  const Entry& entry = fields_->entries[i];
  const std::size_t begin = entry.offset + entry.nameLength + separator.size();
  return {fields_->text.data() + begin, endOf(i) - lineEnd.size() - begin};
}

std::size_t Headers::search(std::string_view name, std::size_t from, std::size_t limit) const {
  const std::size_t count = size();
  const std::size_t end = std::min(limit, count);
  for (std::size_t i = from; i < end; ++i) {
    if (fields_->entries[i].nameLength == name.size() && ascii::equalsIgnoreCase(nameAt(i), name)) return i;
  }
  return count;
}

std::unique_ptr<Headers::Fields> Headers::makeFields() {
  auto fields = std::make_unique<Fields>();
  fields->text.reserve(firstBytes);
  fields->entries.reserve(firstFields);
  return fields;
}

void Headers::add(std::string_view name, std::string_view value) {
  if (!fields_) fields_ = makeFields();
  auto& [text, entries, lengths] = *fields_;
  lengths |= lengthBit(name);
  const std::size_t end = text.size();
  const std::size_t grown = end + name.size() + separator.size() + value.size() + lineEnd.size();
  entries.push_back({static_cast<std::uint32_t>(end), static_cast<std::uint32_t>(name.size())});
  // Grown once for all four pieces, each of which is a few bytes: as appends of their own they cost more than their
  // copying.
  text.resize_and_overwrite(grown, [&](char* bytes, std::size_t) {
    char* at = std::copy(name.begin(), name.end(), bytes + end);
    at = std::copy(separator.begin(), separator.end(), at);
    at = std::copy(value.begin(), value.end(), at);
    std::copy(lineEnd.begin(), lineEnd.end(), at);
    return grown;
  });
}

// Lengthens the value of a field; those behind it move up. An empty value is no element of a list and adds nothing.
void Headers::join(std::size_t i, std::string_view value) {
  if (value.empty()) return;
  const std::string_view between = valueAt(i).empty() ? std::string_view() : joint;
  const std::size_t end = endOf(i) - lineEnd.size();
  auto& text = fields_->text;
  auto& entries = fields_->entries;
  text.insert(end, value);
  text.insert(end, between);
  const auto grown = static_cast<std::uint32_t>(value.size() + between.size());
  for (std::size_t k = i + 1; k < entries.size(); ++k)
    entries[k].offset += grown;
}

void Headers::addHeader(std::string_view name, std::string_view value, bool append) {
  if (!append) removeHeader(name);
  add(name, value);
}

void Headers::addHeader(std::string_view name, std::uint64_t value, bool append) {
  char digits[20];
  const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, value);
  addHeader(name, std::string_view(digits, static_cast<std::size_t>(result.ptr - digits)), append);
}

void Headers::removeHeader(std::string_view name) {
  for (std::size_t i = find(name); i < size(); i = find(name, i)) {
    auto& text = fields_->text;
    auto& entries = fields_->entries;
    const std::size_t length = endOf(i) - entries[i].offset;
    text.erase(entries[i].offset, length);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
    for (std::size_t k = i; k < entries.size(); ++k)
      entries[k].offset -= static_cast<std::uint32_t>(length);
  }
}

bool Headers::hasHeader(std::string_view name) const {
  return find(name) < size();
}

std::optional<std::string_view> Headers::getHeader(std::string_view name) const {
  const std::size_t i = find(name);
  if (i == size()) return std::nullopt;
  return valueAt(i);
}

bool Headers::getHeader(std::string_view name, std::string* value) const {
  const std::optional<std::string_view> found = getHeader(name);
  if (found) value->assign(*found);
  return found.has_value();
}

bool Headers::getHeader(std::string_view name, std::uint32_t* value) const {
  const std::optional<std::string_view> found = getHeader(name);
  return found && parseNumber(*found, value);
}

bool Headers::headerHasToken(std::string_view name, std::string_view token) const {
  for (std::size_t i = find(name); i < size(); i = find(name, i + 1)) {
    std::string_view rest = valueAt(i);
    while (!rest.empty()) {
      const std::size_t comma = std::min(rest.find(','), rest.size());
      if (ascii::equalsIgnoreCase(ascii::trimBlanks(rest.substr(0, comma)), token)) return true;
      rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
  }
  return false;
}

bool Headers::parseHeaderLine(std::string_view line) {
  const std::size_t colon = ascii::tokenChars.lengthIn(line);
  if (colon == 0 || colon == line.size() || line[colon] != ':') return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = ascii::trimBlanks(line.substr(colon + 1));

  // Bodies have a length or end with the connection; two ideas of where one ends are how requests are smuggled.
  if (ascii::equalsIgnoreCase(name, "transfer-encoding")) return false;
  if (ascii::equalsIgnoreCase(name, "content-length")) return takeContentLength(name, value);
  if (ascii::equalsIgnoreCase(name, "host")) {
    if (hasHeader(name) || !(value.empty() || isHost(value))) return false;
    add(name, value);
    return true;
  }
  if (!valueChars.hasAll(value)) return false;
  const std::size_t earlier = find(name, 0, searchedFields);
  if (earlier < size()) {
    join(earlier, value);
  } else {
    add(name, value);
  }
  return true;
}

bool Headers::takeContentLength(std::string_view name, std::string_view value) {
  unsigned length = 0;
  if (!parseNumber(value, &length) || length == unknownLength) return false;
  if (const std::optional<std::string_view> earlier = getHeader(name)) {
    unsigned earlierLength = 0;
    return parseNumber(*earlier, &earlierLength) && earlierLength == length;
  }
  add(name, value);
  return true;
}

void Headers::clear() {
  if (!fields_) return;
  if (fields_->text.capacity() > keptBytes || fields_->entries.capacity() > keptFields) {
    fields_.reset();
  } else {
    fields_->text.clear();
    fields_->entries.clear();
    fields_->lengths = 0;
  }
}
