#include "platform/web/headers.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/web/ascii.h"
#include "platform/web/authority.h"
#include "platform/web/functions.h"

namespace {

// Room made at the first field, so that a short request or response costs one allocation each and no growing in steps.
constexpr std::size_t firstBytes = 256;
constexpr std::size_t firstFields = 8;

constexpr std::size_t longestKeptHostLine = 255;

constexpr std::string_view separator = ": ";
constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view joint = ", ";

// The connection takes a length of 2^32 - 1 for "unknown".
constexpr unsigned unknownLength = 0xFFFFFFFF;

// Field content (RFC 9110, 5.5): visible characters, blanks, and the bytes above US-ASCII that old clients send.
constexpr ascii::CharSet valueChars{[](char c) { return !ascii::isControl(c) || c == '\t'; }};

// A line that holds its field as it is kept: one space behind the colon, and no other blanks around the value.
bool isPlain(std::string_view line, std::string_view name, std::string_view value) {
  return line.size() == name.size() + separator.size() + value.size() && line[name.size() + 1] == ' ';
}

// Nearly all requests name the same host: a line like the last plain one that was found to be good need not be taken
// apart again.
std::string lastHostLine{"Host: "};
constexpr std::size_t hostNameLength = 4;

bool isFieldContent(std::string_view value) {
  return valueChars.lengthIn(value, ascii::lengthOfEights<' '>(value)) == value.size();
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

// Grown once for all pieces, each of which is a few bytes: as appends of their own they cost more than their copying.
char* Headers::makeRoom(std::size_t nameLength, std::size_t valueLength) {
  if (!fields_) fields_ = makeFields();
  auto& [text, entries, lengths] = *fields_;
  lengths |= lengthBit(nameLength);
  const std::size_t begin = text.size();
  const std::size_t length = nameLength + separator.size() + valueLength + lineEnd.size();
  entries.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(nameLength)});
  text.resize_and_overwrite(begin + length, [begin, length](char*, std::size_t) { return begin + length; });
  char* const field = text.data() + begin;
  std::memcpy(field + nameLength, separator.data(), separator.size());
  std::memcpy(field + length - lineEnd.size(), lineEnd.data(), lineEnd.size());
  return field;
}

void Headers::add(std::string_view name, std::string_view value) {
  char* const field = makeRoom(name.size(), value.size());
  std::copy(name.begin(), name.end(), field);
  std::copy(value.begin(), value.end(), field + name.size() + separator.size());
}

// Of a line that isPlain.
void Headers::addPlain(std::string_view line, std::size_t nameLength) {
  char* const field = makeRoom(nameLength, line.size() - nameLength - separator.size());
  std::copy(line.begin(), line.end(), field);
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

void Headers::addHeader(std::string_view name, std::uint64_t value, bool append) {
  char digits[20];
  const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, value);
  addHeader(name, std::string_view(digits, static_cast<std::size_t>(result.ptr - digits)), append);
}

void Headers::removeAll(std::string_view name) {
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

std::optional<std::string_view> Headers::firstValue(std::string_view name) const {
  const std::size_t i = search(name, 0, SIZE_MAX);
  if (i == size()) return std::nullopt;
  return valueAt(i);
}

bool Headers::getHeader(std::string_view name, std::string* value) const {
  const std::optional<std::string_view> found = getHeader(name);
  if (found) value->assign(*found);
  return found.has_value();
}

bool Headers::firstNumber(std::string_view name, std::uint32_t* value) const {
  const std::optional<std::string_view> found = firstValue(name);
  return found && parseNumber(*found, value);
}

bool Headers::holdsToken(std::string_view name, std::string_view token) const {
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
  if (line == lastHostLine) {
    if (hasHeader("host")) return false;
    addPlain(line, hostNameLength);
    return true;
  }
  const std::size_t colon = ascii::tokenChars.lengthIn(line);
  if (colon == 0 || colon == line.size() || line[colon] != ':') return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = ascii::trimBlanks(line.substr(colon + 1));

  // Bodies have a length or end with the connection; two ideas of where one ends are how requests are smuggled.
  if (ascii::equalsIgnoreCase(name, "transfer-encoding")) return false;
  if (ascii::equalsIgnoreCase(name, "content-length")) return takeContentLength(name, value);
  if (ascii::equalsIgnoreCase(name, "host")) return takeHost(line, name, value);
  if (!isFieldContent(value)) return false;
  const std::size_t earlier = find(name, 0, searchedFields);
  if (earlier < size()) {
    join(earlier, value);
  } else if (isPlain(line, name, value)) {
    addPlain(line, name.size());
  } else {
    add(name, value);
  }
  return true;
}

bool Headers::takeHost(std::string_view line, std::string_view name, std::string_view value) {
  if (hasHeader(name) || !(value.empty() || isAuthority(value))) return false;
  if (isPlain(line, name, value) && line.size() <= longestKeptHostLine) lastHostLine.assign(line);
  add(name, value);
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
  auto& [text, entries, lengths] = *fields_;
  if (text.capacity() > keptBytes || entries.capacity() > keptFields) {
    fields_.reset();
  } else {
    text.clear();
    entries.clear();
    lengths = 0;
  }
}
