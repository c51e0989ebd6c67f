#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Header fields of a request or a response, in order, with names compared without regard to case (RFC 9110, 5).
//
// The fields are held as the text that goes onto the wire, in one string that keeps its capacity over `clear`, so a
// kept-alive connection allocates nothing per request and printing is one copy. All memory is behind one pointer, so
// that it changes hands with `swap` for next to nothing and headers without fields are small. Views returned die at the
// next change, and a text given to a function that changes the headers must not be a view of these same headers.
class Headers {
 public:
  // Largest text, and most fields, whose memory is kept over clear(); what is larger is given back.
  static constexpr std::size_t keptBytes = 1024;
  static constexpr std::size_t keptFields = 64;
  // Among how many fields parseHeaderLine looks for an earlier one of the same name. Real requests stay far below; it
  // keeps thousands of tiny fields from costing the square of their number.
  static constexpr std::size_t searchedFields = 128;

  // Adds a field. With `append` false the existing fields of that name are replaced (it moves to the end); with true a
  // further line is added. The caller has made sure that neither text holds control characters.
  void addHeader(std::string_view name, std::string_view value, bool append) {
    if (!append) removeHeader(name);
    add(name, value);
  }
  void addHeader(std::string_view name, std::uint64_t value, bool append);
  // Removes every field of that name.
  void removeHeader(std::string_view name) {
    if (mayHold(name)) removeAll(name);
  }

  [[nodiscard]] bool hasHeader(std::string_view name) const {
    return mayHold(name) && search(name, 0, SIZE_MAX) < size();
  }
  // Value of the first field of that name.
  [[nodiscard]] std::optional<std::string_view> getHeader(std::string_view name) const {
    return mayHold(name) ? firstValue(name) : std::nullopt;
  }
  // False, and `value` unchanged: absent, or (for the number) not a decimal number below 2^32.
  bool getHeader(std::string_view name, std::string* value) const;
  bool getHeader(std::string_view name, std::uint32_t* value) const {
    return mayHold(name) && firstNumber(name, value);
  }
  // Whether any field of that name holds `token` in its comma-separated list, case not significant.
  [[nodiscard]] bool headerHasToken(std::string_view name, std::string_view token) const {
    return mayHold(name) && holdsToken(name, token);
  }

  // Takes one line of a request's header block, without its line end. False, and nothing is changed: the line is
  // malformed, or its field makes the message's framing or its receiver unsafe (RFC 9112, 3.2, 5 and 6): no token
  // before the colon, white space before it, a control character other than a tab in the value, a line that begins with
  // white space, a second Host or one that is no host, a Content-Length that is no plain number below 2^32 - 1 or
  // differs from an earlier one, any Transfer-Encoding. Fields of one name are joined with ", " in the place of the
  // first (the first `searchedFields` fields; what comes after them stays a line of its own); a Content-Length said
  // twice is held once.
  [[nodiscard]] bool parseHeaderLine(std::string_view line);

  // Appends "Name: value\r\n" for every field, in order.
  void printHeaders(std::string& out) const { out.append(text()); }

  // The same, as a view.
  [[nodiscard]] std::string_view text() const { return fields_ ? std::string_view(fields_->text) : std::string_view(); }

  // Calls visit(name, value) for each field, in order.
  template <typename Visitor>
  void forEach(Visitor&& visit) const {
    for (std::size_t i = 0; i < size(); ++i)
      visit(nameAt(i), valueAt(i));
  }
  [[nodiscard]] std::size_t size() const { return fields_ ? fields_->entries.size() : 0; }

  void clear();
  void swap(Headers& other) { fields_.swap(other.fields_); }

 private:
  // Field i is the text from its offset to the offset of the next one: name, ": ", value, CR LF.
  struct Entry {
    std::uint32_t offset;
    std::uint32_t nameLength;
  };
  struct Fields {
    std::string text;
    std::vector<Entry> entries;
    // Of the names so far: most questions are for fields that are not there, and end here.
    std::uint64_t lengths = 0;
  };
  [[nodiscard]] static std::uint64_t lengthBit(std::size_t nameLength) { return std::uint64_t{1} << (nameLength % 64); }
  // False: there is no field of that name.
  [[nodiscard]] bool mayHold(std::string_view name) const {
    return fields_ && (fields_->lengths & lengthBit(name.size())) != 0;
  }
  [[nodiscard]] static std::unique_ptr<Fields> makeFields();
  // Of a field that there is.
  [[nodiscard]] std::size_t endOf(std::size_t i) const {
    return i + 1 < fields_->entries.size() ? fields_->entries[i + 1].offset : fields_->text.size();
  }
  [[nodiscard]] std::string_view nameAt(std::size_t i) const;
  [[nodiscard]] std::string_view valueAt(std::size_t i) const;
  // Index of the first field of that name from `from` to below `limit`; size() when there is none.
  [[nodiscard]] std::size_t find(std::string_view name, std::size_t from = 0, std::size_t limit = SIZE_MAX) const {
    return mayHold(name) ? search(name, from, limit) : size();
  }
  [[nodiscard]] std::size_t search(std::string_view name, std::size_t from, std::size_t limit) const;
  // The questions above, of a field that there may be.
  [[nodiscard]] std::optional<std::string_view> firstValue(std::string_view name) const;
  [[nodiscard]] bool firstNumber(std::string_view name, std::uint32_t* value) const;
  [[nodiscard]] bool holdsToken(std::string_view name, std::string_view token) const;
  void removeAll(std::string_view name);

  // Where the caller must put the name and, behind ": ", the value of one more field.
  [[nodiscard]] char* makeRoom(std::size_t nameLength, std::size_t valueLength);
  void add(std::string_view name, std::string_view value);
  void addPlain(std::string_view line, std::size_t nameLength);
  [[nodiscard]] bool takeHost(std::string_view line, std::string_view name, std::string_view value);
  void join(std::size_t i, std::string_view value);
  [[nodiscard]] bool takeContentLength(std::string_view name, std::string_view value);

  std::unique_ptr<Fields> fields_;  // null: none yet
};
