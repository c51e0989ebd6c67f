#include "tools/render.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <vector>

#include "platform/bus/text.h"
#include "platform/log.h"

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

constexpr Figure perProgram[] = {
    {tn::u64_id(5), "sent"},      {tn::u64_id(6), "bytes"},  {tn::u64_id(7), "bounced"},
    {tn::u64_id(12), "received"}, {tn::u64_id(13), "bytes"}, {tn::u64_id(10), "queued"},
};

std::string decimal(std::uint64_t value) {
  return std::string(std::string_view(NumberText(value)));
}

std::string hexadecimal(std::uint32_t value) {
  return "0x" + std::string(std::string_view(NumberText(value, 16)));
}

std::string idOf(const message& program) {
  return decimal(program.get(programId).value_or(0));
}

std::string nameOf(const message& program) {
  return tn::printableText(program.get(programName).value_or(std::string_view()));
}

std::vector<message> programsOf(const message& answer) {
  return answer.get(programs).value_or(std::vector<message>());
}

using Row = std::vector<std::string>;

// Columns as wide as their widest cell, numbers to the right and names, which stand in `nameColumn`, to the left.
std::string table(const std::vector<Row>& rows, std::size_t nameColumn) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], row[i].size());
  }
  std::string out;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - row[i].size(), ' ');
      line += i == 0 ? "" : "  ";
      line += i == nameColumn ? row[i] + padding : padding + row[i];
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
  }
  return out;
}

constexpr std::size_t nameColumn = 1;

std::string pathText(std::uint32_t first, const message& msg, tn::u32_array_id rest) {
  std::string text = decimal(first);
  for (const std::uint32_t element : msg.get(rest).value_or(std::vector<std::uint32_t>())) {
    text += '/' + decimal(element);
  }
  return text;
}

std::string kindName(std::uint32_t kind) {
  switch (tn::FrameKind{kind}) {
    case tn::FrameKind::message:
      return "message";
    case tn::FrameKind::bounced:
      return "bounced";
    case tn::FrameKind::control:
      return "control";
    case tn::FrameKind::observed:
      break;
  }
  return "kind " + decimal(kind);
}

std::string seconds(std::uint64_t milliseconds) {
  char text[32];
  const int length = std::snprintf(text, sizeof text, "%llu.%03u", static_cast<unsigned long long>(milliseconds / 1000),
                                   static_cast<unsigned>(milliseconds % 1000));
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

std::string renderAnswer(const message& answer, bool lineForm) {
  message shown = answer;
  shown.remove(tn::field::destination);
  shown.remove(tn::field::sender);
  shown.remove(tn::field::requestNumber);
  shown.remove(tn::field::isReply);
  return lineForm ? tn::writeText(shown) + '\n' : tn::writeTree(shown);
}

std::string renderError(const message& answer) {
  std::string out = "error " + hexadecimal(answer.get(tn::field::errorCode).value_or(0));
  const std::string_view text = answer.get(tn::field::errorText).value_or(std::string_view());
  if (!text.empty()) out += ": " + tn::printableText(text);
  return out;
}

std::string renderList(const message& answer, bool lineForm) {
  std::string lines;
  std::vector<Row> rows;
  for (const message& program : programsOf(answer)) {
    lines += tn::writeText(program) + '\n';
    rows.push_back({idOf(program), nameOf(program)});
  }
  if (lineForm || rows.empty()) return lines;
  return table(rows, nameColumn);
}

std::string renderStatistics(const message& answer, bool lineForm) {
  if (lineForm) return tn::writeText(answer) + '\n';
  std::string out;
  for (const Figure& figure : totals) {
    out.append(figure.name).append(": ").append(decimal(answer.get(figure.id).value_or(0))).append("\n");
  }
  std::vector<Row> rows = {{"id", "name"}};
  for (const Figure& figure : perProgram)
    rows[0].emplace_back(figure.name);
  for (const message& program : programsOf(answer)) {
    Row& row = rows.emplace_back(Row{idOf(program), nameOf(program)});
    for (const Figure& figure : perProgram)
      row.push_back(decimal(program.get(figure.id).value_or(0)));
  }
  return out + '\n' + table(rows, nameColumn);
}

std::string renderObserved(const Observed& frame, bool lineForm) {
  message msg;
  const bool isMessage = msg.unflatten(frame.payload);
  if (lineForm) {
    return "{u1:" + decimal(frame.from) + ",u2:" + decimal(frame.to) + ",u3:" + decimal(frame.kind) +
           ",q4:" + decimal(frame.milliseconds) + (isMessage ? ",m5:" + tn::writeText(msg) : "") + "}\n";
  }
  // A bounced frame goes back to its sender with its paths as they were.
  const bool isBounced = frame.kind == static_cast<std::uint32_t>(tn::FrameKind::bounced);
  const auto fromRest = isBounced ? tn::field::destination : tn::field::sender;
  const auto toRest = isBounced ? tn::field::sender : tn::field::destination;
  return seconds(frame.milliseconds) + ' ' + pathText(frame.from, msg, fromRest) + " -> " +
         pathText(frame.to, msg, toRest) + ' ' + kindName(frame.kind) + ", " + decimal(frame.payload.size()) +
         (isMessage ? " bytes\n" : " bytes that are no message\n") + tn::writeTree(msg, 2);
}

}  // namespace tool
