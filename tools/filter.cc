#include "tools/filter.h"

#include <algorithm>

#include "tools/json.h"
#include "tools/units.h"

namespace tool {

namespace {

using tn::FrameKind;
using tn::message;

constexpr tn::u32_id programId{2};
constexpr tn::string_id programName{3};
constexpr tn::message_array_id programList{4};

std::vector<std::uint32_t> restOf(const message& msg, tn::u32_array_id id) {
  return msg.get(id).value_or(std::vector<std::uint32_t>());
}

bool isAnswer(const message& msg) {
  return msg.get(tn::field::isReply).value_or(false);
}

std::string pathText(std::uint32_t first, const std::vector<std::uint32_t>& rest, const Programs& programs) {
  std::string text = decimal(first);
  for (const std::uint32_t element : rest)
    text += '/' + decimal(element);
  const std::string_view name = programs.nameOf(first);
  if (!name.empty()) text.append(" (").append(name).append(")");
  return text;
}

std::string kindText(const Observed& frame, const message& msg) {
  switch (frame.kind) {
    case FrameKind::message:
      if (isAnswer(msg)) return msg.has(tn::field::errorCode) ? "error" : "reply";
      return msg.has(tn::field::requestNumber) ? "request" : "message";
    case FrameKind::bounced:
      return "bounced";
    case FrameKind::control:
      return "control";
    case FrameKind::observed:
      break;
  }
  return "kind " + decimal(static_cast<std::uint32_t>(frame.kind));
}

const tn::FieldNames* namesOf(const Subject& subject) {
  if (!subject.command) return nullptr;
  const CommandShape* const command = commandOf(subject.handler, *subject.command);
  if (command == nullptr) return nullptr;
  return subject.isAnswer ? command->out : command->in;
}

}  // namespace

void Programs::set(const message& list) {
  names_.clear();
  for (const message& program : messagesOf(list, programList))
    names_[program.get(programId).value_or(0)] = textOf(program, programName);
}

void Programs::noteAsked(std::uint32_t id) {
  if (names_.contains(id)) return;
  if (absent_.size() == mostAbsent) absent_.clear();
  absent_.insert(id);
}

std::string_view Programs::nameOf(std::uint32_t id) const {
  const auto found = names_.find(id);
  return found == names_.end() ? std::string_view() : found->second;
}

bool Programs::is(std::uint32_t id, std::string_view meant) const {
  const auto number = wholeNumber32(meant);
  return number ? *number == id : nameOf(id) == meant || (id != 0 && fixedId(meant) == id);
}

Subject Conversations::note(const Observed& frame, const message& msg, const Programs& programs) {
  if (frame.kind == FrameKind::control) return {};
  const auto number = msg.get(tn::field::requestNumber);
  if (frame.kind == FrameKind::message && isAnswer(msg)) {
    const auto found = number ? requests_.find({frame.to, *number}) : requests_.end();
    if (found == requests_.end()) return {true, nullptr, std::nullopt};
    Subject subject = found->second;
    requests_.erase(found);
    subject.isAnswer = true;
    return subject;
  }
  std::vector<std::uint32_t> path = restOf(msg, tn::field::destination);
  const std::uint32_t program = isTurned(frame) ? frame.from : frame.to;
  path.insert(path.begin(), program);
  const Subject subject{false, handlerAt(path, programs.nameOf(program)), msg.get(tn::field::command)};
  if (number && frame.kind == FrameKind::message) {
    if (requests_.size() >= mostRequests) requests_.clear();
    requests_[{frame.from, *number}] = subject;
  }
  return subject;
}

std::optional<std::string> Filter::read(const Arguments& arguments) {
  program_ = arguments.program;
  from_ = arguments.from;
  to_ = arguments.to;
  if (!arguments.path.empty()) {
    path_ = readPath(arguments.path);
    if (!path_) return quoted(arguments.path) + " is no path such as 68/1 or sermgr/servers";
  }
  if (!arguments.command.empty()) {
    const HandlerShape* const handler = path_ ? path_->handler : nullptr;
    command_ = commandNumbered(handler, arguments.command);
    for (const HandlerShape& shape : knownHandlers()) {
      if (command_ || path_) break;
      command_ = commandNumbered(&shape, arguments.command);
    }
    if (!command_) return quoted(arguments.command) + " is neither a command's number nor one of its names";
  }
  if (arguments.kind.empty()) return std::nullopt;
  const auto found = std::ranges::find(kindNames, arguments.kind, &KindName::name);
  if (found == std::end(kindNames)) {
    return "--kind needs message, request, reply, error, bounced or control, not " + quoted(arguments.kind);
  }
  kind_ = found->kind;
  return std::nullopt;
}

bool Filter::passesPath(const Observed& frame, const message& msg, const Programs& programs) const {
  if (!path_) return true;
  if (frame.kind == FrameKind::control) return false;
  const bool isFromThere = isTurned(frame) || isAnswer(msg);
  const std::uint32_t program = isFromThere ? frame.from : frame.to;
  const bool isProgram = path_->program.empty() ? program == path_->path[0] : programs.is(program, path_->program);
  if (!isProgram) return false;
  const bool isSender = isAnswer(msg) && !isTurned(frame);
  const auto rest = restOf(msg, isSender ? tn::field::sender : tn::field::destination);
  const auto wanted = std::span(path_->path).subspan(1);
  return rest.size() >= wanted.size() && std::equal(wanted.begin(), wanted.end(), rest.begin());
}

bool Filter::passesKind(const Observed& frame, const message& msg) const {
  const bool isMessage = frame.kind == FrameKind::message;
  switch (kind_) {
    case Kind::any:
      return true;
    case Kind::message:
      return isMessage;
    case Kind::request:
      return isMessage && !isAnswer(msg) && msg.has(tn::field::requestNumber);
    case Kind::reply:
      return isMessage && isAnswer(msg);
    case Kind::error:
      return isMessage && msg.has(tn::field::errorCode);
    case Kind::bounced:
      return frame.kind == FrameKind::bounced;
    case Kind::control:
      return frame.kind == FrameKind::control;
  }
  return false;
}

bool Filter::passes(const Observed& frame, const message& msg, const Subject& subject, const Programs& programs) const {
  if (!program_.empty() && !programs.is(frame.from, program_) && !programs.is(frame.to, program_)) return false;
  if (!from_.empty() && !programs.is(frame.from, from_)) return false;
  if (!to_.empty() && !programs.is(frame.to, to_)) return false;
  if (command_ && subject.command != command_) return false;
  return passesKind(frame, msg) && passesPath(frame, msg, programs);
}

std::string renderObserved(const Observed& frame, const message& msg, bool isMessage, const Subject& subject,
                           const Programs& programs, Form form) {
  const tn::FieldNames* const names = namesOf(subject);
  const auto kind = static_cast<std::uint32_t>(frame.kind);
  if (form == Form::lines) {
    return "{u1:" + decimal(frame.from) + ",u2:" + decimal(frame.to) + ",u3:" + decimal(kind) +
           ",q4:" + decimal(frame.milliseconds) + (isMessage ? ",m5:" + tn::writeText(msg) : "") + "}\n";
  }
  if (form == Form::json) {
    return "{\"from\":" + decimal(frame.from) + ",\"to\":" + decimal(frame.to) + ",\"kind\":" + decimal(kind) +
           ",\"time-ms\":" + decimal(frame.milliseconds) + (isMessage ? ",\"message\":" + writeJson(msg, names) : "") +
           "}\n";
  }
  const auto fromRest = restOf(msg, isTurned(frame) ? tn::field::destination : tn::field::sender);
  const auto toRest = restOf(msg, isTurned(frame) ? tn::field::sender : tn::field::destination);
  std::string out = secondsText(frame.milliseconds) + ' ' + pathText(frame.from, fromRest, programs) + " -> " +
                    pathText(frame.to, toRest, programs) + ' ' + kindText(frame, msg);
  if (subject.command) out += ' ' + commandText(subject.handler, *subject.command);
  out += ", " + decimal(frame.payload.size()) + (isMessage ? " bytes\n" : " bytes that are no message\n");
  return out + tn::writeTree(msg, 2, names);
}

}  // namespace tool
