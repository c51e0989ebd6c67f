#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

#include "services/userd/hasher.h"

namespace userd {

// The jobs that wait for the hasher: those of a lower rank first, equal ones in their order. How many may wait is for
// those to bound who put them in.
class HashQueue {
 public:
  // 0 is none.
  using Ticket = std::uint64_t;

  // The hasher must outlive this, and is used by this alone.
  explicit HashQueue(Hasher& hasher) : hasher_(hasher) {}

  // `done` runs once, from the loop, never before this has returned.
  Ticket put(HashJob job, unsigned rank, Hasher::Done done);
  // After it `done` never runs. True: the job had not begun.
  bool cancel(Ticket ticket);

  [[nodiscard]] std::size_t waiting() const { return waiting_.size(); }

 private:
  struct Entry {
    HashJob job;
    Hasher::Done done;
  };

  void startNext();
  void onDone(HashResult result);

  Hasher& hasher_;
  std::map<std::pair<unsigned, Ticket>, Entry> waiting_;
  bool busy_ = false;
  Ticket current_ = 0;  // the job that the hasher has; 0 when its result is not wanted
  Hasher::Done currentDone_;
  Ticket last_ = 0;
};

}  // namespace userd
