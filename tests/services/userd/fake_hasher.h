#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "services/userd/hasher.h"
#include "services/userd/password.h"

namespace userd {

inline constexpr std::string_view fakePrefix = "$y$j9T$fake$";

// What the fake hasher makes of a password: of the form of a hash, so that it can be kept.
inline std::string fakeHash(std::string_view password) {
  std::string hash = std::string(fakePrefix) + std::string(password);
  std::ranges::replace(hash, ' ', '_');
  hash.resize(100, '.');
  return hash;
}

// A hasher that does its work when the test says so.
class FakeHasher : public Hasher {
 public:
  void start(HashJob job, Done done) override {
    job_ = std::move(job);
    done_ = std::move(done);
    ++started;
  }

  [[nodiscard]] bool busy() const { return job_.has_value(); }
  [[nodiscard]] std::string password() const { return std::string(job_->password.text()); }
  // What the job compares with; empty when it is to make a hash.
  [[nodiscard]] std::string comparedWith() const { return job_->hash.value_or(""); }

  // Ends the job that is under way as the real one would.
  void finish() {
    const HashJob job = *std::exchange(job_, std::nullopt);
    const Done done = std::exchange(done_, nullptr);
    const std::string hash = fakeHash(job.password.text());
    HashResult result;
    if (job.hash) {
      // That of the first user is a real one.
      result.right = job.hash->starts_with(fakePrefix) ? hash == *job.hash : isRight(job.password, *job.hash);
    } else if (!refuse) {
      result.made = hash;
    }
    done(std::move(result));
  }
  void finishAll() {
    while (busy())
      finish();
  }

  unsigned started = 0;
  bool refuse = false;  // no hash can be made

 private:
  std::optional<HashJob> job_;
  Done done_;
};

}  // namespace userd
