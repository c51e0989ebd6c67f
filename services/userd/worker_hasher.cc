#include "services/userd/worker_hasher.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include "services/userd/password.h"

namespace userd {
namespace {

HashResult doJob(const HashJob& job) {
  if (job.hash) return {isRight(job.password, *job.hash), {}};
  return {false, hashPassword(job.password).value_or(std::string())};
}

}  // namespace

std::unique_ptr<WorkerHasher> WorkerHasher::make(tn::ThinRunner& runner) {
  UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event) return nullptr;
  std::unique_ptr<WorkerHasher> hasher(new WorkerHasher(runner, std::move(event)));
  const int failed = hasher->begin();
  if (failed == 0) return hasher;
  errno = failed;
  return nullptr;
}

WorkerHasher::WorkerHasher(tn::ThinRunner& runner, UniqueFd event) : runner_(runner), event_(std::move(event)) {}

int WorkerHasher::begin() {
  if (!runner_.addSocket(event_.get(), tn::readable, [this](int, unsigned) { onEvent(); })) return errno;
  sigset_t everything{};
  sigset_t before{};
  sigfillset(&everything);
  pthread_sigmask(SIG_SETMASK, &everything, &before);
  const int failed = pthread_create(&thread_, nullptr, run, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  running_ = failed == 0;
  return failed;
}

WorkerHasher::~WorkerHasher() {
  runner_.removeSocket(event_.get());
  if (!running_) return;
  {
    const std::lock_guard lock(mutex_);
    quit_ = true;
  }
  changed_.notify_one();
  pthread_join(thread_, nullptr);
}

void WorkerHasher::start(HashJob job, Done done) {
  done_ = std::move(done);
  {
    const std::lock_guard lock(mutex_);
    job_ = std::move(job);
  }
  changed_.notify_one();
}

void* WorkerHasher::run(void* self) {
  static_cast<WorkerHasher*>(self)->work();
  return nullptr;
}

void WorkerHasher::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return quit_ || job_.has_value(); });
    if (quit_) return;
    const HashJob job = *std::exchange(job_, std::nullopt);
    lock.unlock();
    HashResult result = doJob(job);
    lock.lock();
    result_ = std::move(result);
    const std::uint64_t one = 1;
    // The counter is far from full, so this does not fail.
    static_cast<void>(::write(event_.get(), &one, sizeof one));
  }
}

void WorkerHasher::onEvent() {
  std::uint64_t count = 0;
  if (::read(event_.get(), &count, sizeof count) != sizeof count) return;
  std::optional<HashResult> result;
  {
    const std::lock_guard lock(mutex_);
    result = std::exchange(result_, std::nullopt);
  }
  if (!result) return;
  const Done done = std::exchange(done_, nullptr);
  if (done) done(std::move(*result));
}

}  // namespace userd
