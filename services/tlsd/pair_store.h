#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <expected>
#include <optional>
#include <string>
#include <sys/types.h>

#include "services/tlsd/identity.h"

namespace tlsd {

// Certificate and key as files of one folder: `certificate.pem`, and `key.pem` that root alone may read.
//
// Two files cannot be replaced in one step. So both are written beside the old ones first, the key before the
// certificate, and then renamed in that order. A new certificate that waits without a new key means that the change was
// cut off between the renames: it is carried through. New files in any other state mean that the change never began:
// they are removed.
class PairStore {
 public:
  // What failed, in words; nothing on success.
  using Failure = std::optional<std::string>;

  // What tells that a file is another than before.
  struct Mark {
    dev_t device;
    ino_t inode;
    off_t size;
    std::int64_t changed;  // nanoseconds since 1970
    friend bool operator==(const Mark&, const Mark&) = default;
  };
  // One for each file; nothing for one that is not there.
  using Marks = std::array<std::optional<Mark>, 2>;

  explicit PairStore(std::string folder) : folder_(std::move(folder)) {}

  // Ends a change that was cut off; before the first load.
  void recover() const;
  [[nodiscard]] Marks look() const;
  // Whether neither file is there. What cannot be looked at now may be.
  [[nodiscard]] bool isEmpty() const;
  // Reads both files.
  [[nodiscard]] std::expected<PemPair, std::string> load() const;
  // Replaces both files, and makes the folder where it is missing. On success they are on the storage; after a failure
  // the old ones are there still (or, should the second rename fail, the next recover() carries the change through).
  [[nodiscard]] Failure save(const PemPair& pair) const;
  // Whether others than the key's owner may read its file.
  [[nodiscard]] bool keyIsOpen() const;

 private:
  [[nodiscard]] std::string path(const char* name) const { return folder_ + "/" + name; }
  [[nodiscard]] Failure write(const char* name, mode_t mode, std::string_view text) const;
  [[nodiscard]] Failure place(const char* from, const char* to) const;
  void syncFolder() const;

  std::string folder_;
};

}  // namespace tlsd
