#include "platform/web/user_store.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sys/stat.h>
#include <utility>

#include "platform/web/ascii.h"
#include "platform/web/functions.h"

// Names come from browsers; the store is written by uploads, by services and by whoever mounts a disk of his own there,
// links included. A name is taken only when its text alone cannot lead upwards and every link on its way, as it stands
// now, ends within the store. Links cannot be made through the web interface, so nobody there can change one between
// the check and the use.

namespace {

constexpr std::string_view flashStart = "/flash/";
constexpr mode_t folderMode = 0755;

struct Place {
  const std::string& root;
  std::string_view rest;  // pieces separated by "/"
};

Place placeOf(const UserStore& store, std::string_view name) {
  if (name.starts_with(flashStart)) return {store.flash, name.substr(flashStart.size())};
  if (name.starts_with('/')) name.remove_prefix(1);
  return {store.disk, name};
}

// Takes the first piece off the text.
std::string_view takePiece(std::string_view& rest) {
  const std::string_view piece = rest.substr(0, rest.find('/'));
  rest.remove_prefix(std::min(piece.size() + 1, rest.size()));
  return piece;
}

bool isPlainName(std::string_view text) {
  if (text.empty() || text.ends_with('/') || std::any_of(text.begin(), text.end(), ascii::isControl)) return false;
  while (!text.empty()) {
    const std::string_view piece = takePiece(text);
    if (piece.empty() || piece == "." || piece == "..") return false;
  }
  return true;
}

// The path of what a link ends at, so that what a name stands for is judged and not the link's own name. Nothing: that
// does not lie within the root, or is not there.
std::optional<std::string> endOf(const std::string& link, const std::string& root) {
  char end[PATH_MAX];
  char top[PATH_MAX];
  if (::realpath(link.c_str(), end) == nullptr || ::realpath(root.c_str(), top) == nullptr) return std::nullopt;
  std::string_view inner = end;
  if (!inner.starts_with(top)) return std::nullopt;
  inner.remove_prefix(std::string_view(top).size());
  if (!inner.empty() && inner.front() != '/') return std::nullopt;
  return std::string(root).append(inner);
}

}  // namespace

std::optional<std::string> UserStore::lookup(std::string_view name) const {
  const Place place = placeOf(*this, name);
  if (!isPlainName(place.rest)) return std::nullopt;
  std::string path = place.root;
  std::string_view rest = place.rest;
  while (!rest.empty()) {
    path.append("/").append(takePiece(rest));
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
      if (errno != ENOENT) return std::nullopt;
      if (!rest.empty()) path.append("/").append(rest);
      return path;
    }
    if (!S_ISLNK(status.st_mode)) continue;
    auto end = endOf(path, place.root);
    if (!end) return std::nullopt;
    path = std::move(*end);
  }
  return path;
}

bool UserStore::makePathFor(std::string_view name) const {
  const std::optional<std::string> path = lookup(name);
  if (!path) {
    errno = EINVAL;
    return false;
  }
  const std::size_t rootLength = placeOf(*this, name).root.size();
  for (std::size_t end = path->find('/', rootLength + 1); end != std::string::npos; end = path->find('/', end + 1)) {
    if (::mkdir(path->substr(0, end).c_str(), folderMode) != 0 && errno != EEXIST) return false;
  }
  return true;
}

namespace {

const UserStore& userStore() {
  static const UserStore store{"/rw/disk", "/flash"};
  return store;
}

}  // namespace

std::optional<std::string> lookupUserFile(std::string_view name) {
  return userStore().lookup(name);
}

bool makeUserPathFor(std::string_view name) {
  return userStore().makePathFor(name);
}
