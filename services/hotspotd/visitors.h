#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

#include "platform/bus/field.h"
#include "platform/bus/timer.h"

namespace hotspot {

// Who a request comes from: the client's address, and the tag of the forwarder that saw it. Two networks behind two
// forwarders may use the same addresses.
struct Visitor {
  tn::Addr6 address{};
  std::uint32_t tag = 0;

  friend auto operator<=>(const Visitor&, const Visitor&) = default;
};

// Who is logged in, and who has given wrong codes. Memory is bounded: a page that is merely looked at costs nothing.
class Visitors {
 public:
  static constexpr std::size_t maxLoggedIn = 4096;
  static constexpr std::size_t maxSuspects = 4096;
  // So many wrong codes are looked at within that time, counted from the first.
  static constexpr unsigned maxTries = 5;
  static constexpr std::chrono::seconds triesFor{60};

  enum class Verdict {
    admitted,
    wrongCode,
    tooManyTries,  // the code was not looked at: wait
    full,          // as many as there is room for are logged in
  };

  // One try to log in. A visitor who is logged in begins anew.
  [[nodiscard]] Verdict logIn(const Visitor& visitor, bool codeIsRight, std::chrono::minutes duration,
                              tn::Clock::time_point now);
  // False: was not logged in.
  bool logOut(const Visitor& visitor);

  // How long the visitor stays logged in; nothing when it is not.
  [[nodiscard]] std::optional<std::chrono::seconds> remaining(const Visitor& visitor, tn::Clock::time_point now) const;

  [[nodiscard]] std::size_t loggedIn(tn::Clock::time_point now);
  [[nodiscard]] std::size_t suspects() const { return suspects_.size(); }

 private:
  struct Tries {
    unsigned wrong = 0;
    tn::Clock::time_point end;
  };

  [[nodiscard]] bool mayTry(const Visitor& suspect, tn::Clock::time_point now) const;
  void countWrong(const Visitor& suspect, tn::Clock::time_point now);

  std::map<Visitor, tn::Clock::time_point> loggedIn_;  // and when that ends
  std::map<Visitor, Tries> suspects_;                  // by network: see suspectOf
};

}  // namespace hotspot
