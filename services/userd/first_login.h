#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "services/userd/secret.h"

namespace userd {

// The note with the password of the first user, for the owner of a new machine: a file that root alone may read,
//
//     user admin
//     password 7kq2-mnx4-...
//
// which ./run shows. It is there until that password, or the user, is changed.
class FirstLogin {
 public:
  explicit FirstLogin(std::string path) : path_(std::move(path)) {}

  // Writes the note, over an earlier one, and has it on the storage. False, with a line in the log, when that fails.
  [[nodiscard]] bool write(std::string_view user, const Secret& password) const;
  // The password of the note; nothing when there is none, or it is none of this service's.
  [[nodiscard]] std::optional<Secret> readPassword() const;
  // Takes the note away; a failure other than that there is none gets a line in the log.
  void remove() const;

 private:
  std::string path_;
};

}  // namespace userd
