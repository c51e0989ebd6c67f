#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Rows in columns that are as wide as what stands in them. On a terminal that is too narrow, texts that may be cut are
// cut; where that is not enough, each row becomes a block of lines, one cell a line.
class Table {
 public:
  enum class Column : unsigned char {
    number,  // to the right
    text,    // to the left
    cut,     // to the left, and may be cut
  };
  struct Heading {
    std::string_view name;  // all empty: the table has no line of headings
    Column column;
  };

  Table(std::initializer_list<Heading> headings);

  // As many cells as there are headings; none holds a control character.
  void add(std::vector<std::string> cells);
  [[nodiscard]] bool isEmpty() const { return rows_.empty(); }

  // Each line ended. `width` 0 is no limit; `isBold` makes the headings bold.
  [[nodiscard]] std::string text(std::size_t width, bool isBold) const;

 private:
  using Row = std::vector<std::string>;

  [[nodiscard]] bool hasHeadings() const;
  [[nodiscard]] std::vector<std::size_t> widths() const;
  [[nodiscard]] bool shrink(std::vector<std::size_t>& widths, std::size_t width) const;
  [[nodiscard]] std::string line(const Row& row, const std::vector<std::size_t>& widths) const;
  [[nodiscard]] std::string blocks(bool isBold) const;

  std::vector<Heading> headings_;
  std::vector<Row> rows_;
};

// Columns that a text takes on a terminal, a character each.
[[nodiscard]] std::size_t columnsOf(std::string_view text);

}  // namespace tool
