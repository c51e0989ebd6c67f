#pragma once

#include "platform/bus/handler.h"
#include "platform/bus/looper.h"
#include "services/userd/accounts.h"

namespace userd {

// Base of the service's handlers: as long as the accounts are not open, every message is answered with an error that
// says so.
class AccountHandler : public tn::Handler {
 public:
  explicit AccountHandler(const Accounts& accounts) : accounts_(accounts) {}

  void handle(tn::message& msg) override {
    if (accounts_.isOpen() || tn::isReply(msg)) return Handler::handle(msg);
    replyError(msg, error::notStored, "the users cannot be read now");
  }

 private:
  const Accounts& accounts_;
};

}  // namespace userd
