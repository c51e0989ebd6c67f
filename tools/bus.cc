#include "tools/bus.h"

#include "platform/bus/timer.h"

namespace tool {

namespace {

// The program's only handler; any number would do.
constexpr std::uint32_t ownHandlerId = 1;

constexpr tn::u32_id controlOperation{1};
constexpr tn::u32_id programId{2};
constexpr tn::string_id programName{3};
constexpr tn::message_array_id programs{4};

}  // namespace

ExitStatus statusOf(const tn::message& answer) {
  if (!tn::isError(answer)) return ExitStatus::done;
  const std::uint32_t code = answer.get(tn::field::errorCode).value_or(0);
  const bool isNoAnswer = code == tn::error::timeout || code == tn::error::unreachable;
  return isNoAnswer ? ExitStatus::unreachable : ExitStatus::refused;
}

Bus::Bus(tn::Looper& looper, std::uint32_t timeoutMs) : looper_(looper), timeoutMs_(timeoutMs) {
  looper_.addHandler(ownHandlerId, *this);
}

Bus::~Bus() {
  looper_.removeHandler(ownHandlerId);
}

bool Bus::join() {
  if (looper_.busId() != 0) return true;
  wait(timeoutMs_);
  return linked_;
}

void Bus::linked() {
  linked_ = true;
  if (!asking_) endWait();
}

// Answers that are awaited fail by themselves.
void Bus::unlinked() {
  lost_ = true;
  if (!asking_) endWait();
}

tn::message Bus::ask(std::span<const std::uint32_t> path, std::uint32_t command, tn::message fields) {
  const bool fits = fields.insert(tn::field::command, command) && fields.insert_vector(tn::field::destination, path);
  return fits ? askMessage(std::move(fields))
              : tn::errorMsg(tn::error::unreachable, "the message is larger than the bus carries");
}

tn::message Bus::askMessage(tn::message request) {
  answered_ = false;
  const tn::PostId post = postMessage(
      std::move(request), [this](const tn::message& answer) { take(answer); }, timeoutMs_);
  tn::message answer = await();
  cancelPost(post);
  return answer;
}

tn::message Bus::control(std::uint32_t operation) {
  answered_ = false;
  tn::message request;
  request.insert(controlOperation, operation);
  looper_.control(
      request, [this](const tn::message& answer) { take(answer); }, timeoutMs_);
  return await();
}

// The broker takes one frame after the other: when it answers what was asked behind the message, it has the message.
tn::message Bus::deliver(tn::message msg) {
  sendMessage(std::move(msg));
  return control(tn::control::list);
}

std::uint32_t Bus::find(std::string_view name, tn::message& error) {
  const tn::message answer = control(tn::control::list);
  if (tn::isError(answer)) {
    error = answer;
    return 0;
  }
  for (const tn::message& program : answer.get(programs).value_or(std::vector<tn::message>())) {
    if (program.get(programName) == name) return program.get(programId).value_or(0);
  }
  error = tn::errorMsg(tn::error::unreachable, std::string(name) + " is not on the bus");
  return 0;
}

void Bus::wait(std::uint32_t milliseconds) {
  tn::Timer timer([this] { endWait(); });
  timer.start(looper_.runner().timers(), milliseconds);
  waitForEver();
}

void Bus::waitForEver() {
  ended_ = false;
  looper_.run();
  // The loop was ended by a signal, or nothing works any more.
  if (!ended_) stopped_ = true;
}

void Bus::endWait() {
  ended_ = true;
  looper_.quit();
}

tn::message Bus::await() {
  asking_ = true;
  if (!answered_) waitForEver();
  asking_ = false;
  return answered_ ? std::move(answer_) : tn::errorMsg(tn::error::unreachable, "stopped");
}

void Bus::take(const tn::message& answer) {
  answered_ = true;
  answer_ = answer;
  endWait();
}

}  // namespace tool
