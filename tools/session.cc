#include "tools/session.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/render.h"

namespace tool {

namespace {

// The program's only handler; any number would do.
constexpr std::uint32_t ownHandlerId = 1;

constexpr tn::u32_id controlOperation{1};

tn::message controlRequest(std::uint32_t operation) {
  tn::message request;
  request.insert(controlOperation, operation);
  return request;
}

ExitStatus statusOf(const tn::message& answer) {
  if (!tn::isError(answer)) return ExitStatus::done;
  const std::uint32_t code = answer.get(tn::field::errorCode).value_or(0);
  const bool isNoAnswer = code == tn::error::timeout || code == tn::error::unreachable;
  return isNoAnswer ? ExitStatus::unreachable : ExitStatus::refused;
}

}  // namespace

void printError(std::string_view error) {
  std::string line = "tn: ";
  line.append(error).append("\n");
  std::fputs(line.c_str(), stderr);
}

Session::Session(tn::Looper& looper, const Arguments& arguments, tn::message request, std::FILE* out)
    : looper_(looper), arguments_(arguments), request_(std::move(request)), out_(out), linkTimer_([this] {
        onLinkTimeout();
      }) {}

ExitStatus Session::run() {
  looper_.addHandler(ownHandlerId, *this);
  linkTimer_.start(looper_.runner().timers(), arguments_.timeoutMs);
  looper_.run();
  looper_.removeHandler(ownHandlerId);
  // The loop was ended by a signal, which is the usual end of a monitor alone, or because nothing works any more.
  if (!finished_ && arguments_.operation != Operation::monitor) return ExitStatus::unreachable;
  return status_;
}

void Session::linked() {
  if (started_) return;
  started_ = true;
  linkTimer_.cancel();
  start();
}

// Answers that are awaited fail by themselves.
void Session::unlinked() {
  if (arguments_.operation == Operation::monitor) fail(ExitStatus::unreachable, "the bus is gone");
}

void Session::onLinkTimeout() {
  fail(ExitStatus::unreachable, std::string("cannot reach the bus at ") + tn::busSocketPath + ": no answer");
}

void Session::start() {
  switch (arguments_.operation) {
    case Operation::help:
      return finish(ExitStatus::done);
    case Operation::list:
      return ask(tn::control::list);
    case Operation::stats:
      return ask(tn::control::statistics);
    case Operation::call:
      return call();
    case Operation::send:
      return send();
    case Operation::monitor:
      return startMonitor();
  }
}

void Session::ask(std::uint32_t operation) {
  looper_.control(
      controlRequest(operation), [this](const tn::message& answer) { onAnswer(answer); }, arguments_.timeoutMs);
}

void Session::call() {
  postMessage(
      std::move(request_), [this](const tn::message& answer) { onAnswer(answer); }, arguments_.timeoutMs);
}

// The broker takes one frame after the other: when it answers what was asked behind the message, it has the message.
void Session::send() {
  sendMessage(std::move(request_));
  ask(tn::control::list);
}

void Session::startMonitor() {
  monitorBegan_ = tn::Clock::now();
  looper_.setObserver([this](std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                             std::span<const std::uint8_t> payload) { onObserved(from, to, kind, payload); });
  ask(tn::control::monitor);
}

void Session::onAnswer(const tn::message& answer) {
  const ExitStatus status = statusOf(answer);
  if (status != ExitStatus::done) return fail(status, renderError(answer));
  if (arguments_.operation == Operation::monitor) return;
  print(render(answer));
  finish(ExitStatus::done);
}

std::string Session::render(const tn::message& answer) const {
  switch (arguments_.operation) {
    case Operation::list:
      return renderList(answer, arguments_.lineForm);
    case Operation::stats:
      return renderStatistics(answer, arguments_.lineForm);
    case Operation::call:
      return renderAnswer(answer, arguments_.lineForm);
    case Operation::send:
    case Operation::monitor:
    case Operation::help:
      break;
  }
  return {};
}

void Session::onObserved(std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                         std::span<const std::uint8_t> payload) {
  if (finished_) return;
  const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(tn::Clock::now() - monitorBegan_);
  print(
      renderObserved({from, to, static_cast<std::uint32_t>(kind), static_cast<std::uint64_t>(passed.count()), payload},
                     arguments_.lineForm));
  if (++observed_ == arguments_.count) finish(ExitStatus::done);
}

void Session::finish(ExitStatus status) {
  if (finished_) return;
  finished_ = true;
  status_ = status;
  looper_.quit();
}

void Session::fail(ExitStatus status, std::string_view error) {
  if (!finished_) printError(error);
  finish(status);
}

void Session::print(std::string_view text) {
  if (arguments_.quiet || finished_) return;
  if (std::fwrite(text.data(), 1, text.size(), out_) == text.size() && std::fflush(out_) == 0) return;
  fail(ExitStatus::unreachable, std::string("cannot write: ").append(std::strerror(errno)));
}

}  // namespace tool
