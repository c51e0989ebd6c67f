#include "services/userd/first_login.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "platform/log.h"
#include "platform/unique_fd.h"
#include "services/userd/password.h"

namespace userd {
namespace {

constexpr std::string_view userLine = "user ";
constexpr std::string_view passwordLine = "\npassword ";
constexpr std::size_t maxBytes = 1024;

// The bytes of a note, wiped afterwards.
struct NoteBytes {
  NoteBytes() = default;
  NoteBytes(const NoteBytes&) = delete;
  NoteBytes& operator=(const NoteBytes&) = delete;
  ~NoteBytes() { wipe(bytes.data(), bytes.size()); }

  void append(std::string_view text) {
    if (text.size() > bytes.size() - length) return;
    std::ranges::copy(text, bytes.begin() + static_cast<std::ptrdiff_t>(length));
    length += text.size();
  }
  [[nodiscard]] std::string_view text() const { return {bytes.data(), length}; }

  std::array<char, maxBytes> bytes{};
  std::size_t length = 0;
};

}  // namespace

// Written beside its place and then moved there, so that half a note is never read.
bool FirstLogin::write(std::string_view user, const Secret& password) const {
  NoteBytes note;
  for (const std::string_view part : {userLine, user, passwordLine, password.text(), std::string_view("\n")})
    note.append(part);
  const std::string unfinished = path_ + ".new";
  ::unlink(unfinished.c_str());
  const UniqueFd file(::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  const bool written = file && ::write(file.get(), note.bytes.data(), note.length) == static_cast<ssize_t>(note.length);
  if (written && ::fsync(file.get()) == 0 && ::rename(unfinished.c_str(), path_.c_str()) == 0) return true;
  logSystemError(path_);
  ::unlink(unfinished.c_str());
  return false;
}

std::optional<Secret> FirstLogin::readPassword() const {
  NoteBytes note;
  const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t count = file ? ::read(file.get(), note.bytes.data(), note.bytes.size()) : 0;
  note.length = count > 0 ? static_cast<std::size_t>(count) : 0;
  const std::size_t begin = note.text().find(passwordLine);
  if (!note.text().starts_with(userLine) || begin == std::string_view::npos) return std::nullopt;
  std::string_view password = note.text().substr(begin + passwordLine.size());
  password = password.substr(0, password.find('\n'));
  return acceptedPassword(password);
}

void FirstLogin::remove() const {
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT) logSystemError(path_);
}

}  // namespace userd
