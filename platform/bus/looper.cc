#include "platform/bus/looper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <utility>

#include "platform/bus/epoll_runner.h"
#include "platform/bus/socket_link.h"
#include "platform/bus/switchboard.h"
#include "platform/log.h"
#include "platform/unique_fd.h"

namespace tn {

namespace {

Looper*& current() {
  static Looper* looper = nullptr;
  return looper;
}

// A thousand connections need more descriptors than the usual soft limit allows.
void raiseDescriptorLimit(unsigned wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t goal = wanted != 0 ? std::min<rlim_t>(wanted, limit.rlim_max) : limit.rlim_max;
  if (goal <= limit.rlim_cur) return;
  limit.rlim_cur = goal;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) logSystemError("setrlimit");
}

void take(unsigned& setting, unsigned tuned) {
  if (tuned != 0) setting = tuned;
}

SocketLink::Settings linkSettings(const Looper::Tuning& tuning) {
  SocketLink::Settings settings;
  settings.name = program_invocation_short_name;
  take(settings.id, tuning.id);
  take(settings.rejoinFirstMs, tuning.rejoinFirstMs);
  take(settings.rejoinMaxMs, tuning.rejoinMaxMs);
  take(settings.joinTimeoutMs, tuning.joinTimeoutMs);
  take(settings.outQueueBytes, tuning.outQueueBytes);
  take(settings.readBufferBytes, tuning.readBufferBytes);
  take(settings.framesPerTurn, tuning.framesPerTurn);
  return settings;
}

Switchboard::Limits limitsOf(const Looper::Tuning& tuning) {
  Switchboard::Limits limits;
  take(limits.maxPosts, tuning.maxPosts);
  take(limits.maxKept, tuning.maxKept);
  return limits;
}

}  // namespace

// SIGTERM and SIGINT as readiness, while it lives.
class Looper::StopSignals {
 public:
  explicit StopSignals(Looper& looper) : looper_(looper) {
    sigset_t stops{};
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    sigprocmask(SIG_BLOCK, &stops, &before_);
    socket_.reset(signalfd(-1, &stops, SFD_NONBLOCK | SFD_CLOEXEC));
    const auto callback = [this](int, unsigned) { onSignal(); };
    if (socket_ && looper_.runner().addSocket(socket_.get(), readable, callback)) return;
    // Blocked and read by nobody, the signals would be lost: the program could not be told to end.
    logSystemError("signalfd");
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals() {
    looper_.runner().removeSocket(socket_.get());
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  void onSignal() {
    signalfd_siginfo info{};
    while (read(socket_.get(), &info, sizeof info) == sizeof info)
      looper_.quit();
  }

  Looper& looper_;
  sigset_t before_{};
  UniqueFd socket_;
};

Looper::Looper(std::unique_ptr<ThinRunner> runner, const Tuning& tuning)
    : runner_(std::move(runner)), leaveSignals_(tuning.stopSignals != 0) {}

Looper::Looper(const Tuning& tuning)
    : Looper(std::make_unique<EpollRunner>(tuning.eventsPerWait, tuning.roundsPerTurn), tuning) {
  raiseDescriptorLimit(tuning.openFiles);
  auto link = std::make_unique<SocketLink>(*runner_, linkSettings(tuning));
  socketLink_ = link.get();
  start(std::move(link), tuning);
}

Looper::Looper(std::unique_ptr<ThinRunner> runner, std::unique_ptr<BusLink> link, const Tuning& tuning)
    : Looper(std::move(runner), tuning) {
  start(std::move(link), tuning);
}

void Looper::start(std::unique_ptr<BusLink> link, const Tuning& tuning) {
  link_ = std::move(link);
  switchboard_ = std::make_unique<Switchboard>(*this, *link_, runner_->timers(), limitsOf(tuning));
  current() = this;
  link_->open(*switchboard_);
}

Looper::~Looper() {
  if (current() == this) current() = nullptr;
}

void Looper::addHandler(std::uint32_t id, Handler& handler) {
  switchboard_->addHandler(id, handler);
}
void Looper::removeHandler(std::uint32_t id) {
  switchboard_->removeHandler(id);
}

void Looper::setName(std::string name) {
  if (socketLink_ != nullptr) socketLink_->setName(std::move(name));
}

std::uint32_t Looper::busId() const {
  return link_->id();
}
void Looper::joinGroup(std::uint32_t group) {
  switchboard_->joinGroup(group);
}
void Looper::leaveGroup(std::uint32_t group) {
  switchboard_->leaveGroup(group);
}

void Looper::control(const message& request, ReplyCallback callback, std::uint32_t timeoutMs) {
  switchboard_->control(request, std::move(callback), timeoutMs);
}

void Looper::setObserver(Observer observer) {
  switchboard_->setObserver(std::move(observer));
}

message Looper::cmdDisconnected(message& msg) {
  switchboard_->tellDisconnected(msg);
  return Handler::cmdDisconnected(msg);
}

bool Looper::finishTurn() {
  return switchboard_->finishTurn();
}

void Looper::run() {
  std::optional<StopSignals> signals;
  if (!leaveSignals_) signals.emplace(*this);
  quitting_ = broken_ = false;
  while (true) {
    const bool more = finishTurn();
    if (quitting_) break;
    flushLog();
    if (!runner_->turn(!more)) {
      logSystemError("epoll_wait");
      broken_ = true;
      break;
    }
  }
  drainLog();
}

Looper* getLooper() {
  return current();
}

ThinRunner* getRunner() {
  return current() != nullptr ? &current()->runner() : nullptr;
}

}  // namespace tn
