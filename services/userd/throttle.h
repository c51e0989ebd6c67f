#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>

#include "platform/bus/field.h"
#include "services/userd/tally.h"

namespace userd {

// From where passwords are tried.
class Client {
 public:
  // An address; an IPv6 address counts by its first 64 bits, which is what one subscriber is given at least.
  [[nodiscard]] static Client at(const tn::Addr6& address);
  // A session of a user who is logged in: its address is not known.
  [[nodiscard]] static Client sessionOf(std::string_view user);

  // Bytes that no other client has.
  [[nodiscard]] std::string_view bytes() const { return bytes_; }

 private:
  explicit Client(std::string bytes) : bytes_(std::move(bytes)) {}
  std::string bytes_;
};

// What wrong passwords cost: how long an attempt has to wait before its password is looked at, and which attempts come
// first. docs/services.md tells the rules. It has no clock and no timer; time is what the calls say, and must not run
// backwards.
//
// An attempt counts as a wrong one from its beginning, so nothing is gained by trying many at once. Memory is of fixed
// size. The counts of unknown user names are kept like those of known ones, so that they tell nothing.
class Throttle {
 public:
  using Milliseconds = std::chrono::milliseconds;

  static constexpr unsigned freeOfClient = 3;
  static constexpr Milliseconds firstWait{250};
  static constexpr Milliseconds longestClientWait{4000};
  static constexpr unsigned freeOfName = 10;
  static constexpr Milliseconds nameWaitStep{100};
  static constexpr Milliseconds longestNameWait{2000};
  // An attempt whose turn would come later than this is refused.
  static constexpr Milliseconds longestWait{4500};

  // `seed` makes the keys unforeseeable.
  explicit Throttle(const std::array<std::uint8_t, 16>& seed);

  // What is known of the one who tries.
  struct Attempt {
    TallyKey client;
    TallyKey name;
    bool trusted;       // that user has logged in from there
    unsigned failures;  // from there, before this attempt
  };
  [[nodiscard]] Attempt examine(const Client& client, std::string_view name, tn::Clock::time_point now) const;

  // Counts the attempt as a wrong one. Returns how long it has to wait; or, as the error, in how long it may be tried
  // again, and then it is not counted.
  [[nodiscard]] std::expected<Milliseconds, Milliseconds> begin(const Attempt& attempt, tn::Clock::time_point now);
  // The password was not looked at after all.
  void takeBack(const Attempt& attempt, tn::Clock::time_point now);
  // The password was right: the attempt counts no longer, and the user is trusted there.
  void forgive(const Attempt& attempt, tn::Clock::time_point now);

 private:
  [[nodiscard]] TallyKey keyOf(char kind, std::string_view bytes) const;
  [[nodiscard]] static TallyKey pairOf(const Attempt& attempt);
  [[nodiscard]] Milliseconds waitOf(const Attempt& attempt, tn::Clock::time_point now) const;

  std::array<std::uint8_t, 16> seed_;
  Tally clients_;  // the mark is when the next attempt may begin
  Tally names_;
  Tally trusted_;  // pairs of name and client
};

}  // namespace userd
