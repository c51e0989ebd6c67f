#include "services/sysd/listing.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <utility>

#include "services/sysd/fields.h"
#include "services/sysd/file_store.h"

namespace sysd {
namespace {

enum class Kind : std::uint32_t { file = 1, directory = 2, other = 3 };

Kind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return Kind::file;
  return S_ISDIR(mode) ? Kind::directory : Kind::other;
}

// Of a time before 1970, which a broken clock writes, 0.
std::uint64_t milliseconds(const timespec& time) {
  if (time.tv_sec < 0) return 0;
  return static_cast<std::uint64_t>(time.tv_sec) * 1000 + static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000;
}

// What one entry adds to an array of messages beside itself.
constexpr std::size_t lengthBytes = 2;

}  // namespace

std::expected<Listing, int> Listing::open(const UniqueFd& directory, Query query) {
  UniqueFd readable(::openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!readable) return std::unexpected(errno);
  Stream stream(::fdopendir(readable.get()));
  if (stream == nullptr) return std::unexpected(errno);
  (void)readable.release();  // the stream's now
  return Listing(std::move(stream), std::move(query));
}

std::expected<Listing::Progress, int> Listing::read(std::size_t count) {
  for (; count > 0; --count) {
    errno = 0;
    const dirent* const entry = ::readdir(stream_.get());
    if (entry == nullptr && errno != 0) return std::unexpected(errno);
    if (entry == nullptr) return Progress::done;
    take(entry->d_name);
  }
  return Progress::more;
}

void Listing::take(std::string_view name) {
  if (name == "." || name == "..") return;
  if (!query_.sensitiveToo && isSensitiveName(name)) return;
  if (!canBeNamed(name)) {
    ++unnamed_;
    return;
  }
  ++shown_;
  if (name <= query_.after) return;
  if (page_.size() == query_.entries) {
    hasMore_ = true;
    if (name >= page_.front()) return;
    std::ranges::pop_heap(page_);
    page_.pop_back();
  }
  page_.emplace_back(name);
  std::ranges::push_heap(page_);
}

tn::message Listing::describe(const std::string& name, bool& isGone) const {
  struct stat status {};
  isGone = ::fstatat(::dirfd(stream_.get()), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
  const Kind kind = kindOf(status.st_mode);
  tn::message entry;
  entry.insert(field::entry::name, name);
  entry.insert(field::entry::kind, static_cast<std::uint32_t>(kind));
  entry.insert(field::entry::size, kind == Kind::file ? static_cast<std::uint64_t>(status.st_size) : 0U);
  entry.insert(field::entry::changed, milliseconds(status.st_mtim));
  entry.insert(field::entry::sensitive, isSensitiveName(name));
  return entry;
}

tn::message Listing::answer() {
  std::ranges::sort_heap(page_);
  // A directory that changes while it is read may tell a name twice.
  page_.erase(std::ranges::unique(page_).begin(), page_.end());
  std::vector<tn::message> entries;
  entries.reserve(page_.size());
  std::string_view last;
  std::size_t bytes = 0;
  for (const std::string& name : page_) {
    bool isGone = false;
    tn::message entry = describe(name, isGone);
    bytes += isGone ? 0 : entry.max_length() + lengthBytes;
    if (bytes > mostBytes) {
      hasMore_ = true;
      break;
    }
    last = name;
    if (!isGone) entries.push_back(std::move(entry));
  }
  tn::message msg;
  msg.insert_vector(field::all, entries);
  if (hasMore_) msg.insert(field::listing::after, last);
  msg.insert(field::listing::shown, shown_);
  msg.insert(field::listing::unnamed, unnamed_);
  return msg;
}

}  // namespace sysd
