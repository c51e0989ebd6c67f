#include "jsproxy/user_files.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "platform/bus/files.h"
#include "platform/log.h"
#include "platform/web/functions.h"

namespace {

constexpr mode_t fileMode = 0666;

}  // namespace

std::string mapUserPath(std::string_view name) {
  const bool isSkin = name.starts_with("skins/") && tn::fileExists("/rw/pckg/flash", 0);
  return std::string(isSkin ? "/flash/" : "").append(name);
}

std::string userFile(std::string_view mappedName) {
  return lookupUserFile(mappedName).value_or(std::string());
}

// A pipe that somebody put into the store must not hold the server: with O_NONBLOCK opening it comes back at once.
bool OutputFile::open(const std::string& path) {
  fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, fileMode));
  struct stat status {};
  if (!fd_ || fstat(fd_.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    fd_.reset();
    return false;
  }
  gathered_.reserve(gatheredBytes);
  return true;
}

bool OutputFile::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, gatheredBytes - gathered_.size());
    gathered_ += piece;
    bytes.remove_prefix(piece.size());
    if (gathered_.size() == gatheredBytes && !flush()) return false;
  }
  return true;
}

bool OutputFile::close() {
  const bool written = flush();
  fd_.reset();
  return written;
}

bool OutputFile::flush() {
  std::string_view left = gathered_;
  while (!left.empty()) {
    const ssize_t count = ::write(fd_.get(), left.data(), left.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      logSystemError("write");
      return false;
    }
    left.remove_prefix(static_cast<std::size_t>(count));
  }
  gathered_.clear();
  return true;
}

void UploadedFile::onHeaders(const Headers& headers) {
  headers.forEach([](std::string_view name, std::string_view value) { logLine(name, ": ", value); });
}

bool UploadedFile::open(std::string_view name) {
  const std::string path = mapUserPath(name);
  makeUserPathFor(path);
  const std::string file = userFile(path);
  if (file.empty()) return false;
  if (!policy::allow(policies_, policy::sensitive) && isSensitiveFile(file)) return false;
  return file_.open(file);
}

bool UploadedFile::write(std::string_view bytes) {
  return file_.write(bytes);
}
