#pragma once

#include <functional>
#include <optional>
#include <string>

#include "services/userd/secret.h"

namespace userd {

// A password to be hashed, or to be compared with a hash.
struct HashJob {
  Secret password;
  std::optional<std::string> hash;  // to compare with; nothing: make a new one
};

struct HashResult {
  bool right = false;  // of a comparison
  std::string made;    // the new hash; empty when it could not be made
};

// Does one job at a time, beside the loop: a hash takes longer than the loop may stand still. Tests answer by hand.
class Hasher {
 public:
  using Done = std::function<void(HashResult result)>;

  Hasher() = default;
  Hasher(const Hasher&) = delete;
  Hasher& operator=(const Hasher&) = delete;
  virtual ~Hasher() = default;

  // Begins a job; not before the one before it is done. `done` runs from the loop, after this has returned.
  virtual void start(HashJob job, Done done) = 0;
};

}  // namespace userd
