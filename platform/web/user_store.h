#pragma once

#include <optional>
#include <string>
#include <string_view>

// The user's file store: the roots that lookupUserFile and makeUserPathFor work with, made parameters.
struct UserStore {
  std::string disk;   // where names lie
  std::string flash;  // where those that begin with "/flash/" lie

  // As lookupUserFile.
  [[nodiscard]] std::optional<std::string> lookup(std::string_view name) const;
  // As makeUserPathFor. The roots themselves are never made.
  bool makePathFor(std::string_view name) const;
};
