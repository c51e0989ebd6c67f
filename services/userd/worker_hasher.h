#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>

#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"
#include "services/userd/hasher.h"

namespace userd {

// Hashes in a thread of its own, the only one beside the loop. What they share is one job and one result, under the
// mutex; the thread wakes the loop through an event descriptor. Signals are for the loop alone.
class WorkerHasher : public Hasher {
 public:
  // Null, with errno set, when the system has no thread or descriptor for it. The runner must outlive it.
  [[nodiscard]] static std::unique_ptr<WorkerHasher> make(tn::ThinRunner& runner);
  // Waits for the job that is under way; its `done` never runs.
  ~WorkerHasher() override;

  void start(HashJob job, Done done) override;

 private:
  WorkerHasher(tn::ThinRunner& runner, UniqueFd event);
  [[nodiscard]] int begin();
  static void* run(void* self);
  void work();
  void onEvent();

  tn::ThinRunner& runner_;
  UniqueFd event_;
  Done done_;  // the loop's
  pthread_t thread_{};
  bool running_ = false;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool quit_ = false;                 // the three under the mutex
  std::optional<HashJob> job_;        // waits for the thread
  std::optional<HashResult> result_;  // waits for the loop
};

}  // namespace userd
