#include <chrono>

#include "tools/filter.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

// Shows frames as they come. New programs are learned by asking the broker again.
class Monitor {
 public:
  Monitor(Context& context, Bus& bus, const Filter& filter) : context_(context), bus_(bus), filter_(filter) {}

  void learn(const tn::message& list) { programs_.set(list); }

  void onFrame(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, std::span<const std::uint8_t> payload) {
    if (done_) return;
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(tn::Clock::now() - began_);
    const Observed frame{from, to, kind, static_cast<std::uint64_t>(passed.count()), payload};
    tn::message msg;
    const bool isMessage = msg.unflatten(payload);
    programs_.noteSender(isTurned(frame) ? to : from);
    askAbout(from);
    askAbout(to);
    const Subject subject = conversations_.note(frame, msg, programs_);
    if (!filter_.passes(frame, msg, subject, programs_)) return;
    Output& out = context_.output();
    const bool isWritten = out.print(renderObserved(frame, msg, isMessage, subject, programs_, out.form()));
    ++shown_;
    done_ = !isWritten || shown_ == context_.arguments().count;
    if (done_) bus_.endWait();
  }

  [[nodiscard]] bool isDone() const { return done_; }

 private:
  void askAbout(std::uint32_t id) {
    if (id == tn::brokerId || id >= tn::firstGroup || programs_.knows(id) || asking_) return;
    asking_ = true;
    tn::message question;
    question.insert(tn::u32_id(1), tn::control::list);
    bus_.looper().control(
        question,
        [this, id](const tn::message& answer) {
          asking_ = false;
          if (!tn::isError(answer)) programs_.set(answer);
          programs_.noteAsked(id);
        },
        context_.arguments().timeoutMs);
  }

  Context& context_;
  Bus& bus_;
  const Filter& filter_;
  const tn::Clock::time_point began_ = tn::Clock::now();
  Programs programs_;
  Conversations conversations_;
  bool asking_ = false;
  std::uint64_t shown_ = 0;
  bool done_ = false;
};

}  // namespace

ExitStatus monitor(Context& context) {
  Filter filter;
  if (const auto error = filter.read(context.arguments())) return context.failUsage(*error);
  Bus* const bus = context.bus(true);
  if (bus == nullptr) return ExitStatus::unreachable;
  const tn::message programs = bus->control(tn::control::list);
  if (tn::isError(programs)) return context.fail(programs);
  Monitor monitor(context, *bus, filter);
  monitor.learn(programs);
  bus->looper().setObserver([&](std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                                std::span<const std::uint8_t> payload) { monitor.onFrame(from, to, kind, payload); });
  const tn::message answer = bus->control(tn::control::monitor);
  ExitStatus result = ExitStatus::done;
  if (tn::isError(answer) && !monitor.isDone() && !bus->isStopped()) result = context.fail(answer);
  while (result == ExitStatus::done && !monitor.isDone() && !bus->isStopped()) {
    if (bus->isLost()) {
      result = context.fail(ExitStatus::unreachable, "the bus is gone");
    } else {
      bus->waitForEver();
    }
  }
  bus->looper().setObserver({});
  return result;
}

}  // namespace tool::verbs
