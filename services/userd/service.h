#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/bus/looper.h"
#include "services/userd/accounts.h"
#include "services/userd/doorkeeper.h"
#include "services/userd/first_login.h"
#include "services/userd/group_handler.h"
#include "services/userd/hash_queue.h"
#include "services/userd/login_handler.h"
#include "services/userd/name_handler.h"
#include "services/userd/store.h"
#include "services/userd/throttle.h"
#include "services/userd/user_handler.h"

namespace userd {

inline constexpr std::uint32_t busId = 13;
inline constexpr std::uint32_t nameHandlerId = 1;
inline constexpr std::uint32_t userHandlerId = 2;
inline constexpr std::uint32_t groupHandlerId = 3;
inline constexpr std::uint32_t loginHandlerId = 4;

// The user service, put together: the accounts and the handlers through which they are reached.
class Service {
 public:
  // Between two attempts to open the accounts.
  static constexpr std::uint32_t retryMs = 1000;

  struct Settings {
    std::string databasePath;
    std::string notePath;               // docs/services.md, "The first login"
    std::array<std::uint8_t, 16> seed;  // of the throttle
    std::uint32_t firstLogin;           // login numbers go on from here
    std::string dummyHash;              // of a password that nobody knows
  };

  // The looper and the hasher must outlive this.
  Service(tn::Looper& looper, Hasher& hasher, const Settings& settings);

  // Opens the accounts and registers the handlers. Where the accounts cannot be opened every request is answered with
  // an error, and they are tried again every retryMs.
  void start();

 private:
  void open();
  [[nodiscard]] std::string makeFirstPassword() const;
  void dropStaleNote() const;

  tn::Looper& looper_;
  Store store_;
  Accounts accounts_;
  FirstLogin note_;
  Throttle throttle_;
  HashQueue queue_;
  Doorkeeper doorkeeper_;
  NameHandler names_;
  UserHandler users_;
  GroupHandler groups_;
  LoginHandler logins_;
  Store::Failure lastFailure_;  // told already
  tn::Timer retry_;
};

}  // namespace userd
