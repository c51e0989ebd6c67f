#include "platform/bus/message.h"

#include <algorithm>
#include <cstring>
#include <functional>

#include "platform/byte_order.h"

namespace tn {

namespace {

constexpr std::uint8_t magic[] = {0x4D, 0x32};
constexpr std::size_t headerBytes = 4;
constexpr std::size_t lengthBytes = 2;
constexpr std::size_t largestShort = 255;
// What the first insert reserves, so that a usual message is built with one allocation.
constexpr std::size_t usualBytes = 128;

template <FieldType T>
constexpr std::uint32_t keyOf(FieldId<T> id) {
  return static_cast<std::uint32_t>(T) | id.id;
}

constexpr std::uint32_t keyOf(const message::Field& field) {
  return static_cast<std::uint32_t>(field.type) | field.id;
}

// Appends the elements of a string, raw or message array, each behind its length. False when one is too long or all
// together can fit no message.
template <typename Elements, typename BytesOf>
bool collectElements(const Elements& elements, std::vector<std::uint8_t>& out, BytesOf bytesOf) {
  for (const auto& element : elements) {
    const auto bytes = bytesOf(element);
    if (bytes.size() > message::maxValueBytes || out.size() > message::maxFlattenedBytes) return false;
    std::uint8_t length[lengthBytes];
    storeLe16(length, static_cast<std::uint16_t>(bytes.size()));
    out.insert(out.end(), length, length + lengthBytes);
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
  return true;
}

}  // namespace

std::uint8_t* message::makeRoom(std::uint32_t header, std::size_t payloadBytes) {
  const std::optional<Field> old = find(header & (typeMask | idMask));
  const std::size_t oldBytes = old ? old->bytes.size() : 0;
  const std::size_t newBytes = headerBytes + payloadBytes;
  if (flattened().size() - oldBytes + newBytes > maxFlattenedBytes) return nullptr;
  keyBits_ |= bitOf(header & (typeMask | idMask));
  if (bytes_.empty()) {
    bytes_.reserve(usualBytes);
    bytes_.assign(std::begin(magic), std::end(magic));
  }
  const std::size_t at = old ? static_cast<std::size_t>(old->bytes.data() - bytes_.data()) : bytes_.size();
  const auto position = bytes_.begin() + static_cast<std::ptrdiff_t>(at);
  if (newBytes > oldBytes) {
    bytes_.insert(position, newBytes - oldBytes, 0);
  } else {
    bytes_.erase(position, position + static_cast<std::ptrdiff_t>(oldBytes - newBytes));
  }
  storeLe32(bytes_.data() + at, header);
  return bytes_.data() + at + headerBytes;
}

bool message::insertBytes(std::uint32_t key, std::span<const std::uint8_t> value) {
  if (value.size() > maxValueBytes) return false;
  // A view of this very message would be moved away while room is made for its copy.
  std::vector<std::uint8_t> copy;
  const std::less<const std::uint8_t*> before;
  if (!before(value.data(), bytes_.data()) && before(value.data(), bytes_.data() + bytes_.size())) {
    copy.assign(value.begin(), value.end());
    value = copy;
  }
  const bool isShort = value.size() <= largestShort;
  std::uint8_t* p = makeRoom(key | (isShort ? shortFlag : 0), value.size() + (isShort ? 1 : lengthBytes));
  if (p == nullptr) return false;
  if (isShort) {
    *p++ = static_cast<std::uint8_t>(value.size());
  } else {
    storeLe16(p, static_cast<std::uint16_t>(value.size()));
    p += lengthBytes;
  }
  std::copy(value.begin(), value.end(), p);
  return true;
}

bool message::insertElements(std::uint32_t key, std::size_t count, std::span<const std::uint8_t> elements) {
  std::uint8_t* p = makeRoom(key, lengthBytes + elements.size());
  if (p == nullptr) return false;
  storeLe16(p, static_cast<std::uint16_t>(count));
  std::copy(elements.begin(), elements.end(), p + lengthBytes);
  return true;
}

bool message::insert(bool_id id, bool value) {
  return makeRoom(keyOf(id) | (value ? shortFlag : 0), 0) != nullptr;
}

bool message::insert(u32_id id, std::uint32_t value) {
  const bool isShort = value <= largestShort;
  std::uint8_t* p = makeRoom(keyOf(id) | (isShort ? shortFlag : 0), isShort ? 1 : 4);
  if (p == nullptr) return false;
  if (isShort) {
    *p = static_cast<std::uint8_t>(value);
  } else {
    storeLe32(p, value);
  }
  return true;
}

bool message::insert(u64_id id, std::uint64_t value) {
  std::uint8_t* p = makeRoom(keyOf(id), 8);
  if (p == nullptr) return false;
  storeLe64(p, value);
  return true;
}

bool message::insert(addr6_id id, const Addr6& value) {
  std::uint8_t* p = makeRoom(keyOf(id), value.size());
  if (p == nullptr) return false;
  std::copy(value.begin(), value.end(), p);
  return true;
}

bool message::insert(string_id id, std::string_view value) {
  return insertBytes(keyOf(id), {reinterpret_cast<const std::uint8_t*>(value.data()), value.size()});
}

bool message::insert(message_id id, const message& value) {
  return validElement(value.flattened(), 1) && insertBytes(keyOf(id), value.flattened());
}

bool message::insert(raw_id id, std::span<const std::uint8_t> value) {
  return insertBytes(keyOf(id), value);
}

bool message::insert_vector(bool_array_id id, std::span<const std::uint8_t> values) {
  if (values.size() > maxValueBytes) return false;
  std::vector<std::uint8_t> elements(values.size());
  std::transform(values.begin(), values.end(), elements.begin(),
                 [](std::uint8_t value) { return static_cast<std::uint8_t>(value != 0 ? 1 : 0); });
  return insertElements(keyOf(id), values.size(), elements);
}

bool message::insert_vector(u32_array_id id, std::span<const std::uint32_t> values) {
  if (values.size() > maxValueBytes) return false;
  std::uint8_t* p = makeRoom(keyOf(id), lengthBytes + values.size() * 4);
  if (p == nullptr) return false;
  storeLe16(p, static_cast<std::uint16_t>(values.size()));
  p += lengthBytes;
  for (const std::uint32_t value : values) {
    storeLe32(p, value);
    p += 4;
  }
  return true;
}

bool message::insert_vector(u64_array_id id, std::span<const std::uint64_t> values) {
  if (values.size() > maxValueBytes) return false;
  std::uint8_t* p = makeRoom(keyOf(id), lengthBytes + values.size() * 8);
  if (p == nullptr) return false;
  storeLe16(p, static_cast<std::uint16_t>(values.size()));
  p += lengthBytes;
  for (const std::uint64_t value : values) {
    storeLe64(p, value);
    p += 8;
  }
  return true;
}

bool message::insert_vector(addr6_array_id id, std::span<const Addr6> values) {
  if (values.size() > maxValueBytes) return false;
  std::uint8_t* p = makeRoom(keyOf(id), lengthBytes + values.size() * sizeof(Addr6));
  if (p == nullptr) return false;
  storeLe16(p, static_cast<std::uint16_t>(values.size()));
  p += lengthBytes;
  for (const Addr6& value : values)
    p = std::copy(value.begin(), value.end(), p);
  return true;
}

bool message::insert_vector(string_array_id id, std::span<const std::string> values) {
  if (values.size() > maxValueBytes) return false;
  std::vector<std::uint8_t> elements;
  return collectElements(values, elements, [](const std::string& value) { return std::string_view(value); }) &&
         insertElements(keyOf(id), values.size(), elements);
}

bool message::insert_vector(message_array_id id, std::span<const message> values) {
  if (values.size() > maxValueBytes) return false;
  if (!std::all_of(values.begin(), values.end(), [](const message& m) { return validElement(m.flattened(), 1); })) {
    return false;
  }
  std::vector<std::uint8_t> elements;
  return collectElements(values, elements, [](const message& value) { return value.flattened(); }) &&
         insertElements(keyOf(id), values.size(), elements);
}

bool message::insert_vector(raw_array_id id, std::span<const std::vector<std::uint8_t>> values) {
  if (values.size() > maxValueBytes) return false;
  std::vector<std::uint8_t> elements;
  return collectElements(values, elements, [](const auto& value) { return std::span(value); }) &&
         insertElements(keyOf(id), values.size(), elements);
}

std::optional<std::uint32_t> message::popFront(u32_array_id id) {
  const std::optional<Field> field = find(keyOf(id));
  if (!field) return std::nullopt;
  std::uint8_t* count = bytes_.data() + (field->bytes.data() - bytes_.data()) + headerBytes;
  const std::uint16_t elements = loadLe16(count);
  if (elements == 0) return std::nullopt;
  const std::uint32_t first = loadLe32(count + lengthBytes);
  storeLe16(count, static_cast<std::uint16_t>(elements - 1));
  const auto position = bytes_.begin() + (count + lengthBytes - bytes_.data());
  bytes_.erase(position, position + 4);
  return first;
}

bool message::pushFront(u32_array_id id, std::uint32_t element) {
  const std::optional<Field> field = find(keyOf(id));
  if (!field) return insert_vector(id, std::span(&element, 1));
  const std::uint16_t elements = loadLe16(field->bytes.data() + headerBytes);
  if (elements == maxValueBytes || bytes_.size() + 4 > maxFlattenedBytes) return false;
  const auto at = field->bytes.data() - bytes_.data() + static_cast<std::ptrdiff_t>(headerBytes);
  bytes_.insert(bytes_.begin() + at + lengthBytes, 4, 0);
  storeLe16(bytes_.data() + at, static_cast<std::uint16_t>(elements + 1));
  storeLe32(bytes_.data() + at + lengthBytes, element);
  return true;
}

bool message::erase(std::uint32_t key) {
  const std::optional<Field> field = find(key);
  if (!field) return false;
  const auto position = bytes_.begin() + (field->bytes.data() - bytes_.data());
  bytes_.erase(position, position + static_cast<std::ptrdiff_t>(field->bytes.size()));
  if (bytes_.size() == magicBytes) bytes_.clear();
  return true;
}

std::span<const std::uint8_t> message::flattened() const {
  return bytes_.empty() ? std::span<const std::uint8_t>(magic) : bytes_;
}

std::size_t message::flatten(std::vector<std::uint8_t>& out) const {
  const auto bytes = flattened();
  out.assign(bytes.begin(), bytes.end());
  return bytes.size();
}

std::size_t message::flatten(std::span<std::uint8_t> out) const {
  const auto bytes = flattened();
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return bytes.size();
}

bool message::unflatten(std::span<const std::uint8_t> bytes) {
  // Nothing of this message is touched before the end: `bytes` may be a part of it.
  const bool good =
      bytes.size() >= magicBytes && bytes.size() <= maxFlattenedBytes &&
      (std::equal(std::begin(magic), std::end(magic), bytes.begin()) || loadBe16(bytes.data()) == bytes.size()) &&
      validFields(bytes.subspan(magicBytes), 0);
  *this = good ? fromValid(bytes) : message();
  return good;
}

message message::fromValid(std::span<const std::uint8_t> bytes) {
  message result;
  if (bytes.size() == magicBytes) return result;
  result.bytes_.assign(bytes.begin(), bytes.end());
  std::copy(std::begin(magic), std::end(magic), result.bytes_.begin());
  if (result.noteKeys()) result.dropRepeatedKeys();
  return result;
}

bool message::noteKeys() {
  std::array<std::uint32_t, 32> seen;
  std::size_t count = 0;
  bool may = false;
  forEach([&](const Field& field) {
    const std::uint32_t key = keyOf(field);
    const auto end = seen.begin() + static_cast<std::ptrdiff_t>(count);
    const bool fresh = (keyBits_ & bitOf(key)) == 0;
    keyBits_ |= bitOf(key);
    // A message with more keys than this is left to the sorting of dropRepeatedKeys.
    if (may || count == seen.size() || (!fresh && std::find(seen.begin(), end, key) != end)) {
      may = true;
      return;
    }
    seen[count++] = key;
  });
  return may;
}

void message::dropRepeatedKeys() {
  // Sorted rather than searched: a hostile message holds a million fields.
  struct Kept {
    std::uint32_t key;
    std::size_t place;  // where the key came first
    std::span<const std::uint8_t> bytes;
  };
  std::vector<Kept> fields;
  forEach([&](const Field& field) {
    fields.push_back({keyOf(field), static_cast<std::size_t>(field.bytes.data() - bytes_.data()), field.bytes});
  });
  std::stable_sort(fields.begin(), fields.end(), [](const Kept& a, const Kept& b) { return a.key < b.key; });
  std::size_t kept = 0;
  for (const Kept& field : fields) {
    if (kept > 0 && fields[kept - 1].key == field.key) {
      fields[kept - 1].bytes = field.bytes;
    } else {
      fields[kept++] = field;
    }
  }
  if (kept == fields.size()) return;
  fields.resize(kept);
  std::sort(fields.begin(), fields.end(), [](const Kept& a, const Kept& b) { return a.place < b.place; });
  std::vector<std::uint8_t> bytes(std::begin(magic), std::end(magic));
  for (const Kept& field : fields)
    bytes.insert(bytes.end(), field.bytes.begin(), field.bytes.end());
  bytes_.swap(bytes);
}

}  // namespace tn
