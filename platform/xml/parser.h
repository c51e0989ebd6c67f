#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/xml/document.h"
#include "platform/xml/input.h"

namespace xml {

// What a document may cost at the most; more is an error of that document.
namespace limit {
inline constexpr std::size_t documentBytes = 1U << 20;
inline constexpr std::size_t nesting = 64;        // elements open at once
inline constexpr std::size_t elements = 65536;    // in one document
inline constexpr std::size_t attributes = 64;     // of one element; also bounds the search for names that come twice
inline constexpr std::size_t nameBytes = 256;     // of an element, attribute or processing instruction
inline constexpr std::size_t valueBytes = 32768;  // of one attribute, references resolved
}  // namespace limit

// Reads one document from its bytes: XML 1.0, fifth edition, well-formedness checked in full, namespaces not looked at.
//
// There is no document type declaration, so nothing can be declared: no entities but the five that XML knows, no
// default attributes, and every attribute is of type CDATA. That also bounds the result: text never grows by being
// read, and nothing is read but the bytes given.
//
// The elements that are open stand on a stack and move into their parent when they end, so there is no recursion.
class Parser {
 public:
  // `file` names the document in errors. Both must outlive the parser.
  Parser(std::string_view file, std::string_view bytes);

  // The root element; nothing when there is an error. To be called once.
  [[nodiscard]] std::optional<Node> parse();
  // The first error, once parse gave nothing.
  [[nodiscard]] const ParseError& error() const { return error_; }

 private:
  // Each of these takes one production from the input. False: the error is recorded, and nothing more is to be read.
  bool document();
  bool declaration();
  bool declarationValue(std::string_view& value);
  bool setEncoding(const Position& at, std::string_view name);
  bool misc();  // comments, processing instructions and space, as they may stand around the root element
  bool contentItem();
  bool markup();
  bool characterData();
  bool cdataSection();
  bool comment();
  bool processingInstruction();
  bool startTag();
  bool attribute(AttributeList& list);
  bool attributeValue(std::string& value);
  bool endTag();
  bool name(std::string& name);
  bool reference(std::string& text);
  bool equalsSign();
  // Takes characters into `text`, when it is not null, up to the literal, and then that. `what` is told when it is
  // missing.
  bool upTo(std::string_view literal, std::string* text, std::string_view what);
  bool character(std::string* text, std::string_view what);

  void closeElement();

  // Records an error at the place reached; a byte there that no document may hold is told instead of `expected`.
  bool fail(std::string expected);
  bool failAt(const Position& at, std::string expected);
  static std::string atMost(std::size_t number, std::string_view what);

  std::string_view file_;
  std::string_view bytes_;
  Input input_;
  std::vector<Node> open_;
  std::size_t elements_ = 0;
  std::optional<Node> root_;
  ParseError error_;
};

}  // namespace xml
