#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xml {

// Elements and attributes are known by number; 0 is any name that has none. The table is in docs/configuration.md.
using Id = std::uint32_t;

// A place in a document: line and column from 1, the column in bytes; a byte order mark counts for nothing.
struct Position {
  unsigned line = 1;
  unsigned column = 1;
};

class Attribute {
 public:
  [[nodiscard]] Id id() const { return id_; }
  [[nodiscard]] std::string_view name() const { return name_; }
  [[nodiscard]] std::string_view text() const { return text_; }
  [[nodiscard]] const Position& position() const { return position_; }  // of its name
  // bool: yes/no, true/false, 1/0. std::vector<std::uint32_t>: decimal numbers separated by commas. Nothing for any
  // other text.
  template <typename T>
  [[nodiscard]] std::optional<T> get() const;

 private:
  friend class Parser;
  Id id_ = 0;
  std::string name_;
  std::string text_;
  Position position_;
};

template <>
std::optional<bool> Attribute::get<bool>() const;
template <>
std::optional<std::vector<std::uint32_t>> Attribute::get<std::vector<std::uint32_t>>() const;

// The attributes of one element, in document order; no name comes twice.
class AttributeList {
 public:
  [[nodiscard]] const Attribute* find(Id id) const;  // null when absent
  [[nodiscard]] const Attribute* find(std::string_view name) const;
  [[nodiscard]] std::size_t size() const { return attributes_.size(); }
  [[nodiscard]] auto begin() const { return attributes_.begin(); }
  [[nodiscard]] auto end() const { return attributes_.end(); }

 private:
  friend class Parser;
  std::vector<Attribute> attributes_;
};

// One element; it owns its attributes and everything below it. Comments and processing instructions are not kept.
class Node {
 public:
  [[nodiscard]] Id id() const { return id_; }
  [[nodiscard]] std::string_view name() const { return name_; }
  [[nodiscard]] const AttributeList& attributes() const { return attributes_; }
  [[nodiscard]] std::string_view text() const { return text_; }  // character data directly inside, joined
  [[nodiscard]] const Node* find(Id id) const;                   // first child element of that id, or null
  [[nodiscard]] const std::vector<Node>& children() const {
    return children_;
  }                                                                     // all child elements, in document order
  [[nodiscard]] const Position& position() const { return position_; }  // of the "<" that begins it

 private:
  friend class Parser;
  Id id_ = 0;
  Position position_;
  std::string name_;
  AttributeList attributes_;
  std::string text_;
  std::vector<Node> children_;
};

// Walks the child elements of one id, in document order: for (NodeIterator it(root, 169); it; ++it) use(*it);
class NodeIterator {
 public:
  NodeIterator(const Node& parent, Id id);
  explicit operator bool() const { return left_ != 0; }
  NodeIterator& operator++();
  const Node& operator*() const { return *next_; }
  const Node* operator->() const { return next_; }

 private:
  void skipOthers();

  const Node* next_;
  std::size_t left_;  // children from next_ on
  Id id_;
};

// Where a document could not be read, and what was expected there.
struct ParseError {
  std::string file;
  unsigned line;    // from 1; 0 when the file as a whole could not be read, and then `column` is 0 too
  unsigned column;  // from 1, in bytes
  std::string expected;

  // One line: "file:line:column: expected ...", without the numbers when there are none.
  [[nodiscard]] std::string text() const;
};

// The paths of all documents "*.xml" of a directory, sorted by name bytewise; names that begin with a dot do not count.
// Nothing, and `error` set, when the directory cannot be read.
[[nodiscard]] std::optional<std::vector<std::string>> listDocuments(const std::string& directory, ParseError& error);

// The root element of one document; nothing, and `error` set, when it cannot be read.
[[nodiscard]] std::optional<Node> readDocument(const std::string& path, ParseError& error);

// All documents of a directory. One that cannot be read is left out and reported; the others stand. A directory that
// cannot be read is reported likewise.
class DocumentCollection {
 public:
  explicit DocumentCollection(const std::string& directory);
  [[nodiscard]] const std::vector<std::unique_ptr<Node>>& roots() const { return roots_; }
  [[nodiscard]] const std::vector<ParseError>& errors() const { return errors_; }

 private:
  std::vector<std::unique_ptr<Node>> roots_;
  std::vector<ParseError> errors_;
};

}  // namespace xml
