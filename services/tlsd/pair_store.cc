#include "services/tlsd/pair_store.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace tlsd {
namespace {

constexpr char certificateName[] = "certificate.pem";
constexpr char keyName[] = "key.pem";
constexpr char newCertificateName[] = "certificate.pem.new";
constexpr char newKeyName[] = "key.pem.new";

constexpr mode_t folderMode = 0700;
constexpr mode_t certificateMode = 0644;
constexpr mode_t keyMode = 0600;

std::string failed(const std::string& path) {
  return path + ": " + std::strerror(errno);
}

enum class There : std::uint8_t { yes, no, unknown };

There isThere(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) return There::yes;
  return errno == ENOENT || errno == ENOTDIR ? There::no : There::unknown;
}

// Makes a folder and those above it, as far as they are missing.
bool makeFolder(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (::mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return ::mkdir(path.c_str(), folderMode) == 0 || errno == EEXIST;
}

bool writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(file, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// Reads a file into `text`; what is larger than can be taken is cut one byte behind that.
PairStore::Failure readFile(const std::string& path, std::string& text) {
  // Without waiting: a pipe in its place must not hold the service up.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return failed(path);
  if (!S_ISREG(status.st_mode)) return path + ": not a regular file";
  text.assign(maxPemBytes + 1, '\0');
  std::size_t held = 0;
  while (held < text.size()) {
    const ssize_t count = ::read(file.get(), text.data() + held, text.size() - held);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failed(path);
    if (count == 0) break;
    held += static_cast<std::size_t>(count);
  }
  text.resize(held);
  return std::nullopt;
}

std::optional<PairStore::Mark> markOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  constexpr std::int64_t second = 1'000'000'000;
  return PairStore::Mark{status.st_dev, status.st_ino, status.st_size,
                         status.st_mtim.tv_sec * second + status.st_mtim.tv_nsec};
}

}  // namespace

void PairStore::recover() const {
  const There certificate = isThere(path(newCertificateName));
  const There key = isThere(path(newKeyName));
  // It may be half of a change that has to be carried through.
  if (certificate == There::unknown || key == There::unknown) return;
  if (certificate == There::yes && key == There::no) {
    (void)place(newCertificateName, certificateName);
    syncFolder();
    return;
  }
  ::unlink(path(newCertificateName).c_str());
  ::unlink(path(newKeyName).c_str());
}

PairStore::Marks PairStore::look() const {
  return {markOf(path(certificateName)), markOf(path(keyName))};
}

bool PairStore::isEmpty() const {
  return isThere(path(certificateName)) == There::no && isThere(path(keyName)) == There::no;
}

std::expected<PemPair, std::string> PairStore::load() const {
  PemPair pair;
  if (Failure failure = readFile(path(certificateName), pair.certificate)) return std::unexpected(std::move(*failure));
  if (Failure failure = readFile(path(keyName), pair.key)) return std::unexpected(std::move(*failure));
  return pair;
}

PairStore::Failure PairStore::save(const PemPair& pair) const {
  if (!makeFolder(folder_)) return failed(folder_);
  Failure failure = write(newKeyName, keyMode, pair.key);
  if (!failure) failure = write(newCertificateName, certificateMode, pair.certificate);
  if (!failure) {
    syncFolder();
    failure = place(newKeyName, keyName);
  }
  if (failure) {
    // The certificate first: alone it would be taken for a change that was cut off.
    ::unlink(path(newCertificateName).c_str());
    ::unlink(path(newKeyName).c_str());
    return failure;
  }
  failure = place(newCertificateName, certificateName);
  syncFolder();
  return failure;
}

bool PairStore::keyIsOpen() const {
  struct stat status {};
  return ::stat(path(keyName).c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0;
}

PairStore::Failure PairStore::write(const char* name, mode_t mode, std::string_view text) const {
  const std::string target = path(name);
  ::unlink(target.c_str());
  const UniqueFd file(::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!file || !writeAll(file.get(), text) || ::fsync(file.get()) != 0) return failed(target);
  return std::nullopt;
}

PairStore::Failure PairStore::place(const char* from, const char* to) const {
  if (::rename(path(from).c_str(), path(to).c_str()) == 0) return std::nullopt;
  return failed(path(to));
}

void PairStore::syncFolder() const {
  const UniqueFd folder(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder) (void)::fsync(folder.get());
}

}  // namespace tlsd
