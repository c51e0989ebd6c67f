#include "tools/render.h"

#include <string_view>
#include <vector>

#include "tools/table.h"
#include "tools/units.h"

namespace tool {

namespace {

using tn::message;

// Fields of the broker's answers (docs/bus-protocol.md).
constexpr tn::u32_id programId{2};
constexpr tn::string_id programName{3};
constexpr tn::message_array_id programs{4};

struct Figure {
  tn::u64_id id;
  std::string_view name;
};

constexpr Figure totals[] = {
    {tn::u64_id(5), "frames"},
    {tn::u64_id(6), "bytes"},
    {tn::u64_id(7), "bounced"},
    {tn::u64_id(8), "dropped"},
    {tn::u64_id(9), "unobserved"},
    {tn::u64_id(10), "queued bytes"},
    {tn::u64_id(11), "unfinished bytes"},
};

constexpr tn::u64_id perProgram[] = {
    tn::u64_id(5), tn::u64_id(6), tn::u64_id(7), tn::u64_id(12), tn::u64_id(13), tn::u64_id(10),
};

}  // namespace

message withoutCarriage(const message& answer) {
  message shown = answer;
  shown.remove(tn::field::destination);
  shown.remove(tn::field::sender);
  shown.remove(tn::field::requestNumber);
  shown.remove(tn::field::isReply);
  return shown;
}

std::string renderList(const message& answer, std::size_t width) {
  Table table{{"", Table::Column::number}, {"", Table::Column::text}};
  for (const message& program : messagesOf(answer, programs))
    table.add({decimal(numberOf(program, programId)), textOf(program, programName)});
  return table.text(width, false);
}

std::string renderStatistics(const message& answer, std::size_t width, bool colours) {
  std::string out;
  for (const Figure& figure : totals)
    out.append(figure.name).append(": ").append(decimal(numberOf(answer, figure.id))).append("\n");
  constexpr auto right = Table::Column::number;
  Table table{{"id", right},      {"name", Table::Column::cut}, {"sent", right},  {"bytes", right},
              {"bounced", right}, {"received", right},          {"bytes", right}, {"queued", right}};
  for (const message& program : messagesOf(answer, programs)) {
    std::vector<std::string> row{decimal(numberOf(program, programId)), textOf(program, programName)};
    for (const tn::u64_id id : perProgram)
      row.push_back(decimal(numberOf(program, id)));
    table.add(std::move(row));
  }
  return out + '\n' + table.text(width, colours);
}

}  // namespace tool
