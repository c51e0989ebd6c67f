// status: servers, programs and sessions at a glance.

#include <algorithm>
#include <map>

#include "tools/json.h"
#include "tools/render.h"
#include "tools/table.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::message;

// What the services that were asked have said; a part that could not be had is an error.
struct Findings {
  message bus;
  message counters;
  message sessions;
  message programs;
};

constexpr tn::message_array_id firstList{1};
constexpr tn::message_array_id busPrograms{4};

std::string countText(const message& msg, std::uint32_t id) {
  return decimal(numberOf(msg, tn::u64_id(id)));
}

std::string summary(const Findings& found) {
  std::string out;
  if (!tn::isError(found.counters)) {
    out += "web server   up " + durationText(numberOf(found.counters, tn::u64_id(4))) + ", " +
           decimal(numberOf(found.counters, tn::u32_id(2))) + " of " +
           decimal(numberOf(found.counters, tn::u32_id(3))) + " connections open";
    const std::uint64_t dropped = numberOf(found.counters, tn::u64_id(5));
    if (dropped != 0) out += ", " + decimal(dropped) + " lines of the log dropped";
    out += '\n';
  }
  if (!tn::isError(found.sessions)) {
    out += "sessions     " + decimal(numberOf(found.sessions, tn::u32_id(2))) + '\n';
  }
  out += "bus          " + countText(found.bus, 5) + " messages, " + bytesText(numberOf(found.bus, tn::u64_id(6))) +
         ", " + countText(found.bus, 7) + " bounced, " + countText(found.bus, 8) + " dropped, " +
         bytesText(numberOf(found.bus, tn::u64_id(10))) + " queued\n";
  return out;
}

// Where a server listens, or why it does not.
std::string portText(const message& server) {
  if (!flagOf(server, tn::bool_id(2))) return "off";
  return flagOf(server, tn::bool_id(0x12)) ? decimal(numberOf(server, tn::u32_id(3))) : "closed";
}

Table serverTable(const message& counters) {
  using enum Table::Column;
  Table table{{"server", cut}, {"port", number}, {"open", number},  {"accepted", number}, {"refused", number},
              {"2xx", number}, {"3xx", number},  {"4xx", number},   {"5xx", number},      {"in", number},
              {"out", number}, {"late", number}, {"pauses", number}};
  for (const message& server : messagesOf(counters, firstList)) {
    std::vector<std::string> row{textOf(server, tn::string_id(1))};
    row.push_back(portText(server));
    row.push_back(decimal(numberOf(server, tn::u32_id(0x11))));
    for (std::uint32_t id = 5; id <= 0xa; ++id)
      row.push_back(countText(server, id));
    row.push_back(bytesText(numberOf(server, tn::u64_id(0xb))));
    row.push_back(bytesText(numberOf(server, tn::u64_id(0xc))));
    row.push_back(countText(server, 0xd) + '/' + countText(server, 0xe) + '/' + countText(server, 0xf));
    row.push_back(countText(server, 0x10));
    table.add(std::move(row));
  }
  return table;
}

// What the supervisor knows of a program, by its bus id.
std::map<std::uint32_t, message> supervised(const message& programs) {
  std::map<std::uint32_t, message> out;
  for (message& program : messagesOf(programs, firstList)) {
    const auto id = static_cast<std::uint32_t>(numberOf(program, tn::u32_id(2)));
    const bool isBroker = textOf(program, tn::string_id(1)) == "busd";
    if (id != 0 || isBroker) out[id] = std::move(program);
  }
  return out;
}

std::string stateText(const message& program) {
  if (numberOf(program, tn::u32_id(3)) == 0) return "ended";
  return flagOf(program, tn::bool_id(6)) ? "runs" : "silent";
}

std::vector<std::string> supervisedCells(const message& program) {
  return {decimal(numberOf(program, tn::u32_id(3))), stateText(program), durationText(numberOf(program, tn::u64_id(5))),
          decimal(numberOf(program, tn::u32_id(4)))};
}

Table programTable(const Findings& found) {
  using enum Table::Column;
  Table table{{"id", number},       {"program", cut},     {"pid", number},     {"state", text},
              {"up", number},       {"restarts", number}, {"sent", number},    {"bytes", number},
              {"received", number}, {"bytes", number},    {"bounced", number}, {"queued", number}};
  const auto known = supervised(found.programs);
  for (const message& program : messagesOf(found.bus, busPrograms)) {
    const auto id = static_cast<std::uint32_t>(numberOf(program, tn::u32_id(2)));
    const auto entry = known.find(id);
    std::vector<std::string> row{decimal(id), textOf(program, tn::string_id(3))};
    const std::vector<std::string> cells =
        entry != known.end() ? supervisedCells(entry->second) : std::vector<std::string>{"-", "-", "-", "-"};
    row.insert(row.end(), cells.begin(), cells.end());
    row.insert(row.end(), {countText(program, 5), bytesText(numberOf(program, tn::u64_id(6))), countText(program, 12),
                           bytesText(numberOf(program, tn::u64_id(13))), countText(program, 7),
                           bytesText(numberOf(program, tn::u64_id(10)))});
    table.add(std::move(row));
  }
  // Programs that are looked after, but are not on the bus.
  for (const message& program : messagesOf(found.programs, firstList)) {
    const std::string name = textOf(program, tn::string_id(1));
    if (numberOf(program, tn::u32_id(2)) != 0 || name == "busd") continue;
    std::vector<std::string> row{"-", name};
    const std::vector<std::string> cells = supervisedCells(program);
    row.insert(row.end(), cells.begin(), cells.end());
    row.insert(row.end(), 6, "-");
    table.add(std::move(row));
  }
  return table;
}

void showReadable(Output& out, const Findings& found) {
  out.print(summary(found));
  const Table servers = serverTable(found.counters);
  if (!servers.isEmpty()) out.print('\n' + servers.text(out.width(), out.colours()));
  out.print('\n' + programTable(found).text(out.width(), out.colours()));
}

// All parts in one message: 1 bus, 2 web server, 3 tunnel, 4 supervisor. It is put together as a text, since a message
// inside another one is bounded, and what many programs have to tell is not.
void showWhole(Output& out, const Findings& found) {
  struct Part {
    std::string_view name;
    const message& answer;
    const tn::FieldNames* names;
  };
  const auto answerNames = [](const char* program, const char* handler, std::uint32_t command) {
    return commandOf(handlerNamed(program, handler), command)->out;
  };
  const Part parts[] = {
      {"bus", found.bus, &brokerNames},
      {"web-server", found.counters, answerNames("www", "counters", tn::command::get)},
      {"tunnel", found.sessions, answerNames("www", "sessions", tn::command::getAll)},
      {"supervisor", found.programs, answerNames("tnrun", "programs", tn::command::get)},
  };
  std::string text = "{";
  unsigned number = 0;
  for (const Part& part : parts) {
    ++number;
    if (tn::isError(part.answer)) continue;
    if (text.size() > 1) text += ',';
    if (out.form() == Form::json) {
      text.append("\"").append(part.name).append("\":").append(writeJson(part.answer, part.names));
    } else {
      text.append("m").append(decimal(number)).append(":").append(tn::writeText(part.answer));
    }
  }
  out.print(text + "}\n");
}

message askPart(Context& context, const char* program, const char* handler, std::uint32_t command) {
  const message answer = context.ask(*handlerNamed(program, handler), command);
  if (tn::isError(answer)) printError(std::string(program) + " tells nothing: " + errorText(answer));
  return withoutCarriage(answer);
}

}  // namespace

ExitStatus status(Context& context) {
  Bus* const bus = context.bus();
  if (bus == nullptr) return ExitStatus::unreachable;
  Findings found;
  found.bus = bus->control(tn::control::statistics);
  if (tn::isError(found.bus)) return context.fail(found.bus);
  found.counters = askPart(context, "www", "counters", tn::command::get);
  found.sessions = askPart(context, "www", "sessions", tn::command::getAll);
  found.programs = askPart(context, "tnrun", "programs", tn::command::get);
  if (bus->isLost()) return context.fail(ExitStatus::unreachable, "the bus is gone");
  Output& out = context.output();
  if (out.isReadable()) {
    showReadable(out, found);
  } else {
    showWhole(out, found);
  }
  return ExitStatus::done;
}

}  // namespace tool::verbs
