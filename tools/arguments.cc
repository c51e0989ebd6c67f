#include "tools/arguments.h"

#include <algorithm>

#include "platform/bus/text_parts.h"
#include "tools/names.h"
#include "tools/verb.h"

namespace tool {

namespace {

constexpr OptionShape shapes[] = {
    {"-n", "--count", Option::count, "N", "end after N frames; the newest N lines"},
    {"-f", "--follow", Option::follow, "", "go on with new lines as they come"},
    {"-p", "--program", Option::program, "NAME", "only from or to this program (name or id)"},
    {"", "--from", Option::from, "NAME", "only from this program"},
    {"", "--to", Option::to, "NAME", "only to this program"},
    {"", "--path", Option::path, "PATH", "only to this handler, and answers from it"},
    {"-c", "--command", Option::command, "COMMAND", "only with this command, and answers to it"},
    {"-k", "--kind", Option::kind, "KIND", "only request, reply, error, message, bounced or control"},
    {"", "--markdown", Option::markdown, "", "as the page of the documents"},
    {"-t", "--timeout", Option::timeout, "MS", "how long to wait for the bus and for an answer (5000)"},
    {"-l", "--lines", Option::lines, "", "show messages in the line form, one a line"},
    {"-j", "--json", Option::json, "", "show messages as JSON, one a line"},
    {"-q", "--quiet", Option::quiet, "", "print nothing but errors"},
    {"-h", "--help", Option::help, "", "tell about tn, or about the command"},
    {"", "--version", Option::version, "", "tell the version"},
};

constexpr std::uint32_t everywhere = bitOf(Option::help) | bitOf(Option::version) | bitOf(Option::timeout) |
                                     bitOf(Option::lines) | bitOf(Option::json) | bitOf(Option::quiet);

class Parser {
 public:
  Parser(std::span<const char* const> arguments, std::span<const Verb> verbs, Arguments& out)
      : left_(arguments), verbs_(verbs), result_(out) {}

  std::optional<std::string> parse() {
    if (!readAll()) return std::move(error_);
    if (result_.help || result_.version) return std::nullopt;
    if (!checkVerb()) return std::move(error_);
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
      } else if (!verbGiven_) {
        verbGiven_ = true;
        result_.verb = argument;
      } else {
        result_.operands.push_back(argument);
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
    for (const OptionShape& shape : shapes) {
      if (name != (isLong ? shape.longName : shape.shortName)) continue;
      std::optional<std::string_view> value;
      if (name.size() < argument.size()) value = argument.substr(name.size() + (isLong ? 1 : 0));
      if (value && shape.value.empty()) return fail("option " + std::string(name) + " takes no value");
      if (!value && !shape.value.empty()) {
        if (left_.empty()) return fail("option " + std::string(name) + " needs a value");
        value = next();
      }
      given_ |= bitOf(shape.option);
      return apply(shape, value.value_or(std::string_view()));
    }
    return fail("unknown option " + quoted(argument));
  }

  bool apply(const OptionShape& shape, std::string_view value) {
    switch (shape.option) {
      case Option::help:
        return set(result_.help);
      case Option::version:
        return set(result_.version);
      case Option::quiet:
        return set(result_.quiet);
      case Option::follow:
        return set(result_.follow);
      case Option::markdown:
        return set(result_.markdown);
      case Option::lines:
        result_.form = Form::lines;
        return true;
      case Option::json:
        result_.form = Form::json;
        return true;
      case Option::timeout:
        return readTimeout(value);
      case Option::count:
        return readCount(value);
      case Option::program:
        return take(result_.program, shape, value);
      case Option::from:
        return take(result_.from, shape, value);
      case Option::to:
        return take(result_.to, shape, value);
      case Option::path:
        return take(result_.path, shape, value);
      case Option::command:
        return take(result_.command, shape, value);
      case Option::kind:
        return take(result_.kind, shape, value);
    }
    return false;
  }

  static bool set(bool& flag) {
    flag = true;
    return true;
  }

  bool take(std::string_view& where, const OptionShape& shape, std::string_view value) {
    if (value.empty()) return fail("option " + std::string(shape.longName) + " needs a value");
    where = value;
    return true;
  }

  bool readTimeout(std::string_view value) {
    const auto milliseconds = wholeNumber32(value);
    if (!milliseconds || *milliseconds == 0 || *milliseconds > Arguments::maxTimeoutMs) {
      return fail("--timeout needs milliseconds from 1 to 3600000, not " + quoted(value));
    }
    result_.timeoutMs = *milliseconds;
    return true;
  }

  bool readCount(std::string_view value) {
    const auto count = wholeNumber(value);
    if (!count || *count == 0) return fail("--count needs a number above 0, not " + quoted(value));
    result_.count = *count;
    return true;
  }

  bool checkVerb() {
    if (!verbGiven_) return fail("what is to be done?");
    const Verb* const verb = findVerb(verbs_, result_.verb);
    if (verb == nullptr) return fail("unknown command " + quoted(result_.verb));
    for (const OptionShape& shape : shapes) {
      if ((given_ & bitOf(shape.option) & ~everywhere & ~verb->options) == 0) continue;
      return fail("option " + std::string(shape.longName) + " does not go with " + std::string(verb->name));
    }
    if (result_.operands.size() < verb->fewest || result_.operands.size() > verb->most) {
      return fail("usage: tn " + std::string(verb->usage));
    }
    return true;
  }

  std::span<const char* const> left_;
  std::span<const Verb> verbs_;
  Arguments& result_;
  std::uint32_t given_ = 0;
  bool verbGiven_ = false;
  std::string error_;
};

}  // namespace

std::span<const OptionShape> optionShapes() {
  return shapes;
}

const Verb* findVerb(std::span<const Verb> verbs, std::string_view name) {
  const auto found = std::ranges::find(verbs, name, &Verb::name);
  return found == verbs.end() ? nullptr : &*found;
}

bool takesOption(const Verb& verb, Option option) {
  return ((everywhere | verb.options) & bitOf(option)) != 0;
}

std::optional<std::string> parseArguments(std::span<const char* const> arguments, std::span<const Verb> verbs,
                                          Arguments& out) {
  out = Arguments();
  return Parser(arguments, verbs, out).parse();
}

std::string quoted(std::string_view text) {
  constexpr std::size_t most = 60;
  std::size_t end = 0;
  for (std::size_t next = 0; next <= most; next += std::max<std::size_t>(tn::characterLength(text.substr(next)), 1)) {
    end = next;
    if (next == text.size()) break;
  }
  return '"' + tn::printableText(text.substr(0, end)) + (end < text.size() ? "...\"" : "\"");
}

}  // namespace tool
