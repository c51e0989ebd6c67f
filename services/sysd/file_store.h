#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace sysd {

// A name of the user store, taken apart. Only FileStore makes one that is not a plain name.
struct StoreName {
  const std::string* root;  // where the store, or its part in the flash, lies; the store's own
  std::string rest;         // plain pieces separated by "/"; empty: the root itself

  // The directory of the last piece, and that piece; of a root there is none.
  [[nodiscard]] std::string_view folder() const;
  [[nodiscard]] std::string last() const;
};

// By its own name or that of a directory above. Stricter than for files alone: what a name is of, a file or a
// directory, need not be known, and so is not told to those who may not know.
[[nodiscard]] bool isSensitiveName(std::string_view rest);
// Whether an entry of a directory can be named at all: UTF-8 without control characters.
[[nodiscard]] bool canBeNamed(std::string_view entry);

// The user's file store as directories. Names are the tunnel's, so that what is listed can be got and put; links are
// not followed, so that no name leads out of the store, whatever is made or replaced in it at the same moment.
class FileStore {
 public:
  struct Places {
    std::string disk;        // where names lie
    std::string flash;       // where those that begin with "/flash/" lie
    std::string flashSkins;  // when there is such a file, names under "skins/" lie in the flash, too
  };

  explicit FileStore(Places places) : places_(std::move(places)) {}

  // Nothing: no file can have that name.
  [[nodiscard]] std::optional<StoreName> fileName(std::string_view name) const;
  // The same for a directory: also the roots, as "" or "/" and "/flash/", and with a "/" at the end.
  [[nodiscard]] std::optional<StoreName> directoryName(std::string_view name) const;

 private:
  [[nodiscard]] StoreName place(std::string_view name) const;

  const Places places_;
};

// Each opens a directory as a place to work in, not to read from; the error is errno. A link on the way is ENOTDIR.
[[nodiscard]] std::expected<UniqueFd, int> openDirectory(const StoreName& name);
// That of the last piece.
[[nodiscard]] std::expected<UniqueFd, int> openFolder(const StoreName& name);

}  // namespace sysd
