#include "services/sysd/file_store.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>

#include "platform/bus/files.h"
#include "platform/bus/text.h"
#include "platform/web/functions.h"

// Whoever may write to the store may be at work in it while a name is looked up: a directory that was there can be a
// link a moment later. So a path is never given to the kernel whole. Each piece is opened from the directory before it,
// as a directory and no link; without ".." there is then no way that leads upwards.

namespace sysd {
namespace {

constexpr std::string_view flashStart = "/flash/";
constexpr std::string_view skins = "skins";

// Takes the first piece off the text.
std::string_view takePiece(std::string_view& rest) {
  const std::string_view piece = rest.substr(0, rest.find('/'));
  rest.remove_prefix(std::min(piece.size() + 1, rest.size()));
  return piece;
}

bool arePlainPieces(std::string_view rest) {
  if (rest.empty() || rest.ends_with('/') || !canBeNamed(rest)) return false;
  while (!rest.empty()) {
    const std::string_view piece = takePiece(rest);
    if (piece.empty() || piece == "." || piece == ".." || piece.size() > NAME_MAX) return false;
  }
  return true;
}

// Longer ones could be listed here, but be got and put by nobody.
bool fitsPath(const StoreName& name) {
  return name.root->size() + 1 + name.rest.size() < PATH_MAX;
}

std::expected<UniqueFd, int> openBelow(const std::string& root, std::string_view rest) {
  // Where the root itself lies is the system's business, so it may be a link.
  UniqueFd at(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  while (at && !rest.empty()) {
    const std::string piece(takePiece(rest));
    at = UniqueFd(::openat(at.get(), piece.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  if (!at) return std::unexpected(errno);
  return at;
}

}  // namespace

std::string_view StoreName::folder() const {
  const std::size_t slash = rest.rfind('/');
  return slash == std::string::npos ? std::string_view() : std::string_view(rest).substr(0, slash);
}

std::string StoreName::last() const {
  return rest.substr(rest.rfind('/') + 1);
}

bool isSensitiveName(std::string_view rest) {
  if (isSensitiveFile(std::string(rest).append("/"))) return true;
  while (!rest.empty()) {
    if (isSensitiveFile(takePiece(rest))) return true;
  }
  return false;
}

bool canBeNamed(std::string_view entry) {
  return tn::printableText(entry) == entry;
}

StoreName FileStore::place(std::string_view name) const {
  if (name.starts_with(flashStart)) return {&places_.flash, std::string(name.substr(flashStart.size()))};
  const bool isSkin = name == skins || (name.starts_with(skins) && name[skins.size()] == '/');
  if (isSkin && tn::fileExists(places_.flashSkins, 0)) return {&places_.flash, std::string(name)};
  if (name.starts_with('/')) name.remove_prefix(1);
  return {&places_.disk, std::string(name)};
}

std::optional<StoreName> FileStore::fileName(std::string_view name) const {
  StoreName placed = place(name);
  if (!arePlainPieces(placed.rest) || !fitsPath(placed)) return std::nullopt;
  return placed;
}

std::optional<StoreName> FileStore::directoryName(std::string_view name) const {
  StoreName placed = place(name);
  if (placed.rest.empty()) return placed;
  if (placed.rest.ends_with('/')) placed.rest.pop_back();
  if (!arePlainPieces(placed.rest) || !fitsPath(placed)) return std::nullopt;
  return placed;
}

std::expected<UniqueFd, int> openDirectory(const StoreName& name) {
  return openBelow(*name.root, name.rest);
}

std::expected<UniqueFd, int> openFolder(const StoreName& name) {
  return openBelow(*name.root, name.folder());
}

}  // namespace sysd
