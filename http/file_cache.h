#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>

#include "http/text_hash.h"
#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"

// Whether two words of stat(2) are about the same file, unchanged in between.
[[nodiscard]] bool isSameFile(const struct stat& a, const struct stat& b);

// The head of a response that a file was sent with, and what it was made from. The next response within the same second
// has mostly the same one.
struct FileHead {
  std::string fields;  // of the response, before the writer added its own
  std::int64_t second = -1;
  bool cacheable = false;
  bool keepAlive = false;
  std::string_view text;
};

// A small file mapped into memory, with room right before it for the head of a response: so both are one piece for the
// kernel, which takes one in less time than two and needs no copy of the file.
class FileMapping {
 public:
  // Maps nothing when the file is too large to be worth it, or its file system cannot map it.
  FileMapping(int fd, off_t size);
  FileMapping(const FileMapping&) = delete;
  FileMapping& operator=(const FileMapping&) = delete;
  ~FileMapping();

  // The whole file; empty when it is not mapped. Where the file is cut short meanwhile, reading it from here faults
  // (SIGBUS), so it is only ever handed to the kernel, which answers EFAULT.
  [[nodiscard]] std::string_view file() const { return file_; }
  // Puts a head before the file. Empty: there is no file, or no room for this head; else head and file, until the next
  // call.
  [[nodiscard]] std::string_view withHead(std::string_view head);

 private:
  char* room_ = nullptr;  // one page, before the file
  std::string_view file_;
};

// One file, open for reading, and a small one mapped as well.
//
// Whoever holds it holds the inode, so that no other file can take its number, and both ways to its bytes show them as
// they are now, not as they were. A request that finds by stat(2) the same device, inode, size, mode and times
// therefore gets from here exactly what it would get by opening the file.
class CachedFile {
 public:
  CachedFile(UniqueFd fd, const struct stat& status);

  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] const struct stat& status() const { return status_; }
  // The whole file in memory, for the kernel alone (see FileMapping); empty when it is not mapped.
  [[nodiscard]] std::string_view mapped() const { return mapping_.file(); }
  // Modification time as HTTP date.
  [[nodiscard]] std::string_view lastModified() const { return lastModified_; }
  // The head it was sent with last; the response writer's. Its text is kept before the mapped file, and only there, so
  // that it is in the processor's cache already when the kernel copies the two.
  [[nodiscard]] const FileHead& lastHead() const { return lastHead_; }
  // Takes a copy of the text.
  void keepHead(FileHead head) const;
  // How many heads were kept so far.
  [[nodiscard]] std::uint64_t heads() const { return heads_; }
  // The head kept last and the file, as one piece, for the kernel alone; empty: see FileMapping::withHead.
  [[nodiscard]] std::string_view whole() const { return whole_; }
  [[nodiscard]] bool is(const struct stat& status) const { return isSameFile(status, status_); }

 private:
  // In front what each response asks for, so that it lies together.
  mutable std::string_view whole_;
  mutable std::uint64_t heads_ = 0;
  mutable FileHead lastHead_;
  UniqueFd fd_;
  struct stat status_;
  mutable FileMapping mapping_;
  std::string lastModified_;
  mutable std::string ownHead_;  // when the file has no room for it
};

// The files served lately, by path. What is not asked for during a while is let go, so that a deleted file's space
// comes back and a file system can be unmounted.
class FileCache {
 public:
  // Up to here one copy by the kernel costs less than the second system call of sendfile, which copies nothing.
  static constexpr std::size_t maxMappedBytes = 32768;
  static constexpr std::size_t maxTotalBytes = 4194304;  // mapped; and a page of room for each file at most
  static constexpr std::size_t maxFiles = 256;
  static constexpr std::uint32_t sweepMs = 10000;  // what is unused between two sweeps is let go

 private:
  struct Entry {
    std::string path;
    std::shared_ptr<const CachedFile> file;
    bool used = true;  // since the last sweep
  };
  using Files = std::list<Entry>;

 public:
  // Where a file was found last; it is there still as long as none has been let go.
  class Place {
    friend class FileCache;
    Files::iterator entry_;
    std::uint64_t drops_ = UINT64_MAX;
  };

  // The file of that path when `status`, which must be of this moment, says that it is the one held. Null: none is
  // held, or it was another one, which is let go. `place` is for that path and that status alone; null is none.
  [[nodiscard]] std::shared_ptr<const CachedFile> find(std::string_view path, const struct stat& status,
                                                       Place* place = nullptr) {
    return place != nullptr && place->drops_ == drops_ ? use(place->entry_) : search(path, status, place);
  }

  // Takes an open file; `status` is fstat's word on it. Null, and `fd` is left alone: it is no regular file, or by its
  // own word empty. The runner drives the sweeps.
  [[nodiscard]] std::shared_ptr<const CachedFile> insert(tn::ThinRunner& runner, std::string_view path, UniqueFd& fd,
                                                         const struct stat& status);

  // Lets everything go; the runner of the last insert must still live. A file that is being sent stays open until then.
  void clear();

  [[nodiscard]] std::size_t fileCount() const { return files_.size(); }
  [[nodiscard]] std::size_t totalBytes() const { return totalBytes_; }  // mapped

 private:
  [[nodiscard]] std::shared_ptr<const CachedFile> search(std::string_view path, const struct stat& status,
                                                         Place* place);
  [[nodiscard]] std::shared_ptr<const CachedFile> use(Files::iterator entry);
  void drop(Files::iterator entry);
  void makeRoom(std::size_t bytes);
  void armSweep(tn::ThinRunner& runner);
  void sweep();

  Files files_;  // the one used last in front
  struct PathHash {
    std::size_t operator()(std::string_view path) const { return textHash(path); }
  };
  std::unordered_map<std::string_view, Files::iterator, PathHash> byPath_;
  std::size_t totalBytes_ = 0;
  std::uint64_t drops_ = 0;  // how often one was let go
  tn::ThinRunner* runner_ = nullptr;
  tn::ThinRunner::TimerHandle sweepTimer_ = 0;
};

// The cache of the process.
[[nodiscard]] FileCache& fileCache();
