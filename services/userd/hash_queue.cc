#include "services/userd/hash_queue.h"

#include <algorithm>

namespace userd {

HashQueue::Ticket HashQueue::put(HashJob job, unsigned rank, Hasher::Done done) {
  const Ticket ticket = ++last_;
  waiting_.emplace(std::pair(rank, ticket), Entry{std::move(job), std::move(done)});
  startNext();
  return ticket;
}

bool HashQueue::cancel(Ticket ticket) {
  if (ticket == 0) return false;
  if (ticket == current_) {
    current_ = 0;
    currentDone_ = nullptr;
    return false;
  }
  return std::erase_if(waiting_, [ticket](const auto& entry) { return entry.first.second == ticket; }) != 0;
}

void HashQueue::startNext() {
  if (busy_ || waiting_.empty()) return;
  auto next = waiting_.extract(waiting_.begin());
  busy_ = true;
  current_ = next.key().second;
  currentDone_ = std::move(next.mapped().done);
  hasher_.start(std::move(next.mapped().job), [this](HashResult result) { onDone(std::move(result)); });
}

// The hasher goes on with the next job before anybody looks at this result.
void HashQueue::onDone(HashResult result) {
  busy_ = false;
  current_ = 0;
  const Hasher::Done done = std::exchange(currentDone_, nullptr);
  startNext();
  if (done) done(std::move(result));
}

}  // namespace userd
