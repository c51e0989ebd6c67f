// complete: what may stand where the cursor is, for the functions of the shells. Each candidate is a line; what is
// behind a tab is told to the person. A line that begins with the tab asks for names of files.

#include <algorithm>

#include "platform/bus/text_parts.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::message;

struct Word {
  std::string_view verb;
  std::string_view before;  // the operand in front; empty: the first one
  std::string_view word;
  std::string_view about;
};

// Words of the verbs that have verbs of their own.
constexpr Word words[] = {
    {"servers", "", "list", "show all"},
    {"servers", "", "set", "change one"},
    {"servers", "", "add", "add one"},
    {"servers", "", "remove", "remove one"},
    {"users", "", "list", "show all"},
    {"users", "", "add", "add one"},
    {"users", "", "set", "change one"},
    {"users", "", "remove", "remove one"},
    {"users", "", "password", "give another password"},
    {"users", "", "groups", "the groups"},
    {"users", "groups", "list", "show all"},
    {"users", "groups", "add", "add one"},
    {"users", "groups", "set", "change one"},
    {"users", "groups", "remove", "remove one"},
    {"sessions", "", "list", "show all"},
    {"sessions", "", "end", "end one"},
};

constexpr std::string_view serverSettings[] = {"port=", "enabled=yes", "enabled=no", "tls=1", "tls=no", "allowed="};
constexpr std::string_view kinds[] = {"message", "request", "reply", "error", "bounced", "control"};

class Completer {
 public:
  explicit Completer(Context& context) : context_(context), given_(context.arguments().operands) {
    if (given_.empty()) given_.emplace_back();
    current_ = given_.back();
    given_.pop_back();
  }

  void run() {
    if (const OptionShape* const option = sort()) return completeValue(*option);
    if (current_.starts_with('-') && !optionsEnded_) return completeOption();
    if (operands_.empty()) return completeVerb();
    completeOperand();
  }

 private:
  void offer(std::string_view word, std::string_view about = {}) {
    if (!word.starts_with(current_)) return;
    std::string line(word);
    if (!about.empty()) line.append("\t").append(about);
    context_.output().print(line + '\n');
  }

  // Tells operands from options. Returns the option whose value is to be completed, if it is one.
  const OptionShape* sort() {
    for (std::size_t i = 0; i < given_.size(); ++i) {
      const std::string_view word = given_[i];
      if (optionsEnded_ || !word.starts_with('-') || word.size() < 2) {
        operands_.push_back(word);
        continue;
      }
      optionsEnded_ = word == "--";
      const OptionShape* const option = optionOf(word);
      if (option == nullptr || option->value.empty()) continue;
      if (i + 1 == given_.size()) return option;
      ++i;
    }
    return nullptr;
  }

  static const OptionShape* optionOf(std::string_view word) {
    for (const OptionShape& option : optionShapes()) {
      if (word == option.shortName || word == option.longName) return &option;
    }
    return nullptr;
  }

  [[nodiscard]] const Verb* verb() const { return operands_.empty() ? nullptr : findVerb(allVerbs(), operands_[0]); }

  void completeOption() {
    const Verb* const own = verb();
    for (const OptionShape& option : optionShapes()) {
      if (!takesOption(own != nullptr ? *own : Verb{}, option.option)) continue;
      if (!current_.starts_with("--")) offer(option.shortName, option.about);
      offer(option.longName, option.about);
    }
  }

  void completeValue(const OptionShape& option) {
    switch (option.option) {
      case Option::program:
      case Option::from:
      case Option::to:
        return offerPrograms("");
      case Option::path:
        return offerPaths();
      case Option::command:
        for (const HandlerShape& handler : knownHandlers())
          offerOwnCommands(handler);
        return offerShortNames();
      case Option::kind:
        for (const std::string_view kind : kinds)
          offer(kind);
        return;
      default:
        return;
    }
  }

  void completeVerb() {
    for (const Verb& one : allVerbs()) {
      if (!one.isHidden) offer(one.name, one.about);
    }
  }

  void completeOperand() {
    const std::string_view name = operands_[0];
    if (name == "help" && operands_.size() == 1) return completeVerb();
    if (name == "names" && operands_.size() == 1) return offerPaths();
    if (name == "check") {
      context_.output().print("\tfiles\n");
      return;
    }
    if (name == "call" || name == "send") return completeCall();
    offerWords();
    if (name == "servers") completeServers();
    if (name == "users") completeUsers();
    if (name == "sessions" && operands_.size() == 2 && operands_[1] == "end") offerSessions();
  }

  void offerWords() {
    const std::string_view before = operands_.size() > 1 ? operands_[1] : std::string_view();
    if (operands_.size() > 2) return;
    for (const Word& word : words) {
      if (word.verb == operands_[0] && word.before == before) offer(word.word, word.about);
    }
  }

  void completeCall() {
    if (operands_.size() == 1) return offerPaths();
    const auto path = readPath(operands_[1]);
    if (!path) return;
    if (operands_.size() == 2) {
      if (path->handler != nullptr) offerOwnCommands(*path->handler);
      return offerShortNames();
    }
    const auto number = commandNumbered(path->handler, operands_[2]);
    const CommandShape* const command = number ? commandOf(path->handler, *number) : nullptr;
    if (command != nullptr) offerFields(command->in);
  }

  void completeServers() {
    if (operands_.size() == 2 && operands_[1] != "add") return offerEntries("sermgr", "servers");
    if (operands_.size() < 3 || operands_[1] == "remove") return;
    for (const std::string_view setting : serverSettings)
      offer(setting);
  }

  void completeUsers() {
    const bool isGroup = operands_.size() > 1 && operands_[1] == "groups";
    const std::size_t named = isGroup ? 3 : 2;
    if (operands_.size() < named) return;
    const std::string_view what = operands_[named - 1];
    if (operands_.size() == named && what != "add") return offerEntries("userd", isGroup ? "groups" : "users");
    if (operands_.size() == named || (what != "add" && what != "set")) return;
    offerFields(commandOf(handlerNamed("userd", isGroup ? "groups" : "users"), tn::command::addObj)->in);
  }

  void offerFields(const tn::FieldNames* names) {
    if (names == nullptr) return;
    for (const tn::FieldName& field : names->fields) {
      const std::string start = std::string(field.name) + '=';
      if (tn::FieldType{field.key & tn::typeMask} == tn::FieldType::boolean) {
        offer(start + "yes");
        offer(start + "no");
      } else {
        offer(start);
      }
    }
  }

  void offerOwnCommands(const HandlerShape& handler) {
    for (const CommandShape& command : handler.commands)
      offer(command.name, command.about);
  }

  void offerShortNames() {
    for (const ShortName& entry : shortNames())
      offer(entry.name, tn::commandName(entry.number));
  }

  void offerPaths() {
    for (const HandlerShape& handler : knownHandlers())
      offer(std::string(handler.program) + '/' + std::string(handler.name), handler.about);
    offerPrograms("/");
  }

  // Programs that are on the bus now.
  void offerPrograms(std::string_view suffix) {
    Bus* const bus = context_.bus();
    if (bus == nullptr) return;
    for (const message& program : messagesOf(bus->control(tn::control::list), tn::message_array_id(4))) {
      const std::string name = textOf(program, tn::string_id(3));
      const bool isKnown =
          !suffix.empty() && std::ranges::find(knownHandlers(), name, &HandlerShape::program) != knownHandlers().end();
      if (!isKnown) offer(name + std::string(suffix));
    }
  }

  void offerEntries(std::string_view program, std::string_view handler) {
    if (context_.bus() == nullptr) return;
    const message answer = context_.ask(*handlerNamed(program, handler), tn::command::getAll);
    for (const message& entry : messagesOf(answer, tn::message_array_id(1)))
      offer(textOf(entry, tn::string_id(1)));
  }

  void offerSessions() {
    if (context_.bus() == nullptr) return;
    const message answer = context_.ask(*handlerNamed("www", "sessions"), tn::command::getAll);
    for (const message& session : messagesOf(answer, tn::message_array_id(1)))
      offer(decimal(numberOf(session, tn::u32_id(1))), textOf(session, tn::string_id(2)));
  }

  Context& context_;
  std::vector<std::string_view> given_;
  std::vector<std::string_view> operands_;
  std::string_view current_;
  bool optionsEnded_ = false;
};

}  // namespace

ExitStatus complete(Context& context) {
  Completer(context).run();
  return ExitStatus::done;
}

}  // namespace tool::verbs
