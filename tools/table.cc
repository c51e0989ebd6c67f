#include "tools/table.h"

#include <algorithm>
#include <numeric>

namespace tool {

namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t narrowest = 12;  // of what is cut
constexpr std::string_view dots = "...";

bool startsCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
}

// The text in at most that many columns.
std::string cutTo(const std::string& text, std::size_t columns) {
  if (columnsOf(text) <= columns) return text;
  std::size_t end = 0;
  for (std::size_t seen = 0; end < text.size(); ++end) {
    if (startsCharacter(text[end]) && seen++ == columns - dots.size()) break;
  }
  return text.substr(0, end).append(dots);
}

std::string bold(std::string text) {
  return "\x1b[1m" + std::move(text) + "\x1b[0m";
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(text, startsCharacter));
}

Table::Table(std::initializer_list<Heading> headings) : headings_(headings) {}

void Table::add(Row cells) {
  rows_.push_back(std::move(cells));
}

bool Table::hasHeadings() const {
  return std::ranges::any_of(headings_, [](const Heading& heading) { return !heading.name.empty(); });
}

std::vector<std::size_t> Table::widths() const {
  std::vector<std::size_t> result;
  result.reserve(headings_.size());
  for (const Heading& heading : headings_)
    result.push_back(columnsOf(heading.name));
  for (const Row& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i)
      result[i] = std::max(result[i], columnsOf(row[i]));
  }
  return result;
}

// Makes the table fit. False: it does not, whatever is cut.
bool Table::shrink(std::vector<std::size_t>& widths, std::size_t width) const {
  std::size_t whole = std::accumulate(widths.begin(), widths.end(), gap * (widths.size() - 1));
  while (whole > width) {
    std::size_t widest = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i) {
      if (headings_[i].column != Column::cut || widths[i] <= narrowest) continue;
      if (widest == widths.size() || widths[i] > widths[widest]) widest = i;
    }
    if (widest == widths.size()) return false;
    --widths[widest];
    --whole;
  }
  return true;
}

std::string Table::line(const Row& row, const std::vector<std::size_t>& widths) const {
  std::string out;
  for (std::size_t i = 0; i < row.size(); ++i) {
    const std::string cell = cutTo(row[i], std::max(widths[i], dots.size()));
    const std::size_t columns = columnsOf(cell);
    const std::string padding(widths[i] > columns ? widths[i] - columns : 0, ' ');
    if (i != 0) out.append(gap, ' ');
    out += headings_[i].column == Column::number ? padding + cell : cell + padding;
  }
  out.erase(out.find_last_not_of(' ') + 1);
  return out;
}

std::string Table::blocks(bool isBold) const {
  std::size_t widest = 0;
  for (const Heading& heading : headings_)
    widest = std::max(widest, columnsOf(heading.name));
  std::string out;
  for (const Row& row : rows_) {
    if (!out.empty()) out += '\n';
    for (std::size_t i = 0; i < row.size(); ++i) {
      std::string name(headings_[i].name);
      name.append(widest - columnsOf(name) + gap, ' ');
      std::string one = (isBold ? bold(name) : name) + row[i];
      if (!isBold) one.erase(one.find_last_not_of(' ') + 1);
      out += one + '\n';
    }
  }
  return out;
}

std::string Table::text(std::size_t width, bool isBold) const {
  std::vector<std::size_t> columns = widths();
  if (width != 0 && !shrink(columns, width) && hasHeadings()) return blocks(isBold);
  std::string out;
  if (hasHeadings()) {
    Row names;
    for (const Heading& heading : headings_)
      names.emplace_back(heading.name);
    const std::string first = line(names, columns);
    out += (isBold ? bold(first) : first) + '\n';
  }
  for (const Row& row : rows_)
    out += line(row, columns) + '\n';
  return out;
}

}  // namespace tool
