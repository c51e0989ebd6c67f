// The reading half of tn::message: where a field ends, whether a flattened message is well formed, and what a field
// holds.

#include <algorithm>

#include "platform/bus/message.h"
#include "platform/byte_order.h"

namespace tn {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint16_t magicNumber = 0x324D;
constexpr std::uint32_t reservedBits = 0x06000000;
constexpr std::size_t headerBytes = 4;
constexpr std::size_t lengthBytes = 2;

bool isShort(Bytes field) {
  return (loadLe32(field.data()) & shortFlag) != 0;
}

// Length of a string, raw value or nested message with all that stands before it.
std::size_t sizedLength(Bytes rest) {
  const std::size_t prefix = headerBytes + (isShort(rest) ? 1 : lengthBytes);
  if (rest.size() < prefix) return 0;
  return prefix + (isShort(rest) ? rest[headerBytes] : loadLe16(rest.data() + headerBytes));
}

std::size_t fixedArrayLength(Bytes rest, std::size_t elementBytes) {
  if (rest.size() < headerBytes + lengthBytes) return 0;
  return headerBytes + lengthBytes + loadLe16(rest.data() + headerBytes) * elementBytes;
}

// Of an array of elements that each have a length of their own.
std::size_t sizedArrayLength(Bytes rest) {
  if (rest.size() < headerBytes + lengthBytes) return 0;
  std::size_t at = headerBytes + lengthBytes;
  for (unsigned left = loadLe16(rest.data() + headerBytes); left > 0; --left) {
    if (rest.size() - at < lengthBytes) return 0;
    const std::size_t length = loadLe16(rest.data() + at);
    at += lengthBytes;
    if (rest.size() - at < length) return 0;
    at += length;
  }
  return at;
}

// What the field says to be its length; 0 when that cannot be told. The caller compares it with what is there.
std::size_t claimedLength(Bytes rest, FieldType type) {
  switch (type) {
    case FieldType::boolean:
      return headerBytes;
    case FieldType::u32:
      return headerBytes + (isShort(rest) ? 1 : 4);
    case FieldType::u64:
      return headerBytes + 8;
    case FieldType::addr6:
      return headerBytes + sizeof(Addr6);
    case FieldType::string:
    case FieldType::message:
    case FieldType::raw:
      return sizedLength(rest);
    case FieldType::booleanArray:
      return fixedArrayLength(rest, 1);
    case FieldType::u32Array:
      return fixedArrayLength(rest, 4);
    case FieldType::u64Array:
      return fixedArrayLength(rest, 8);
    case FieldType::addr6Array:
      return fixedArrayLength(rest, sizeof(Addr6));
    case FieldType::stringArray:
    case FieldType::messageArray:
    case FieldType::rawArray:
      return sizedArrayLength(rest);
  }
  return 0;
}

// Bytes of a string, raw value or nested message.
Bytes sizedValue(Bytes field) {
  return field.subspan(headerBytes + (isShort(field) ? 1 : lengthBytes));
}

std::size_t elementCount(Bytes field) {
  return loadLe16(field.data() + headerBytes);
}

// Calls visit(element) with the bytes of each element of a checked array.
template <typename Visitor>
void forEachFixed(Bytes field, std::size_t elementBytes, Visitor visit) {
  for (Bytes rest = field.subspan(headerBytes + lengthBytes); !rest.empty(); rest = rest.subspan(elementBytes)) {
    visit(rest.first(elementBytes));
  }
}

template <typename Visitor>
void forEachSized(Bytes field, Visitor visit) {
  for (Bytes rest = field.subspan(headerBytes + lengthBytes); !rest.empty();) {
    const std::size_t length = loadLe16(rest.data());
    visit(rest.subspan(lengthBytes, length));
    rest = rest.subspan(lengthBytes + length);
  }
}

Addr6 addressAt(Bytes bytes) {
  Addr6 address;
  std::copy_n(bytes.begin(), address.size(), address.begin());
  return address;
}

std::string_view textOf(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::size_t message::fieldLength(Bytes rest) {
  if (rest.size() < headerBytes) return 0;
  const std::uint32_t header = loadLe32(rest.data());
  if ((header & reservedBits) != 0) return 0;
  const std::size_t length = claimedLength(rest, FieldType{header & typeMask});
  return length <= rest.size() ? length : 0;
}

message::Field message::fieldAt(Bytes rest) {
  const std::uint32_t header = loadLe32(rest.data());
  return {FieldType{header & typeMask}, header & idMask, rest.first(fieldLength(rest))};
}

// `nesting` is how many messages the one with these fields stands in.
bool message::validFields(Bytes fields, unsigned nesting) {
  if (nesting > maxNesting) return false;
  while (!fields.empty()) {
    if (fieldLength(fields) == 0) return false;
    const Field field = fieldAt(fields);
    if (!validNested(field, nesting + 1)) return false;
    fields = fields.subspan(field.bytes.size());
  }
  return true;
}

bool message::validNested(const Field& field, unsigned nesting) {
  if (field.type == FieldType::message) return validElement(sizedValue(field.bytes), nesting);
  if (field.type != FieldType::messageArray) return true;
  bool valid = true;
  forEachSized(field.bytes, [&](Bytes element) { valid = valid && validElement(element, nesting); });
  return valid;
}

bool message::validElement(Bytes bytes, unsigned nesting) {
  return bytes.size() >= magicBytes && loadLe16(bytes.data()) == magicNumber &&
         validFields(bytes.subspan(magicBytes), nesting);
}

std::optional<message::Field> message::find(std::uint32_t key) const {
  if ((keyBits_ & bitOf(key)) == 0) return std::nullopt;
  for (std::size_t at = magicBytes; at < bytes_.size();) {
    const Field field = fieldAt(Bytes(bytes_).subspan(at));
    if ((static_cast<std::uint32_t>(field.type) | field.id) == key) return field;
    at += field.bytes.size();
  }
  return std::nullopt;
}

bool message::Field::asBool() const {
  return isShort(bytes);
}

std::uint32_t message::Field::asU32() const {
  return isShort(bytes) ? bytes[headerBytes] : loadLe32(bytes.data() + headerBytes);
}

std::uint64_t message::Field::asU64() const {
  return loadLe64(bytes.data() + headerBytes);
}

Addr6 message::Field::asAddr6() const {
  return addressAt(bytes.subspan(headerBytes));
}

std::string_view message::Field::asString() const {
  return textOf(sizedValue(bytes));
}

message message::Field::asMessage() const {
  return fromValid(sizedValue(bytes));
}

Bytes message::Field::asRaw() const {
  return sizedValue(bytes);
}

std::vector<bool> message::Field::asBools() const {
  std::vector<bool> values;
  values.reserve(elementCount(bytes));
  forEachFixed(bytes, 1, [&](Bytes element) { values.push_back(element[0] != 0); });
  return values;
}

std::vector<std::uint32_t> message::Field::asU32s() const {
  std::vector<std::uint32_t> values;
  values.reserve(elementCount(bytes));
  forEachFixed(bytes, 4, [&](Bytes element) { values.push_back(loadLe32(element.data())); });
  return values;
}

std::vector<std::uint64_t> message::Field::asU64s() const {
  std::vector<std::uint64_t> values;
  values.reserve(elementCount(bytes));
  forEachFixed(bytes, 8, [&](Bytes element) { values.push_back(loadLe64(element.data())); });
  return values;
}

std::vector<Addr6> message::Field::asAddr6s() const {
  std::vector<Addr6> values;
  values.reserve(elementCount(bytes));
  forEachFixed(bytes, sizeof(Addr6), [&](Bytes element) { values.push_back(addressAt(element)); });
  return values;
}

std::vector<std::string> message::Field::asStrings() const {
  std::vector<std::string> values;
  values.reserve(elementCount(bytes));
  forEachSized(bytes, [&](Bytes element) { values.emplace_back(textOf(element)); });
  return values;
}

std::vector<message> message::Field::asMessages() const {
  std::vector<message> values;
  values.reserve(elementCount(bytes));
  forEachSized(bytes, [&](Bytes element) { values.push_back(fromValid(element)); });
  return values;
}

std::vector<std::vector<std::uint8_t>> message::Field::asRaws() const {
  std::vector<std::vector<std::uint8_t>> values;
  values.reserve(elementCount(bytes));
  forEachSized(bytes, [&](Bytes element) { values.emplace_back(element.begin(), element.end()); });
  return values;
}

namespace {

// What `as` makes of the field, or nothing when there is none.
template <typename Value>
std::optional<Value> valueOf(const std::optional<message::Field>& field, Value (message::Field::*as)() const) {
  if (!field) return std::nullopt;
  return (*field.*as)();
}

template <FieldType T>
constexpr std::uint32_t keyOf(FieldId<T> id) {
  return static_cast<std::uint32_t>(T) | id.id;
}

}  // namespace

std::optional<bool> message::get(bool_id id) const {
  return valueOf(find(keyOf(id)), &Field::asBool);
}
std::optional<std::uint32_t> message::get(u32_id id) const {
  return valueOf(find(keyOf(id)), &Field::asU32);
}
std::optional<std::uint64_t> message::get(u64_id id) const {
  return valueOf(find(keyOf(id)), &Field::asU64);
}
std::optional<Addr6> message::get(addr6_id id) const {
  return valueOf(find(keyOf(id)), &Field::asAddr6);
}
std::optional<std::string_view> message::get(string_id id) const {
  return valueOf(find(keyOf(id)), &Field::asString);
}
std::optional<message> message::get(message_id id) const {
  return valueOf(find(keyOf(id)), &Field::asMessage);
}
std::optional<Bytes> message::get(raw_id id) const {
  return valueOf(find(keyOf(id)), &Field::asRaw);
}

std::optional<std::vector<bool>> message::get(bool_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asBools);
}
std::optional<std::vector<std::uint32_t>> message::get(u32_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asU32s);
}
std::optional<std::vector<std::uint64_t>> message::get(u64_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asU64s);
}
std::optional<std::vector<Addr6>> message::get(addr6_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asAddr6s);
}
std::optional<std::vector<std::string>> message::get(string_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asStrings);
}
std::optional<std::vector<message>> message::get(message_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asMessages);
}
std::optional<std::vector<std::vector<std::uint8_t>>> message::get(raw_array_id id) const {
  return valueOf(find(keyOf(id)), &Field::asRaws);
}

}  // namespace tn
