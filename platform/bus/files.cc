#include "platform/bus/files.h"

#include <algorithm>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <vector>

#include "platform/bus/files_under.h"

namespace tn {

namespace {

constexpr std::string_view packagesFolder = "/rw/pckg/";
constexpr std::string_view systemFolder = "/home/web/";

std::string joined(std::string_view a, std::string_view b) {
  std::string out;
  out.reserve(a.size() + b.size());
  out.append(a).append(b);
  return out;
}

// The file tree that begins at a folder.
class RootedView : public FileView {
 public:
  explicit RootedView(std::string_view root) : root_(root) {}
  std::optional<struct stat> status(const std::string& path) override { return FileView::status(joined(root_, path)); }
  std::vector<std::string> names(const std::string& folder) override { return FileView::names(joined(root_, folder)); }

 private:
  std::string_view root_;
};

// A name that climbs is not carried over to another folder: there it would lead out of that folder.
bool climbs(std::string_view path) {
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (path.substr(at, end - at) == "..") return true;
    at = end + 1;
  }
  return false;
}

// The file of the system that stands for a path below the packages' folder.
std::optional<FoundFile> inSystem(std::string_view path, FileView& view) {
  if (!path.starts_with(packagesFolder)) return std::nullopt;
  std::string_view name = path.substr(packagesFolder.size());
  name.remove_prefix(std::min(name.find_first_not_of('/'), name.size()));
  if (name.empty() || climbs(name)) return std::nullopt;
  FoundFile found{joined(systemFolder, name), std::nullopt};
  found.status = view.status(found.path);
  if (!found.status) return std::nullopt;
  return found;
}

std::optional<FoundFile> inPackages(std::string_view path, FileView& view) {
  if (climbs(path)) return std::nullopt;
  for (const std::string& package : view.names(std::string(packagesFolder))) {
    FoundFile found{joined(packagesFolder, package), std::nullopt};
    if (!path.starts_with('/')) found.path += '/';
    found.path += path;
    found.status = view.status(found.path);
    if (found.status) return found;
  }
  return std::nullopt;
}

}  // namespace

// A NUL would cut the path short for the kernel, so such a file does not exist.
std::optional<struct stat> FileView::status(const std::string& path) {
  struct stat status;
  if (path.find('\0') != std::string::npos || ::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status;
}

std::vector<std::string> FileView::names(const std::string& folder) {
  std::vector<std::string> names;
  const auto closeFolder = [](DIR* open) { ::closedir(open); };
  const std::unique_ptr<DIR, decltype(closeFolder)> open(::opendir(folder.c_str()), closeFolder);
  if (!open) return names;
  while (const dirent* entry = ::readdir(open.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

FoundFile lookupFile(std::string_view path, FileView& view) {
  if (auto found = inSystem(path, view)) return std::move(*found);
  FoundFile itself{std::string(path), std::nullopt};
  itself.status = view.status(itself.path);
  if (itself.status) return itself;
  if (auto found = inPackages(path, view)) return std::move(*found);
  return itself;
}

FoundFile lookupFileUnder(std::string_view root, std::string_view path) {
  RootedView view(root);
  return lookupFile(path, view);
}

FoundFile lookupFile(std::string_view path) {
  FileView view;
  return lookupFile(path, view);
}

std::string findFile(std::string_view path, bool packages) {
  return packages ? lookupFile(path).path : std::string(path);
}

bool fileExists(std::string_view path, int mode) {
  if (path.find('\0') != std::string_view::npos) return false;
  return ::access(joined(path.starts_with('/') ? "" : "/", path).c_str(), mode) == 0;
}

std::string hexdump(std::span<const std::uint8_t> bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 3);
  for (const std::uint8_t byte : bytes) {
    if (!out.empty()) out += ' ';
    out += digits[byte >> 4];
    out += digits[byte & 15];
  }
  return out;
}

}  // namespace tn
