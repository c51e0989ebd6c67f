#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <string>

#include "services/userd/account_handler.h"
#include "services/userd/doorkeeper.h"
#include "services/userd/first_login.h"
#include "services/userd/hash_queue.h"

namespace userd {

namespace command {
inline constexpr std::uint32_t setPassword = 0x20001;
}

// Handler 2: lists and changes users. What needs a password hashed is answered when the hasher is done; everything that
// was checked before is checked again then.
class UserHandler : public AccountHandler {
 public:
  // Requests that wait for a hash.
  static constexpr std::size_t maxWaiting = 64;

  // The references must outlive this.
  UserHandler(Accounts& accounts, Doorkeeper& doorkeeper, HashQueue& queue, const FirstLogin& note);

  void handleCmd(tn::message& msg) override;
  tn::message cmdGet(tn::message& msg) override;
  tn::message cmdGetAll(tn::message& msg) override;
  tn::message cmdSetObj(tn::message& msg, std::uint32_t object) override;
  tn::message cmdRemoveObj(tn::message& msg, std::uint32_t object) override;

 private:
  using Subject = std::expected<const User*, Refusal>;

  // The user that a command names, or else the one who sent it. Checks that the command may be about that user:
  // about oneself where `ownIsAllowed`, else with the right to manage users.
  [[nodiscard]] Subject subjectOf(const tn::message& msg, bool ownIsAllowed) const;
  [[nodiscard]] bool isOwn(const tn::message& msg, const User& user) const;

  [[nodiscard]] Outcome add(tn::message& msg);
  [[nodiscard]] Outcome setPassword(tn::message& msg);
  // Has a password hashed and gives the hash on; answers `address` with what comes of it.
  [[nodiscard]] Outcome hash(tn::message address, Secret password,
                             std::function<tn::message(const std::string& hash)> use);
  [[nodiscard]] tn::message keepPassword(std::uint32_t number, const std::string& hash);
  void onOldPassword(const tn::message& address, Secret password, const Doorkeeper::Answer& came);
  void forgetNote(std::uint32_t number) const;

  Accounts& accounts_;
  Doorkeeper& doorkeeper_;
  HashQueue& queue_;
  const FirstLogin& note_;
  std::size_t waiting_ = 0;
};

}  // namespace userd
