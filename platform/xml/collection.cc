#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/unique_fd.h"
#include "platform/xml/document.h"
#include "platform/xml/parser.h"

namespace xml {
namespace {

constexpr std::string_view suffix = ".xml";
constexpr std::string_view readableFile = "a readable file";

// What was expected of a file or directory, with what the system said instead.
std::string unreadable(std::string_view wanted, int error) {
  std::string text(wanted);
  text += ": ";
  text += std::strerror(error);
  return text;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// Opens a regular file. Whatever else bears the name is not waited for: without O_NONBLOCK a FIFO that nobody writes to
// would hold up the start for ever. None, and `expected` set, when there is no such file.
UniqueFd openRegular(const std::string& path, std::string& expected) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    expected = unreadable(readableFile, errno);
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    expected = "a regular file";
    return {};
  }
  return file;
}

// The bytes of a file, at the most one more than a document may have. Nothing, and `expected` set, when it cannot be
// read.
std::optional<std::string> readFile(const std::string& path, std::string& expected) {
  constexpr std::size_t most = limit::documentBytes + 1;
  constexpr std::size_t step = 16384;
  const UniqueFd file = openRegular(path, expected);
  if (!file) return std::nullopt;
  std::string bytes;
  std::size_t used = 0;
  while (used < most) {
    bytes.resize(std::min(most, used + step));
    const ssize_t got = ::read(file.get(), bytes.data() + used, bytes.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      expected = unreadable(readableFile, errno);
      return std::nullopt;
    }
    if (got == 0) break;
    used += static_cast<std::size_t>(got);
  }
  bytes.resize(used);
  return bytes;
}

}  // namespace

std::optional<std::vector<std::string>> listDocuments(const std::string& directory, ParseError& error) {
  constexpr std::string_view wanted = "a readable directory";
  const std::unique_ptr<DIR, CloseDirectory> stream(::opendir(directory.c_str()));
  if (!stream) {
    error = {directory, 0, 0, unreadable(wanted, errno)};
    return std::nullopt;
  }
  std::vector<std::string> paths;
  errno = 0;  // the only way to tell the end from a failure
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with('.') || !name.ends_with(suffix)) continue;
    paths.emplace_back(directory).append("/").append(name);
  }
  if (errno != 0) {
    error = {directory, 0, 0, unreadable(wanted, errno)};
    return std::nullopt;
  }
  std::ranges::sort(paths);
  return paths;
}

std::optional<Node> readDocument(const std::string& path, ParseError& error) {
  std::string expected;
  const auto bytes = readFile(path, expected);
  if (!bytes) {
    error = {path, 0, 0, expected};
    return std::nullopt;
  }
  Parser parser(path, *bytes);
  auto root = parser.parse();
  if (!root) error = parser.error();
  return root;
}

DocumentCollection::DocumentCollection(const std::string& directory) {
  ParseError error{};
  const auto paths = listDocuments(directory, error);
  if (!paths) {
    errors_.push_back(std::move(error));
    return;
  }
  for (const std::string& path : *paths) {
    auto root = readDocument(path, error);
    if (root) {
      roots_.push_back(std::make_unique<Node>(std::move(*root)));
    } else {
      errors_.push_back(error);
    }
  }
}

}  // namespace xml
