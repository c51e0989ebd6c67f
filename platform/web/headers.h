#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Header fields of a request or a response, in order, with names compared without regard to case (RFC 9110, 5).
//
// All text is held in one string that keeps its capacity over `clear`, so a kept-alive connection allocates nothing per
// request. Views returned die at the next change.
class Headers {
 public:
  // Largest text kept over clear(); what is larger is given back.
  static constexpr std::size_t keptBytes = 1024;

  // Adds a field. With `append` false an existing field of that name is replaced (it moves to the end); with true a further line is
  // added. The caller has made sure that neither text holds control characters.
  void addHeader(std::string_view name, std::string_view value, bool append);
  void addHeader(std::string_view name, std::uint64_t value, bool append);
  void removeHeader(std::string_view name);

  [[nodiscard]] bool hasHeader(std::string_view name) const;
  // Value of the first field of that name.
  [[nodiscard]] std::optional<std::string_view> getHeader(std::string_view name) const;
  // False, and `value` unchanged: absent, or (for the number) not a decimal number below 2^32.
  bool getHeader(std::string_view name, std::string* value) const;
  bool getHeader(std::string_view name, std::uint32_t* value) const;
  // Whether any field of that name holds `token` in its comma-separated list, case not significant.
  [[nodiscard]] bool headerHasToken(std::string_view name, std::string_view token) const;

  // Takes one line of a request's header block, without its line end. False: the line is malformed, or its field makes the
  // message's framing unsafe (RFC 9112, 5 and 6): no token before the colon, white space before it, a control character, a line
  // that begins with white space, a second Host, a Content-Length that is no plain number below 2^32 - 1 or differs from an earlier
  // one, any Transfer-Encoding. Fields of one name are joined with ", ".
  [[nodiscard]] bool parseHeaderLine(std::string_view line);

  // Appends "Name: value\r\n" for every field, in order.
  void printHeaders(std::string& out) const;

  // Calls visit(name, value) for each field, in order.
  template <typename Visitor>
  void forEach(Visitor&& visit) const {
    for (const Entry& e : entries_) visit(text(e.name), text(e.value));
  }

  void clear();

 private:
  struct Span {
    std::uint32_t offset;
    std::uint32_t length;
  };
  struct Entry {
    Span name;
    Span value;
  };
  [[nodiscard]] std::string_view text(Span span) const { return std::string_view(text_).substr(span.offset, span.length); }

  std::string text_;
  std::vector<Entry> entries_;
};
