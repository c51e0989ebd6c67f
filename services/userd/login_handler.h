#pragma once

#include <cstdint>
#include <string>

#include "services/userd/account_handler.h"
#include "services/userd/doorkeeper.h"

namespace userd {

namespace command {
inline constexpr std::uint32_t logIn = 1;
}

// Handler 4: logs users in, for the tunnel and for programs of the system. What a session itself sends is refused.
class LoginHandler : public AccountHandler {
 public:
  // The references must outlive this. Login numbers go on from `firstLogin`.
  LoginHandler(const Accounts& accounts, Doorkeeper& doorkeeper, std::uint32_t firstLogin);

  void handleCmd(tn::message& msg) override;

 private:
  void logIn(tn::message& msg);
  void answer(const tn::message& address, const std::string& from, const Doorkeeper::Answer& came);
  [[nodiscard]] tn::message welcome(const User& user);

  const Accounts& accounts_;
  Doorkeeper& doorkeeper_;
  std::uint32_t lastLogin_;
};

}  // namespace userd
