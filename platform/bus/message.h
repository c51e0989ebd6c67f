#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/field.h"

namespace tn {

// The bus message: a set of typed fields keyed by type and 24-bit id.
//
// A message is held as its flattened bytes (docs/bus-protocol.md), which are valid at every moment: they are built by
// `insert` or have been checked whole by `unflatten`. So flattening is a copy, relaying needs no decoding, and a
// message costs one allocation. Fields stand in the order of insertion; inserting a key that is there replaces its
// value in place.
//
// Views that a getter returns die at the next call that changes the message.
class message {
 public:
  // Largest string, raw value, nested message or array count: lengths have two bytes on the wire.
  static constexpr std::size_t maxValueBytes = 65535;
  // Messages below the outermost one; neither unflatten nor insert makes more, which bounds every recursion.
  static constexpr unsigned maxNesting = 32;
  // Largest flattened message that unflatten accepts and that the bus carries.
  static constexpr std::size_t maxFlattenedBytes = 4U << 20;

  // The message without fields; so is one that was moved from.
  message() = default;

  // Each inserts or replaces one field. The value may be a view of this very message. False, and nothing changed: the
  // value (or an element, or the count) is larger than its length field can say, messages would be nested deeper than
  // maxNesting, or the message would pass maxFlattenedBytes.
  bool insert(bool_id id, bool value);
  bool insert(u32_id id, std::uint32_t value);
  bool insert(u64_id id, std::uint64_t value);
  bool insert(addr6_id id, const Addr6& value);
  bool insert(string_id id, std::string_view value);
  bool insert(message_id id, const message& value);
  bool insert(raw_id id, std::span<const std::uint8_t> value);
  bool insert_vector(bool_array_id id, std::span<const std::uint8_t> values);  // one byte each, non-zero is true
  bool insert_vector(u32_array_id id, std::span<const std::uint32_t> values);
  bool insert_vector(u64_array_id id, std::span<const std::uint64_t> values);
  bool insert_vector(addr6_array_id id, std::span<const Addr6> values);
  bool insert_vector(string_array_id id, std::span<const std::string> values);
  bool insert_vector(message_array_id id, std::span<const message> values);
  bool insert_vector(raw_array_id id, std::span<const std::vector<std::uint8_t>> values);

  // Each returns the field's value, or nothing when there is no field of that key.
  [[nodiscard]] std::optional<bool> get(bool_id id) const;
  [[nodiscard]] std::optional<std::uint32_t> get(u32_id id) const;
  [[nodiscard]] std::optional<std::uint64_t> get(u64_id id) const;
  [[nodiscard]] std::optional<Addr6> get(addr6_id id) const;
  [[nodiscard]] std::optional<std::string_view> get(string_id id) const;
  [[nodiscard]] std::optional<message> get(message_id id) const;
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> get(raw_id id) const;
  [[nodiscard]] std::optional<std::vector<bool>> get(bool_array_id id) const;
  [[nodiscard]] std::optional<std::vector<std::uint32_t>> get(u32_array_id id) const;
  [[nodiscard]] std::optional<std::vector<std::uint64_t>> get(u64_array_id id) const;
  [[nodiscard]] std::optional<std::vector<Addr6>> get(addr6_array_id id) const;
  [[nodiscard]] std::optional<std::vector<std::string>> get(string_array_id id) const;
  [[nodiscard]] std::optional<std::vector<message>> get(message_array_id id) const;
  [[nodiscard]] std::optional<std::vector<std::vector<std::uint8_t>>> get(raw_array_id id) const;

  template <FieldType T>
  [[nodiscard]] bool has(FieldId<T> id) const {
    return find(static_cast<std::uint32_t>(T) | id.id).has_value();
  }
  // Removes the field of that key; false when there was none.
  template <FieldType T>
  bool remove(FieldId<T> id) {
    return erase(static_cast<std::uint32_t>(T) | id.id);
  }

  [[nodiscard]] bool empty() const { return bytes_.empty(); }

  // First element of a path, and the path without it: what a message loses as it travels. nullopt when the field is
  // absent or holds no element; the message is then unchanged. The last element leaves an empty path behind.
  std::optional<std::uint32_t> popFront(u32_array_id id);
  // Puts one element before the others of a path, making the field when it is absent. False as insert.
  bool pushFront(u32_array_id id, std::uint32_t element);

  // The flattened form. `flatten` replaces what `out` held, or writes to a buffer of at least max_length() bytes, and
  // returns the length. `flattened` looks at it without a copy.
  std::size_t flatten(std::vector<std::uint8_t>& out) const;
  std::size_t flatten(std::span<std::uint8_t> out) const;
  [[nodiscard]] std::span<const std::uint8_t> flattened() const;
  // Upper bound of the flattened length; here it is the exact length.
  [[nodiscard]] std::size_t max_length() const { return flattened().size(); }

  // Replaces this message by the one flattened in `bytes`. Strict: the magic, every type code, every length (nested
  // messages included), the nesting depth and the end of the last field are checked. The first two bytes may be the
  // magic or, as the browser tunnel has it, the length of the whole as a big-endian number. A key that comes twice
  // keeps its last value. False, and this message is empty, when anything is wrong.
  [[nodiscard]] bool unflatten(std::span<const std::uint8_t> bytes);

  // One field as it stands in the flattened form: for code that shows or translates whole messages. It is a view of the
  // message. `as...` gives the value; only the one that fits the type may be called.
  struct Field {
    FieldType type;
    std::uint32_t id;
    std::span<const std::uint8_t> bytes;  // header and payload

    [[nodiscard]] bool asBool() const;
    [[nodiscard]] std::uint32_t asU32() const;
    [[nodiscard]] std::uint64_t asU64() const;
    [[nodiscard]] Addr6 asAddr6() const;
    [[nodiscard]] std::string_view asString() const;
    [[nodiscard]] message asMessage() const;
    [[nodiscard]] std::span<const std::uint8_t> asRaw() const;
    [[nodiscard]] std::vector<bool> asBools() const;
    [[nodiscard]] std::vector<std::uint32_t> asU32s() const;
    [[nodiscard]] std::vector<std::uint64_t> asU64s() const;
    [[nodiscard]] std::vector<Addr6> asAddr6s() const;
    [[nodiscard]] std::vector<std::string> asStrings() const;
    [[nodiscard]] std::vector<message> asMessages() const;
    [[nodiscard]] std::vector<std::vector<std::uint8_t>> asRaws() const;
  };
  // Calls visit(Field) for each field in order. The visitor must not change the message.
  template <typename Visitor>
  void forEach(Visitor&& visit) const;

  // Same fields, same order, same bytes.
  friend bool operator==(const message& a, const message& b) { return a.bytes_ == b.bytes_; }

 private:
  static constexpr std::size_t magicBytes = 2;

  // The message whose flattened form, already known to be valid, is `bytes`.
  [[nodiscard]] static message fromValid(std::span<const std::uint8_t> bytes);
  // Length of the first field of `rest`; 0 when it is cut off or of no known form. Nested messages are not looked into.
  [[nodiscard]] static std::size_t fieldLength(std::span<const std::uint8_t> rest);
  [[nodiscard]] static bool validFields(std::span<const std::uint8_t> fields, unsigned nesting);
  [[nodiscard]] static bool validNested(const Field& field, unsigned nesting);
  [[nodiscard]] static bool validElement(std::span<const std::uint8_t> bytes, unsigned nesting);
  [[nodiscard]] static Field fieldAt(std::span<const std::uint8_t> rest);
  [[nodiscard]] std::optional<Field> find(std::uint32_t key) const;
  // Notes the keys of fields that were taken as they are. True: some may be there twice.
  [[nodiscard]] bool noteKeys();
  // The bit that stands for a key in `keyBits_`.
  [[nodiscard]] static constexpr std::uint64_t bitOf(std::uint32_t key) {
    return std::uint64_t{1} << (key * 0x9E3779B1U >> 26U);
  }
  void dropRepeatedKeys();
  // Makes the field of `header` with room for that many bytes of payload and returns where the payload goes; null when
  // the message would become too large.
  std::uint8_t* makeRoom(std::uint32_t header, std::size_t payloadBytes);
  bool insertBytes(std::uint32_t key, std::span<const std::uint8_t> value);
  bool insertElements(std::uint32_t key, std::size_t count, std::span<const std::uint8_t> elements);
  bool erase(std::uint32_t key);

  // The flattened form, or nothing at all for the message without fields.
  std::vector<std::uint8_t> bytes_;
  // The bits of all keys that there are, and maybe of some that there were: most questions for a field are for one that
  // is not there, and each insertion is one, so they are answered without walking over the fields.
  std::uint64_t keyBits_ = 0;
};

template <typename Visitor>
void message::forEach(Visitor&& visit) const {
  for (std::size_t at = magicBytes; at < bytes_.size();) {
    const Field field = fieldAt(std::span(bytes_).subspan(at));
    at += field.bytes.size();
    visit(field);
  }
}

}  // namespace tn
