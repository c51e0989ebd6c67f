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

class Attribute {
 public:
  [[nodiscard]] Id id() const;
  [[nodiscard]] std::string_view name() const;
  [[nodiscard]] std::string_view text() const;
  // bool: yes/no, true/false, 1/0. std::vector<std::uint32_t>: decimal numbers separated by commas. Nothing for any other text.
  template <typename T>
  [[nodiscard]] std::optional<T> get() const;
};

class AttributeList {
 public:
  [[nodiscard]] const Attribute* find(Id id) const;  // null when absent
};

class Node {
 public:
  [[nodiscard]] Id id() const;
  [[nodiscard]] std::string_view name() const;
  [[nodiscard]] const AttributeList& attributes() const;
  [[nodiscard]] std::string_view text() const;    // character data directly inside, joined
  [[nodiscard]] const Node* find(Id id) const;    // first child element of that id, or null
};

// Walks the child elements of one id, in document order: for (NodeIterator it(root, 169); it; ++it) use(*it);
class NodeIterator {
 public:
  NodeIterator(const Node& parent, Id id);
  explicit operator bool() const;
  NodeIterator& operator++();
  const Node& operator*() const;
  const Node* operator->() const;
};

// Where a document could not be read, and what was expected there.
struct ParseError {
  std::string file;
  unsigned line;    // from 1
  unsigned column;  // from 1, in bytes
  std::string expected;
};

// All documents "*.xml" of a directory, sorted by name bytewise. A document that cannot be read is left out and reported; the others stand.
class DocumentCollection {
 public:
  explicit DocumentCollection(const std::string& directory);
  [[nodiscard]] const std::vector<std::unique_ptr<Node>>& roots() const;
  [[nodiscard]] const std::vector<ParseError>& errors() const;
};

}  // namespace xml
