#include "platform/bus/epoll_runner.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <utility>

#include "platform/log.h"

namespace tn {

namespace {

constexpr unsigned interestBits = readable | writable;

std::uint32_t cachedMask(bool writes) {
  return EPOLLIN | EPOLLRDHUP | EPOLLET | (writes ? std::uint32_t{EPOLLOUT} : 0U);
}

std::uint32_t levelMask(unsigned mask) {
  // Errors and hang-ups are announced unasked; to a socket that is not listened to once, lest each wait end at once.
  if ((mask & interestBits) == 0) return EPOLLET;
  return ((mask & readable) != 0 ? std::uint32_t{EPOLLIN} : 0U) |
         ((mask & writable) != 0 ? std::uint32_t{EPOLLOUT} : 0U);
}

// An error is told as readiness for everything: the next read or write returns it.
std::uint8_t readyBits(std::uint32_t events) {
  unsigned bits = 0;
  if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLERR | EPOLLHUP)) != 0) bits |= readable;
  if ((events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) bits |= writable;
  if ((events & EPOLLHUP) != 0) bits |= hangUp;
  return static_cast<std::uint8_t>(bits);
}

// Once the peer has ended its direction a read never waits again, and after a hang-up a write does not either. Without
// this, data and end arriving together would be a short read, `drained`, and an end that is never announced again.
std::uint8_t lastingBits(std::uint32_t events) {
  if ((events & EPOLLHUP) != 0) return readable | writable;
  return (events & EPOLLRDHUP) != 0 ? readable : 0;
}

std::uint64_t eventTag(int fd, std::uint32_t generation) {
  return (std::uint64_t{generation} << 32) | static_cast<std::uint32_t>(fd);
}

// What the alarm's events carry: no socket has such a number.
constexpr std::uint64_t alarmTag = UINT64_MAX;

bool control(const UniqueFd& epoll, int operation, int fd, std::uint32_t events, std::uint64_t tag) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = tag;
  return epoll_ctl(epoll.get(), operation, fd, &event) == 0;
}

UniqueFd makeAlarm(const UniqueFd& epoll) {
  UniqueFd alarm(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (alarm && !control(epoll, EPOLL_CTL_ADD, alarm.get(), EPOLLIN | EPOLLET, alarmTag)) alarm.reset();
  return alarm;
}

bool makeNonBlocking(int fd) {
  int on = 1;
  return ioctl(fd, FIONBIO, &on) == 0;
}

}  // namespace

EpollRunner::EpollRunner(unsigned eventsPerWait, unsigned roundsPerTurn)
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      roundsPerTurn_(roundsPerTurn != 0 ? roundsPerTurn : defaultRoundsPerTurn),
      events_(eventsPerWait != 0 ? eventsPerWait : defaultEventsPerWait) {
  if (epoll_) {
    alarm_ = makeAlarm(epoll_);
  } else {
    logSystemError("epoll_create1");
  }
}

const EpollRunner::Slot* EpollRunner::find(int fd) const {
  if (fd < 0 || static_cast<std::size_t>(fd) >= slots_.size()) return nullptr;
  const Slot& slot = slots_[static_cast<std::size_t>(fd)];
  return slot.watched ? &slot : nullptr;
}

EpollRunner::Slot* EpollRunner::find(const Entry& entry) {
  Slot* slot = find(entry.fd);
  return slot != nullptr && slot->generation == entry.generation ? slot : nullptr;
}

bool EpollRunner::addSocket(int fd, unsigned mask, SocketCallback callback, Trigger trigger) {
  if (!makeNonBlocking(fd)) return false;
  Slot* slot = occupy(fd, mask, trigger == Trigger::cached);
  if (slot == nullptr) return false;
  if (!introduce(fd, *slot)) {
    slot->watched = false;
    return false;
  }
  slot->callback = std::move(callback);
  if ((slot->ready & slot->mask) != 0) enqueue(fd, *slot);
  return true;
}

bool EpollRunner::addNonBlocking(int fd, unsigned mask, SocketCallback callback) {
  Slot* slot = occupy(fd, mask, true);
  if (slot == nullptr) return false;
  slot->callback = std::move(callback);
  slot->ready |= readable;
  unknown_.push_back({fd, slot->generation});
  if ((slot->ready & slot->mask) != 0) enqueue(fd, *slot);
  return true;
}

// The slot of a socket that is not watched yet, taken for it. Null: it is, or it is no descriptor.
EpollRunner::Slot* EpollRunner::occupy(int fd, unsigned mask, bool cached) {
  if (fd < 0) {
    errno = EBADF;
    return nullptr;
  }
  if (find(fd) != nullptr) {
    errno = EEXIST;
    return nullptr;
  }
  const auto index = static_cast<std::size_t>(fd);
  if (index >= slots_.size()) slots_.resize(index + 1);
  Slot& slot = slots_[index];
  ++slot.generation;
  slot.mask = static_cast<std::uint8_t>(mask & interestBits);
  slot.cached = cached;
  slot.ready = cached ? writable : 0;
  slot.watched = true;
  slot.introduced = false;
  return &slot;
}

bool EpollRunner::tellKernel(int operation, int fd, const Slot& slot) {
  const std::uint32_t events = slot.cached ? cachedMask(slot.writes) : levelMask(slot.mask);
  return control(epoll_, operation, fd, events, eventTag(fd, slot.generation));
}

// Gives a socket to the kernel, which at once announces what it is ready for.
bool EpollRunner::introduce(int fd, Slot& slot) {
  slot.introduced = tellKernel(EPOLL_CTL_ADD, fd, slot);
  slot.readAfter = roomyWaits_ - 1;  // what was read before did not put it on the list
  return slot.introduced;
}

// A socket that the kernel does not take would never be called again: its owner is told that it has hung up.
void EpollRunner::introduceUnknown() {
  for (const Entry& entry : unknown_) {
    Slot* slot = find(entry);
    if (slot == nullptr || introduce(entry.fd, *slot)) continue;
    slot->ready |= hangUp;
    enqueue(entry.fd, *slot);
  }
  unknown_.clear();
}

bool EpollRunner::changeSocket(int fd, unsigned mask) {
  Slot* slot = find(fd);
  if (slot == nullptr) return false;
  const auto wanted = static_cast<std::uint8_t>(mask & interestBits);
  const std::uint8_t before = std::exchange(slot->mask, wanted);
  if (!slot->cached && wanted != before && !tellKernel(EPOLL_CTL_MOD, fd, *slot)) {
    slot->mask = before;
    return false;
  }
  if (slot->cached && (slot->ready & wanted) != 0 && fd != called_) enqueue(fd, *slot);
  return true;
}

bool EpollRunner::removeSocket(int fd) {
  Slot* slot = find(fd);
  if (slot == nullptr) return false;
  // Fails when the descriptor was closed before, which removed it already.
  const int saved = errno;
  if (slot->introduced) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  errno = saved;
  vacate(fd, *slot);
  return true;
}

bool EpollRunner::forgetSocket(int fd) {
  Slot* slot = find(fd);
  if (slot == nullptr) return false;
  vacate(fd, *slot);
  return true;
}

// The callback goes last: what it holds may come back to the runner while it is destroyed.
void EpollRunner::vacate(int fd, Slot& slot) {
  if (fd == called_) called_ = -1;
  const SocketCallback callback = std::exchange(slot.callback, nullptr);
  ++slot.generation;
  slot.mask = 0;
  slot.ready = 0;
  slot.lasting = 0;
  slot.watched = false;
  slot.queued = false;
  slot.announced = false;
  slot.writes = false;
  slot.news = false;
}

void EpollRunner::drained(int fd, unsigned bits) {
  Slot* slot = find(fd);
  if (slot == nullptr) return;
  slot->ready = static_cast<std::uint8_t>((slot->ready & ~bits) | slot->lasting);
  if ((bits & writable) != 0 && slot->cached && !slot->writes) awaitRoom(fd, *slot);
}

void EpollRunner::awaitRoom(int fd, Slot& slot) {
  slot.writes = true;
  if (!slot.introduced || tellKernel(EPOLL_CTL_MOD, fd, slot)) return;
  slot.ready |= hangUp;
  enqueue(fd, slot);
}

bool EpollRunner::isReady(int fd, unsigned bits) const {
  const Slot* slot = find(fd);
  return slot != nullptr && slot->cached && (slot->ready & bits) == bits;
}

bool EpollRunner::addNews(int fd, bool urgent, const std::function<void()>& hear) {
  Slot* slot = occupy(fd, 0, false);
  if (slot == nullptr) return false;
  const std::uint32_t events = urgent ? EPOLLPRI : EPOLLIN;
  slot->introduced = control(epoll_, EPOLL_CTL_ADD, fd, events, eventTag(fd, slot->generation));
  slot->watched = slot->news = slot->introduced;
  if (slot->news) slot->callback = [hear](int, unsigned) { hear(); };
  return slot->news;
}

void EpollRunner::enqueue(int fd, Slot& slot) {
  if (slot.queued) return;
  slot.queued = true;
  pending_.push_back({fd, slot.generation});
}

bool EpollRunner::turn(bool mayWait) {
  if (!unknown_.empty()) introduceUnknown();
  const int timeout = mayWait && pending_.empty() ? timeToWait() : 0;
  const int count = epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), timeout);
  if (count < 0 && errno != EINTR) return false;
  countWait();
  timers().setNow(Clock::now());
  for (int i = 0; i < count; ++i)
    note(events_[static_cast<std::size_t>(i)]);
  roomy_ = count >= 0 && count < static_cast<int>(events_.size());
  if (roomy_) ++roomyWaits_;
  const bool toldAll = kernelToldAll(count);
  if (callReady() && toldAll) timers().runExpired(timers().now());
  return true;
}

// For epoll_wait: as long as it takes when the alarm ends it in time.
int EpollRunner::timeToWait() {
  if (alarmAt_ <= timers().noneBefore()) return -1;
  const auto deadline = timers().nextDeadline();
  if (!deadline || alarmAt_ <= *deadline) return -1;
  timers().setNow(Clock::now());
  if (*deadline <= timers().now()) return 0;
  return setAlarm(*deadline) ? -1 : timers().nextTimeout();
}

bool EpollRunner::setAlarm(Clock::time_point when) {
  const auto time = when.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  itimerspec setting{};
  setting.it_value.tv_sec = static_cast<time_t>(seconds.count());
  setting.it_value.tv_nsec = static_cast<long>((time - seconds).count());
  if (!alarm_ || timerfd_settime(alarm_.get(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) return false;
  alarmAt_ = when;
  return true;
}

// Whether no socket can be ready that the kernel had no room to tell of: no timer runs before it, as its peer was not
// silent. The kernel takes turns, so after waits for as many as there are it has told of each, whatever has come since.
bool EpollRunner::kernelToldAll(int count) {
  told_ += static_cast<std::size_t>(std::max(count, 0));
  if (count == static_cast<int>(events_.size()) && told_ < slots_.size()) return false;
  told_ = 0;
  return true;
}

void EpollRunner::note(const epoll_event& event) {
  if (event.data.u64 == alarmTag) {
    alarmAt_ = Clock::time_point::max();
    return;
  }
  const Entry entry{static_cast<int>(event.data.u64 & 0xFFFFFFFF), static_cast<std::uint32_t>(event.data.u64 >> 32)};
  Slot* slot = find(entry);
  if (slot == nullptr) return;
  if (slot->news) {
    slot->callback(entry.fd, readable);
    return;
  }
  slot->ready |= readyBits(event.events);
  if ((event.events & EPOLLIN) != 0) {
    slot->fresh = slot->cached && !slot->writes && slot->readAfter != roomyWaits_;
    slot->announced = true;
  }
  if (slot->cached) slot->lasting |= lastingBits(event.events);
  if ((slot->ready & (slot->mask | hangUp)) != 0) enqueue(entry.fd, *slot);
}

// Each round calls every ready socket once, so one that never drains cannot keep the others waiting; what is ready
// after the last round is left for the next turn, which asks the kernel about the rest without waiting.
//
// False: the time has moved, since a callback waited for something itself. The sockets that were to be called after it
// come first in the next turn, and no timer runs before them: their peers were not silent, they were not listened to.
bool EpollRunner::callReady() {
  const Clock::time_point began = timers().now();
  for (unsigned round = 0; round < roundsPerTurn_ && !pending_.empty(); ++round) {
    round_.swap(pending_);
    auto next = round_.begin();
    while (next != round_.end() && timers().now() == began)
      call(*next++);
    const bool all = next == round_.end();
    if (!all) pending_.insert(pending_.begin(), next, round_.end());
    round_.clear();
    if (!all || timers().now() != began) return false;
  }
  return true;
}

// The callback is held here while it runs: it may remove its own socket, or add others, which moves the slots.
//
// A socket that wants something else after its call, and is ready for it, has it at once, while all it works with is at
// hand: who has read a question writes the answer. What it wants after that waits for the next round.
void EpollRunner::call(const Entry& entry) {
  Slot* slot = find(entry);
  if (slot == nullptr) return;
  slot->queued = false;
  SocketCallback callback;
  callback.swap(slot->callback);
  const std::uint8_t wanted = slot->mask;
  called_ = entry.fd;
  for (int left = 2; left != 0; --left) {
    tell(entry.fd, *slot, callback);
    slot = find(entry);
    if (slot == nullptr || slot->mask == wanted) break;
  }
  called_ = -1;
  if (slot == nullptr) return;
  slot->callback.swap(callback);
  if (slot->cached && (slot->ready & slot->mask) != 0) enqueue(entry.fd, *slot);
}

// The slot may be gone afterwards, or elsewhere.
inline void EpollRunner::tell(int fd, Slot& slot, const SocketCallback& callback) {
  const unsigned told = slot.ready & (slot.mask | hangUp);
  // A hang-up by itself is told once, else a socket that waits for nothing would be called for ever; it goes along with
  // whatever is told later. What a level socket was ready for is forgotten, the kernel says it again.
  slot.ready &= static_cast<std::uint8_t>(slot.cached ? ~hangUp : 0U);
  if (told == 0) return;
  const bool reads = (told & readable) != 0;
  if (reads) {
    setAnnounced(slot.announced, slot.announced && slot.fresh && roomy_);
    slot.announced = false;
    slot.readAfter = roomyWaits_;
  }
  callback(fd, told | ((slot.lasting & writable) != 0 ? hangUp : 0U));
  if (reads) setAnnounced(false, false);
}

}  // namespace tn
