// log: the lines that the supervisor keeps.

#include <algorithm>

#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::message;

// How often a log that is followed is asked for new lines.
constexpr std::uint32_t pauseMs = 1000;
constexpr std::uint32_t mostLines = 500;

constexpr tn::u64_id after{1};
constexpr tn::u32_id most{2};
constexpr tn::string_id containing{3};
constexpr tn::string_id onlyProgram{4};
constexpr tn::message_array_id lineList{1};
constexpr tn::u64_id newest{2};
constexpr tn::u64_id lost{3};
constexpr tn::u64_id time{2};
constexpr tn::string_id program{3};
constexpr tn::string_id text{4};

class Reader {
 public:
  Reader(Context& context, const HandlerShape& handler) : context_(context), handler_(handler) {}

  // Asks for what is new and prints it. Anything but done has been told.
  ExitStatus next() {
    message request;
    if (const char* const error = makeRequest(request)) return context_.failUsage(error);
    const message answer = context_.ask(handler_, tn::command::getAll, request);
    if (tn::isError(answer)) return context_.fail(answer);
    const std::vector<message> lines = messagesOf(answer, lineList);
    if (began_) tellMissed(answer, lines.size());
    after_ = numberOf(answer, newest);
    began_ = true;
    for (const message& line : lines)
      show(line);
    return ExitStatus::done;
  }

 private:
  // Returns what is wrong with the arguments, or nothing.
  const char* makeRequest(message& request) const {
    const Arguments& arguments = context_.arguments();
    if (began_) request.insert(after, after_);
    if (began_ || arguments.count != 0) {
      request.insert(most, began_ ? mostLines : static_cast<std::uint32_t>(arguments.count));
    }
    if (context_.operandCount() != 0 && !request.insert(containing, context_.operand(0))) {
      return "the text to look for is too long";
    }
    if (!arguments.program.empty() && !request.insert(onlyProgram, arguments.program)) {
      return "the name of the program is too long";
    }
    return nullptr;
  }

  // Lines that came between two questions and are not among the `shown` ones: no longer kept, or too many for an
  // answer. What was dropped before the first question was not asked for. Of lines that are filtered, only those that
  // are gone can be counted, whether they would have been shown or not.
  void tellMissed(const message& answer, std::size_t shown) {
    const std::uint64_t last = numberOf(answer, newest);
    const bool isAll = context_.operandCount() == 0 && context_.arguments().program.empty();
    const std::uint64_t missed = isAll && last >= after_ + shown ? last - after_ - shown : numberOf(answer, lost);
    if (missed != 0) printError(decimal(missed) + " lines of the log were lost");
    if (!isAll && shown == mostLines) printError("more lines of the log came than can be shown");
  }

  void show(const message& line) {
    Output& out = context_.output();
    if (!out.isReadable()) {
      out.show(line, commandOf(&handler_, tn::command::getAll)->out->fields[0].below);
      return;
    }
    out.print(timeText(numberOf(line, time)) + ' ' + textOf(line, program) + ": " + textOf(line, text) + '\n');
  }

  Context& context_;
  const HandlerShape& handler_;
  bool began_ = false;
  std::uint64_t after_ = 0;  // the newest line that was there when it was asked last
};

}  // namespace

ExitStatus log(Context& context) {
  const Arguments& arguments = context.arguments();
  if (arguments.count > mostLines)
    return context.failUsage("at most " + decimal(mostLines) + " lines can be asked for");
  Bus* const bus = context.bus(arguments.follow);
  if (bus == nullptr) return ExitStatus::unreachable;
  Reader reader(context, *handlerNamed("tnrun", "log"));
  for (;;) {
    const ExitStatus status = reader.next();
    if (bus->isStopped()) return ExitStatus::done;
    if (status != ExitStatus::done || !arguments.follow || context.output().isBroken()) return status;
    bus->wait(pauseMs);
    if (bus->isStopped()) return ExitStatus::done;
    if (bus->isLost()) return context.fail(ExitStatus::unreachable, "the bus is gone");
  }
}

}  // namespace tool::verbs
