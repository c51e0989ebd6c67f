#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/bus/thin_runner.h"
#include "services/userd/accounts.h"
#include "services/userd/hash_queue.h"
#include "services/userd/throttle.h"

namespace userd {

// Looks at passwords: has each attempt wait for its price (Throttle), then its turn at the hasher, and says what came
// of it, within answerMs. An unknown user costs the same time and work as a wrong password.
//
// Attempts that wait are bounded. When there are too many, the one of the client with the most wrong ones gives way, so
// a flood drives out itself rather than a client that has done nothing.
class Doorkeeper {
 public:
  static constexpr std::size_t maxAttempts = 256;
  static constexpr std::uint32_t answerMs = 5500;

  enum class Verdict : std::uint8_t {
    right,    // of a user who is there and not disabled
    wrong,    // the password, or the user
    tooMany,  // not looked at: too many attempts from there
    busy,     // not looked at, or not in time
  };
  struct Answer {
    Verdict verdict;
    std::uint32_t user = 0;               // its number, when right
    std::uint32_t retryAfterSeconds = 0;  // when too many
  };
  // Runs once. It may run before `attempt` returns, and may make further attempts.
  using Callback = std::function<void(const Answer& answer)>;

  // The references must outlive this. `dummyHash` is that of a password that nobody knows.
  Doorkeeper(const Accounts& accounts, HashQueue& queue, Throttle& throttle, tn::TimerQueue& timers,
             std::string dummyHash);
  Doorkeeper(const Doorkeeper&) = delete;
  Doorkeeper& operator=(const Doorkeeper&) = delete;
  ~Doorkeeper();

  void attempt(const Client& client, std::string_view name, Secret password, Callback callback);

 private:
  using Id = std::uint64_t;
  // Without a ticket it waits for its price (`wait` is armed), with one for its turn and its result.
  struct Pending {
    Throttle::Attempt attempt;
    std::string name;
    Secret password;
    Callback callback;
    tn::Timer wait;
    tn::Timer deadline;
    HashQueue::Ticket ticket = 0;
    std::uint32_t user = 0;  // whose hash it is compared with
    std::string hash;
  };

  [[nodiscard]] static unsigned rankOf(const Throttle::Attempt& attempt);
  // False: nobody gives way to that one.
  [[nodiscard]] bool makeRoomFor(const Throttle::Attempt& attempt);
  void compare(Id id);
  void onResult(Id id, bool right);
  void onDeadline(Id id);
  void finish(Id id, const Answer& answer);

  const Accounts& accounts_;
  HashQueue& queue_;
  Throttle& throttle_;
  tn::TimerQueue& timers_;
  std::string dummyHash_;
  std::map<Id, Pending> pending_;
  Id last_ = 0;
};

// How an answer is told whose attempt was not looked at.
[[nodiscard]] Refusal notLookedAt(const Doorkeeper::Answer& answer);

}  // namespace userd
