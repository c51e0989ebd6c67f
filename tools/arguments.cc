#include "tools/arguments.h"

#include <charconv>
#include <optional>

#include "platform/bus/frame.h"
#include "platform/bus/text.h"

namespace tool {

namespace {

struct OperationShape {
  std::string_view name;
  Operation operation;
  std::size_t fewest;
  std::size_t most;
  std::string_view usage;
};

constexpr OperationShape shapes[] = {
    {"list", Operation::list, 0, 0, "tn list"},
    {"call", Operation::call, 2, 3, "tn call PATH COMMAND [MESSAGE]"},
    {"send", Operation::send, 2, 3, "tn send PATH COMMAND [MESSAGE]"},
    {"monitor", Operation::monitor, 0, 0, "tn monitor [--count N]"},
    {"stats", Operation::stats, 0, 0, "tn stats"},
};

enum class Option : std::uint8_t { help, timeout, count, lineForm, quiet };

struct OptionShape {
  std::string_view shortName;
  std::string_view longName;
  Option option;
  bool takesValue;
};

constexpr OptionShape options[] = {
    {"-h", "--help", Option::help, false},   {"-t", "--timeout", Option::timeout, true},
    {"-n", "--count", Option::count, true},  {"-j", "--json", Option::lineForm, false},
    {"-q", "--quiet", Option::quiet, false},
};

// Texts of the caller, cut and made harmless for a terminal.
std::string shown(std::string_view text) {
  constexpr std::size_t most = 60;
  std::string out = "\"";
  for (const char c : text.substr(0, most))
    out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  return out + (text.size() > most ? "...\"" : "\"");
}

// A whole decimal number or, behind 0x, a hexadecimal one.
std::optional<std::uint64_t> number(std::string_view text) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  std::uint64_t value = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value, isHex ? 16 : 10);
  if (code != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> number32(std::string_view text) {
  const auto value = number(text);
  if (!value || *value > 0xffffffff) return std::nullopt;
  return static_cast<std::uint32_t>(*value);
}

class Parser {
 public:
  Parser(std::span<const char* const> arguments, Arguments& out) : left_(arguments), result_(out) {}

  std::optional<std::string> parse() {
    if (!readAll() || (!helpWanted_ && !readOperands())) return std::move(error_);
    if (helpWanted_) result_.operation = Operation::help;
    return std::nullopt;
  }

 private:
  bool fail(std::string error) {
    error_ = std::move(error);
    return false;
  }

  bool readAll() {
    bool optionsEnded = false;
    while (!left_.empty()) {
      const std::string_view argument = next();
      if (!optionsEnded && argument == "--") {
        optionsEnded = true;
      } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
        if (!readOption(argument)) return false;
      } else {
        operands_.push_back(argument);
      }
    }
    return true;
  }

  std::string_view next() {
    const std::string_view argument = left_.front();
    left_ = left_.subspan(1);
    return argument;
  }

  // -t 500, -t500, --timeout 500, --timeout=500.
  bool readOption(std::string_view argument) {
    const bool isLong = argument.starts_with("--");
    const std::string_view name = isLong ? argument.substr(0, argument.find('=')) : argument.substr(0, 2);
    for (const OptionShape& shape : options) {
      if (name != (isLong ? shape.longName : shape.shortName)) continue;
      std::optional<std::string_view> value;
      if (name.size() < argument.size()) value = argument.substr(name.size() + (isLong ? 1 : 0));
      if (value && !shape.takesValue) return fail("option " + std::string(name) + " takes no value");
      if (!value && shape.takesValue) {
        if (left_.empty()) return fail("option " + std::string(name) + " needs a number");
        value = next();
      }
      return apply(shape, value.value_or(std::string_view()));
    }
    return fail("unknown option " + shown(argument));
  }

  bool apply(const OptionShape& shape, std::string_view value) {
    switch (shape.option) {
      case Option::help:
        helpWanted_ = true;
        return true;
      case Option::lineForm:
        result_.lineForm = true;
        return true;
      case Option::quiet:
        result_.quiet = true;
        return true;
      case Option::timeout:
        return readTimeout(value);
      case Option::count:
        return readCount(value);
    }
    return false;
  }

  bool readTimeout(std::string_view value) {
    const auto milliseconds = number32(value);
    if (!milliseconds || *milliseconds == 0 || *milliseconds > Arguments::maxTimeoutMs) {
      return fail("--timeout needs milliseconds from 1 to 3600000, not " + shown(value));
    }
    result_.timeoutMs = *milliseconds;
    return true;
  }

  bool readCount(std::string_view value) {
    const auto count = number(value);
    if (!count || *count == 0) return fail("--count needs a number above 0, not " + shown(value));
    result_.count = *count;
    return true;
  }

  bool readOperands() {
    if (operands_.empty()) return fail("what is to be done?");
    for (const OperationShape& shape : shapes) {
      if (operands_[0] != shape.name) continue;
      const std::size_t count = operands_.size() - 1;
      if (count < shape.fewest || count > shape.most) return fail("usage: " + std::string(shape.usage));
      result_.operation = shape.operation;
      if (result_.count != 0 && shape.operation != Operation::monitor) return fail("--count goes with monitor alone");
      return shape.fewest == 0 || (readPath(operands_[1]) && readCommand(operands_[2]) && readMessage(count));
    }
    return fail("unknown operation " + shown(operands_[0]));
  }

  bool readPath(std::string_view text) {
    for (std::string_view rest = text;;) {
      const std::size_t end = std::min(rest.find('/'), rest.size());
      const auto element = number32(rest.substr(0, end));
      if (!element) return fail(shown(text) + " is no path such as 68/1");
      result_.path.push_back(*element);
      if (end == rest.size()) break;
      rest.remove_prefix(end + 1);
    }
    if (result_.operation == Operation::call && result_.path[0] >= tn::firstGroup) {
      return fail(shown(text) + " is a group: it can be sent to, not called");
    }
    return true;
  }

  bool readCommand(std::string_view text) {
    auto command = number32(text);
    if (!command) command = tn::commandNumber(text);
    if (!command) return fail(shown(text) + " is neither a command's number nor one of its names");
    result_.command = *command;
    return true;
  }

  bool readMessage(std::size_t count) {
    if (count == 3) result_.message = operands_[3];
    return true;
  }

  std::span<const char* const> left_;
  std::vector<std::string_view> operands_;
  bool helpWanted_ = false;
  Arguments& result_;
  std::string error_;
};

}  // namespace

std::optional<std::string> parseArguments(std::span<const char* const> arguments, Arguments& out) {
  out = Arguments();
  return Parser(arguments, out).parse();
}

std::string_view helpText() {
  return R"(tn - talk to the services on the bus

  tn list                          programs on the bus: id and name
  tn call PATH COMMAND [MESSAGE]   send a message and show the answer
  tn send PATH COMMAND [MESSAGE]   send a message that wants no answer
  tn monitor [--count N]           show what passes over the bus (root only)
  tn stats                         what the broker has counted

PATH     program and handler: 68/1. Groups (0xff0000 and above) can be sent to.
COMMAND  a number (0x30003), or: get set reset getObj setObj getAll stopGetAll
         addObj removeObj moveObj getCount getPolicies shutdown disconnected
MESSAGE  fields in the line form; - reads it from standard input. A key is the
         letter of the type and the field's number in hexadecimal:
           {b1:1,u2:500,q3:0xff,s4:'it\'s',r5:[1,2],m6:{u1:1},a7:[16 bytes]}
         and the capital letters are lists: {U1:[68,1],S2:['a','b'],M3:[{}]}

  -t, --timeout MS   how long to wait for the bus and for the answer (5000)
  -n, --count N      end after N frames
  -j, --json         print messages in the line form, one a line
  -q, --quiet        print nothing but errors
  -h, --help         this text

Exit status: 0 done; 1 the answer was an error; 2 wrong usage; 3 the bus or the
service cannot be reached, or no answer came in time.
)";
}

}  // namespace tool
