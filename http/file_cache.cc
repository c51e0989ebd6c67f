#include "http/file_cache.h"

#include <algorithm>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "platform/web/functions.h"

namespace {

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::size_t pageBytes() {
  static const auto bytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

FileCache cache;

}  // namespace

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size && a.st_mode == b.st_mode &&
         sameTime(a.st_mtim, b.st_mtim) && sameTime(a.st_ctim, b.st_ctim);
}

FileMapping::FileMapping(int fd, off_t size) {
  if (static_cast<std::uint64_t>(size) > FileCache::maxMappedBytes) return;
  const auto length = static_cast<std::size_t>(size);
  const std::size_t all = pageBytes() + length;
  void* const room = mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (room == MAP_FAILED) return;
  char* const at = static_cast<char*>(room) + pageBytes();
  if (mmap(at, length, PROT_READ, MAP_SHARED | MAP_POPULATE | MAP_FIXED, fd, 0) == MAP_FAILED) {
    munmap(room, all);
    return;
  }
  room_ = static_cast<char*>(room);
  file_ = {at, length};
}

FileMapping::~FileMapping() {
  if (room_ != nullptr) munmap(room_, pageBytes() + file_.size());
}

std::string_view FileMapping::withHead(std::string_view head) {
  if (room_ == nullptr || head.size() > pageBytes()) return {};
  char* const begin = room_ + pageBytes() - head.size();
  std::copy(head.begin(), head.end(), begin);
  return {begin, head.size() + file_.size()};
}

CachedFile::CachedFile(UniqueFd fd, const struct stat& status)
    : fd_(std::move(fd)),
      status_(status),
      mapping_(fd_.get(), status.st_size),
      lastModified_(httpDate(status.st_mtim.tv_sec)) {}

void CachedFile::keepHead(FileHead head) const {
  lastHead_ = std::move(head);
  whole_ = mapping_.withHead(lastHead_.text);
  if (whole_.empty()) ownHead_.assign(lastHead_.text);
  lastHead_.text = whole_.empty() ? std::string_view(ownHead_) : whole_.substr(0, lastHead_.text.size());
  ++heads_;
}

std::shared_ptr<const CachedFile> FileCache::search(std::string_view path, const struct stat& status, Place* place) {
  const auto found = byPath_.find(path);
  if (found == byPath_.end()) return nullptr;
  const Files::iterator entry = found->second;
  if (!entry->file->is(status)) {
    drop(entry);
    return nullptr;
  }
  if (place != nullptr) {
    place->entry_ = entry;
    place->drops_ = drops_;
  }
  return use(entry);
}

std::shared_ptr<const CachedFile> FileCache::use(Files::iterator entry) {
  entry->used = true;
  if (entry != files_.begin()) files_.splice(files_.begin(), files_, entry);
  return entry->file;
}

std::shared_ptr<const CachedFile> FileCache::insert(tn::ThinRunner& runner, std::string_view path, UniqueFd& fd,
                                                    const struct stat& status) {
  if (!S_ISREG(status.st_mode) || status.st_size <= 0) return nullptr;
  if (const auto old = byPath_.find(path); old != byPath_.end()) drop(old->second);
  auto file = std::make_shared<const CachedFile>(std::move(fd), status);
  makeRoom(file->mapped().size());
  totalBytes_ += file->mapped().size();
  files_.push_front({std::string(path), std::move(file)});
  byPath_.emplace(files_.front().path, files_.begin());
  armSweep(runner);
  return files_.front().file;
}

// For one more file, with that many bytes mapped.
void FileCache::makeRoom(std::size_t bytes) {
  while (!files_.empty() && (files_.size() >= maxFiles || totalBytes_ + bytes > maxTotalBytes)) {
    drop(std::prev(files_.end()));
  }
}

void FileCache::clear() {
  while (!files_.empty())
    drop(files_.begin());
  if (sweepTimer_ != 0) runner_->removeTimer(std::exchange(sweepTimer_, 0));
}

void FileCache::drop(Files::iterator entry) {
  ++drops_;
  totalBytes_ -= entry->file->mapped().size();
  byPath_.erase(entry->path);
  files_.erase(entry);
}

void FileCache::armSweep(tn::ThinRunner& runner) {
  if (sweepTimer_ != 0) return;
  runner_ = &runner;
  sweepTimer_ = runner.addTimer(sweepMs, [this] { sweep(); });
}

void FileCache::sweep() {
  sweepTimer_ = 0;
  for (auto entry = files_.begin(); entry != files_.end();) {
    const auto current = entry++;
    if (!std::exchange(current->used, false)) drop(current);
  }
  if (!files_.empty()) armSweep(*runner_);
}

FileCache& fileCache() {
  return cache;
}
