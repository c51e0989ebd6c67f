#include "services/sysd/console_handler.h"

#include <utility>

#include "platform/policies.h"
#include "services/common/clock.h"
#include "services/sysd/errors.h"

namespace sysd {
namespace {

constexpr std::uint32_t answerMs = 5000;

// Of control messages:
constexpr tn::u32_id operation{1};
constexpr tn::bool_id offField{2};

// Of the request, besides what asks for the newest of anything:
constexpr tn::u32_id programField{3};
constexpr tn::string_id containingField{4};

// Of each frame:
constexpr tn::u64_id numberField{1};
constexpr tn::u64_id timeField{2};
constexpr tn::u32_id fromField{3};
constexpr tn::u32_id toField{4};
constexpr tn::u32_id kindField{5};
constexpr tn::u32_id bytesField{6};
constexpr tn::string_id textField{7};

bool maySeeAll(const tn::message& msg) {
  if (tn::policies::isOfSystem(msg)) return true;
  return (msg.get(tn::field::policies).value_or(0) & tn::policies::all) == tn::policies::all;
}

tn::message describe(const FrameRing::Frame& frame) {
  tn::message entry;
  entry.insert(numberField, frame.number);
  entry.insert(timeField, frame.time);
  entry.insert(fromField, frame.from);
  entry.insert(toField, frame.to);
  entry.insert(kindField, frame.kind);
  entry.insert(bytesField, frame.bytes);
  entry.insert(textField, frame.text);
  return entry;
}

}  // namespace

ConsoleHandler::ConsoleHandler(tn::Looper& looper) : looper_(looper), stop_([this] { stopWatching(); }) {
  looper_.setObserver([this](std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                             std::span<const std::uint8_t> payload) { onFrame(from, to, kind, payload); });
}

ConsoleHandler::~ConsoleHandler() {
  looper_.setObserver({});
}

tn::message ConsoleHandler::cmdGetAll(tn::message& msg) {
  if (!maySeeAll(msg)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
  const std::uint32_t most = msg.get(service::mostField).value_or(usualFrames);
  if (most < 1 || most > mostFrames) {
    return tn::errorMsg(error::badRequest, "an answer (u32 2) has 1 to 200 frames");
  }
  if (refusal_) return *std::exchange(refusal_, std::nullopt);
  watch();
  FrameRing::Query query;
  query.after = msg.get(service::afterField).value_or(0);
  query.most = most;
  query.mostBytes = mostBytes;
  query.program = msg.get(programField);
  query.containing = msg.get(containingField).value_or(std::string_view());
  return service::newestMessage(ring_.find(query), describe);
}

void ConsoleHandler::watch() {
  if (!watching()) {
    // Numbers of requests may have been used again for a secret, unseen.
    secrecy_ = {};
    askBroker(false);
  }
  stop_.start(looper_.runner().timers(), watchMs);
}

void ConsoleHandler::stopWatching() {
  askBroker(true);
  ring_.clear();
}

// The broker has forgotten it with the link; the next question asks anew.
void ConsoleHandler::unlinked() {
  stop_.cancel();
}

void ConsoleHandler::askBroker(bool off) {
  tn::message request;
  request.insert(operation, tn::control::monitor);
  if (off) request.insert(offField, true);
  const auto onAnswer = [this, off](const tn::message& answer) {
    if (off || !tn::isError(answer)) return;
    stop_.cancel();
    const std::uint32_t code = answer.get(tn::field::errorCode).value_or(0);
    // Without a word of the broker's own the next question tries again.
    if (code == tn::error::timeout || code == tn::error::unreachable) return;
    refusal_ = tn::errorMsg(code, tn::getError(answer));
  };
  looper_.control(request, onAnswer, answerMs);
}

void ConsoleHandler::onFrame(std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                             std::span<const std::uint8_t> payload) {
  if (!watching() || from == looper_.busId() || to == looper_.busId()) return;
  ring_.add({0, service::calendarMs(), from, to, static_cast<std::uint32_t>(kind),
             static_cast<std::uint32_t>(payload.size()), textOf(from, to, kind, payload)});
}

std::string ConsoleHandler::textOf(std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                                   std::span<const std::uint8_t> payload) {
  tn::message msg;
  const bool isShort = payload.size() <= FrameRing::maxShownPayload;
  const bool isMessage = isShort && msg.unflatten(payload);
  if (!secrecy_.mayBeShown(from, to, kind, msg, isMessage)) return "(not shown)";
  if (!isShort) return "(too long to be shown)";
  return isMessage ? shownText(msg) : "(no message)";
}

}  // namespace sysd
