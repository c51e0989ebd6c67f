#include "services/userd/login_handler.h"

#include <array>
#include <unistd.h>
#include <utility>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/web/functions.h"
#include "platform/web/ip_addr6.h"
#include "services/common/return_address.h"
#include "services/userd/fields.h"

namespace userd {
namespace {

std::string hostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  return name.data();
}

}  // namespace

LoginHandler::LoginHandler(const Accounts& accounts, Doorkeeper& doorkeeper, std::uint32_t firstLogin)
    : AccountHandler(accounts), accounts_(accounts), doorkeeper_(doorkeeper), lastLogin_(firstLogin) {}

void LoginHandler::handleCmd(tn::message& msg) {
  if (msg.get(tn::field::command) != command::logIn) return Handler::handleCmd(msg);
  logIn(msg);
}

void LoginHandler::logIn(tn::message& msg) {
  if (!tn::policies::isOfSystem(msg)) return replyError(msg, tn::error::notAllowed, "not allowed");
  auto password = takePassword(msg, field::password);
  const auto name = msg.get(field::name);
  if (!name) return replyError(msg, error::badRequest, "the user name (string 1) is missing");
  if (!password) return replyError(msg, error::badRequest, "the password (string 3) is missing");
  const tn::Addr6 client = msg.get(field::clientAddress).value_or(tn::Addr6());
  // Of a name that is too long enough is kept to be nobody's.
  doorkeeper_.attempt(Client::at(client), name->substr(0, maxNameBytes + 1), std::move(*password),
                      [this, address = service::returnAddress(msg), from = IPAddr6(client).str(true)](
                          const Doorkeeper::Answer& came) { answer(address, from, came); });
}

// Names that are no user's are not written to the log: a password may have been typed in their place.
void LoginHandler::answer(const tn::message& address, const std::string& from, const Doorkeeper::Answer& came) {
  switch (came.verdict) {
    case Doorkeeper::Verdict::right: {
      const User* const user = accounts_.user(came.user);
      if (user == nullptr) return replyError(address, tn::error::notAllowed, "wrong user name or password");
      logLine("login of ", user->name, " from ", from);
      return reply(address, welcome(*user));
    }
    case Doorkeeper::Verdict::wrong:
      logLine("login refused from ", from);
      return replyError(address, tn::error::notAllowed, "wrong user name or password");
    case Doorkeeper::Verdict::tooMany:
    case Doorkeeper::Verdict::busy:
      return reply(address, refuse(notLookedAt(came)));
  }
}

tn::message LoginHandler::welcome(const User& user) {
  const Group& group = accounts_.groupOf(user);
  lastLogin_ = lastLogin_ >= maxNumber ? 1 : lastLogin_ + 1;
  tn::message msg;
  msg.insert(tn::field::objectNumber, lastLogin_);
  msg.insert(field::policies, group.policies);
  msg.insert(field::fullName, user.fullName);
  msg.insert(field::groupName, group.name);
  msg.insert(field::hostName, hostName());
  msg.insert(field::version, getOSVersion());
  msg.insert(field::skin, group.skin);
  return msg;
}

}  // namespace userd
