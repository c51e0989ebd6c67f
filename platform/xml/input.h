#pragma once

#include <cstddef>
#include <string_view>

#include "platform/xml/characters.h"
#include "platform/xml/document.h"

namespace xml {

// What the bytes at the front of the input are.
enum class Fault { none, end, notUtf8, notXml, notAscii };

// The bytes of a document, read from the front one character at a time, with the place that was reached. Line ends are
// given as XML wants them: CR LF and a CR alone are one line feed.
class Input {
 public:
  // The bytes must outlive the input. A byte order mark at the front is skipped.
  explicit Input(std::string_view bytes);

  [[nodiscard]] bool atEnd() const { return rest_.empty(); }
  [[nodiscard]] bool hadByteOrderMark() const { return hadByteOrderMark_; }
  [[nodiscard]] const Position& position() const { return position_; }
  [[nodiscard]] std::string_view rest() const { return rest_; }
  [[nodiscard]] bool lookingAt(std::string_view literal) const { return rest_.starts_with(literal); }

  // From here on bytes above 127 are faults.
  void setAsciiOnly() { asciiOnly_ = true; }

  [[nodiscard]] Fault fault() const;
  // The character at the front. Its length is 0 exactly when there is a fault.
  [[nodiscard]] Character peek() const;
  // Takes a character that peek gave.
  void take(const Character& character);
  // Takes `count` bytes, which hold no line end.
  void skip(std::size_t count);
  // Takes a literal without line ends, if it is there.
  bool accept(std::string_view literal);
  // Takes white space; false when there was none.
  bool acceptSpace();

 private:
  std::string_view rest_;
  Position position_;
  bool hadByteOrderMark_ = false;
  bool asciiOnly_ = false;
};

}  // namespace xml
