#include "services/userd/throttle.h"

#include <algorithm>
#include <span>
#include <string>

#include "platform/crypto/sha1.h"

namespace userd {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t keptClients = 4096;
constexpr std::size_t keptNames = 1024;
constexpr std::size_t keptPairs = 1024;
constexpr auto clientForgetTime = 1min;
constexpr auto nameForgetTime = 10s;
constexpr auto trustTime = 30 * 24h;
// More than these change nothing, and would only take longer to be forgotten.
constexpr unsigned mostOfClient = 16;
constexpr unsigned mostOfName = 60;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

template <typename Bytes>
TallyKey firstBytes(const Bytes& digest) {
  TallyKey key;
  std::copy_n(digest.begin(), key.size(), key.begin());
  return key;
}

}  // namespace

Client Client::at(const tn::Addr6& address) {
  constexpr std::array<std::uint8_t, 12> ipv4Prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  constexpr std::size_t subscriberBytes = 8;
  const bool isIpv4 = std::equal(ipv4Prefix.begin(), ipv4Prefix.end(), address.begin());
  const auto counted = std::span(address).first(isIpv4 ? address.size() : subscriberBytes);
  return Client("a" + std::string(counted.begin(), counted.end()));
}

Client Client::sessionOf(std::string_view user) {
  return Client("s" + std::string(user));
}

Throttle::Throttle(const std::array<std::uint8_t, 16>& seed)
    : seed_(seed),
      clients_(keptClients, clientForgetTime, mostOfClient),
      names_(keptNames, nameForgetTime, mostOfName),
      trusted_(keptPairs, trustTime, 1) {}

TallyKey Throttle::keyOf(char kind, std::string_view bytes) const {
  SHA1 digest;
  digest.update(seed_);
  digest.update(bytesOf(std::string_view(&kind, 1)));
  digest.update(bytesOf(bytes));
  return firstBytes(digest.finish());
}

TallyKey Throttle::pairOf(const Attempt& attempt) {
  SHA1 digest;
  digest.update(attempt.client);
  digest.update(attempt.name);
  return firstBytes(digest.finish());
}

Throttle::Attempt Throttle::examine(const Client& client, std::string_view name, tn::Clock::time_point now) const {
  Attempt attempt{keyOf('c', client.bytes()), keyOf('n', name), false, 0};
  attempt.trusted = trusted_.count(pairOf(attempt), now) != 0;
  attempt.failures = clients_.count(attempt.client, now);
  return attempt;
}

Throttle::Milliseconds Throttle::waitOf(const Attempt& attempt, tn::Clock::time_point now) const {
  Milliseconds wait{0};
  if (attempt.failures >= freeOfClient) {
    const unsigned doublings = std::min(attempt.failures - freeOfClient, 16U);
    wait = std::min(firstWait * (1U << doublings), longestClientWait);
  }
  const unsigned ofName = names_.count(attempt.name, now);
  if (!attempt.trusted && ofName >= freeOfName) {
    wait += std::min(nameWaitStep * (ofName - freeOfName + 1), longestNameWait);
  }
  return std::min(wait, longestWait);
}

std::expected<Throttle::Milliseconds, Throttle::Milliseconds> Throttle::begin(const Attempt& attempt,
                                                                              tn::Clock::time_point now) {
  const tn::Clock::time_point turn = std::max(now, clients_.mark(attempt.client)) + waitOf(attempt, now);
  const auto wait = std::chrono::ceil<Milliseconds>(turn - now);
  if (wait > longestWait) return std::unexpected(wait - longestWait);
  clients_.add(attempt.client, now);
  clients_.setMark(attempt.client, turn);
  names_.add(attempt.name, now);
  return wait;
}

void Throttle::takeBack(const Attempt& attempt, tn::Clock::time_point now) {
  clients_.takeBack(attempt.client, now);
  names_.takeBack(attempt.name, now);
}

void Throttle::forgive(const Attempt& attempt, tn::Clock::time_point now) {
  takeBack(attempt, now);
  trusted_.add(pairOf(attempt), now);
}

}  // namespace userd
