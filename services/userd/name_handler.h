#pragma once

#include <cstdint>

#include "services/userd/account_handler.h"

namespace userd {

// Handler 1: tells everybody the name of a user that may be shown on the start page.
class NameHandler : public AccountHandler {
 public:
  explicit NameHandler(const Accounts& accounts) : AccountHandler(accounts), accounts_(accounts) {}

  tn::message cmdGetObj(tn::message& msg, std::uint32_t object) override;

 private:
  const Accounts& accounts_;
};

}  // namespace userd
