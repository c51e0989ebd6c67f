#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>

#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"

// One small file, open and mapped for reading.
//
// The mapping is shared, so it shows the file's bytes as they are now, not as they were; and it holds the inode, so
// that no other file can take its number. A request that finds by stat(2) the same device, inode, size, mode and times
// therefore gets from here exactly what it would get by opening the file.
class CachedFile {
 public:
  CachedFile(UniqueFd fd, const struct stat& status, void* bytes);
  CachedFile(const CachedFile&) = delete;
  CachedFile& operator=(const CachedFile&) = delete;
  ~CachedFile();

  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] const struct stat& status() const { return status_; }
  // Memory of the file's size. Where the file is cut short meanwhile, reading it from here faults (SIGBUS), so it is
  // only ever handed to the kernel, which answers EFAULT.
  [[nodiscard]] const char* bytes() const { return static_cast<const char*>(bytes_); }
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(status_.st_size); }
  // Modification time as HTTP date.
  [[nodiscard]] std::string_view lastModified() const { return lastModified_; }
  [[nodiscard]] bool is(const struct stat& status) const;

 private:
  UniqueFd fd_;
  struct stat status_;
  void* bytes_;
  std::string lastModified_;
};

// The small files served lately, by path. What is not asked for during a while is let go, so that a deleted file's
// space comes back and a file system can be unmounted.
class FileCache {
 public:
  static constexpr std::size_t maxFileBytes = 256 * 1024;
  static constexpr std::size_t maxTotalBytes = 4 * 1024 * 1024;
  static constexpr std::size_t maxFiles = 256;
  static constexpr std::uint32_t sweepMs = 10000;  // what is unused between two sweeps is let go

  // The file of that path when `status`, which must be of this moment, says that it is the one held. Null: none is
  // held, or it was another one, which is let go.
  [[nodiscard]] std::shared_ptr<const CachedFile> find(std::string_view path, const struct stat& status);

  // Maps an open file; `status` is fstat's word on it. Null, and `fd` is left alone: it is no regular file, empty, too
  // large, or cannot be mapped. The runner drives the sweeps.
  [[nodiscard]] std::shared_ptr<const CachedFile> insert(tn::ThinRunner& runner, std::string_view path, UniqueFd& fd,
                                                         const struct stat& status);

  // Lets everything go; the runner of the last insert must still live. A file that is being sent stays open until then.
  void clear();

  [[nodiscard]] std::size_t fileCount() const { return files_.size(); }
  [[nodiscard]] std::size_t totalBytes() const { return totalBytes_; }

 private:
  struct Entry {
    std::string path;
    std::shared_ptr<const CachedFile> file;
    bool used = true;  // since the last sweep
  };
  using Files = std::list<Entry>;

  void drop(Files::iterator entry);
  void armSweep(tn::ThinRunner& runner);
  void sweep();

  Files files_;  // the one used last in front
  std::unordered_map<std::string_view, Files::iterator> byPath_;
  std::size_t totalBytes_ = 0;
  tn::ThinRunner* runner_ = nullptr;
  tn::ThinRunner::TimerHandle sweepTimer_ = 0;
};

// The cache of the process.
[[nodiscard]] FileCache& fileCache();
