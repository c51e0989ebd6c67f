#include "services/userd/service.h"

#include "platform/log.h"
#include "services/userd/password.h"

namespace userd {
namespace {

constexpr std::string_view firstUserName = "admin";

}  // namespace

Service::Service(tn::Looper& looper, Hasher& hasher, const Settings& settings)
    : looper_(looper),
      store_(settings.databasePath),
      accounts_(store_),
      note_(settings.notePath),
      throttle_(settings.seed),
      queue_(hasher),
      doorkeeper_(accounts_, queue_, throttle_, looper.runner().timers(), settings.dummyHash),
      names_(accounts_),
      users_(accounts_, doorkeeper_, queue_, note_),
      groups_(accounts_),
      logins_(accounts_, doorkeeper_, settings.firstLogin),
      retry_([this] { open(); }) {}

void Service::start() {
  open();
  looper_.addHandler(nameHandlerId, names_);
  looper_.addHandler(userHandlerId, users_);
  looper_.addHandler(groupHandlerId, groups_);
  looper_.addHandler(loginHandlerId, logins_);
}

void Service::open() {
  const Store::Failure failure = accounts_.open([this] { return makeFirstPassword(); });
  if (!failure) return dropStaleNote();
  if (failure != lastFailure_) logLine("users: ", *failure, "; nobody can log in, trying again");
  lastFailure_ = failure;
  retry_.start(looper_.runner().timers(), retryMs);
}

std::string Service::makeFirstPassword() const {
  const auto password = makePassword();
  if (!password || !note_.write(firstUserName, *password)) return {};
  logLine("users: user admin was made, with a password of its own");
  return hashPassword(*password).value_or(std::string());
}

// The password may have been changed just before the power went.
void Service::dropStaleNote() const {
  const auto password = note_.readPassword();
  if (!password) return;
  const User* const user = accounts_.user(firstUser);
  if (user == nullptr || user->name != firstUserName || !isRight(*password, user->hash)) note_.remove();
}

}  // namespace userd
