#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

#include "platform/bus/files.h"
#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"

// Tells whether what the file system said before still holds, for one system call in a turn of the loop instead of one
// for each file and folder that a request touches.
//
// For every path that is asked for, the kernel's inotify watches the folders on its way, from "/" on, and the file
// itself. Each watch is set before what it guards is looked at: first a folder, then what its names lead to. So as long
// as no event names a piece of the path, the path leads to the very same file, with the same size and times, and a name
// that was not there is still missing. The kernel queues an event within the system call that makes the change. Whoever
// has changed a file and then sends a request has therefore put the event into the queue before the first byte of the
// request could be seen, and a queue that is empty after that is proof. Another file system that is put over a folder,
// or is taken away, is announced by the table of mounts, which is looked at in the same call. A runner that knows news
// (ThinRunner::addNews) looks at both along with its sockets, and then even that call is left out.
//
// What cannot be proved is not noted: a path with a symbolic link, with "." or ".." in it, through a folder that must
// not be listed, or on a file system that is not known to announce all changes (those of a network or of user space,
// and layered ones, change behind the kernel's back). Then, and where the kernel lends no watches or /proc is not
// mounted, the file system is asked each time.
//
// Two ways to write are not announced when they happen: stores to a shared mapping, and the kernel's asynchronous
// writes. They are announced when the writer closes the file. Until then, new contents show at once to who has the file
// mapped, and size and times are those of the last look.
//
// File systems may take names for equal that differ in case, so names are compared without it, and a name of other than
// ASCII characters may be any.
class PathWatch {
  struct Node;

 public:
  // What an answer rests on. Owned by whoever keeps the answer.
  class Facts {
   public:
    Facts() = default;
    Facts(const Facts&) = delete;
    Facts& operator=(const Facts&) = delete;
    ~Facts() { release(); }

    // Nothing is known any more, and nothing watched on their behalf.
    void release();
    // False: something has changed since, as far as check() has heard, or a part could not be watched.
    [[nodiscard]] bool hold() const { return hold_; }

   private:
    friend class PathWatch;
    PathWatch* watch_ = nullptr;
    std::vector<Node*> nodes_;
    bool hold_ = false;
  };

  // Watches at once; paths beyond are not watched. With their folders they bound what the kernel keeps for them.
  static constexpr std::size_t maxNodes = 2048;
  // Read of the queue at a time, and how often before the rest is taken for a change of everything. A neighbour who
  // makes files in a watched folder as fast as it can must not hold the server.
  static constexpr std::size_t queueBytes = 8192;
  static constexpr unsigned queueReads = 8;

  PathWatch();
  PathWatch(const PathWatch&) = delete;
  PathWatch& operator=(const PathWatch&) = delete;
  ~PathWatch();

  // Opens what is needed. False: not now, or not on this machine.
  [[nodiscard]] bool open();
  // Hears what has changed since the last call: facts that were touched do not hold any more. One system call when
  // nothing has.
  void check();
  // Has the runner tell of changes, so that after what it calls news nothing is left for check() to find. False: it
  // does not, or nothing is open. Once for each open(); leave() ends it.
  [[nodiscard]] bool join(tn::ThinRunner& runner);
  void leave(tn::ThinRunner& runner);
  // Ends every watch and closes the descriptors; no facts hold any more. No runner tells of changes any more.
  void close();

  // Begins to note down what `facts` are to rest on. They hold from now on, until something they rest on changes.
  void begin(Facts& facts);
  // As FileView. What was asked becomes a part of the facts; where it cannot be proved, they cease to hold. Of a folder
  // only that it is one is proved, not its size and times.
  [[nodiscard]] std::optional<struct stat> status(const std::string& path, Facts& facts);
  [[nodiscard]] std::vector<std::string> names(const std::string& folder, Facts& facts);

  [[nodiscard]] std::size_t watches() const { return byWatch_.size(); }

 private:
  enum class Found : std::uint8_t { present, missing, unprovable };

  [[nodiscard]] Found walk(std::string_view rest, Node*& node, std::string& path);
  [[nodiscard]] Found watchFolder(Node& node, const std::string& path);
  [[nodiscard]] Found watchLeaf(Node& node, const std::string& path, struct stat& status);
  [[nodiscard]] bool addWatch(Node& node, const std::string& path, std::uint32_t mask);
  [[nodiscard]] Node* child(Node& parent, std::string_view name);
  void rest(Facts& facts, Node& node);
  void giveUp(Facts& facts, Node* reached);

  void drain();
  void take(int watch, std::uint32_t mask, std::string_view name);
  void takeNamed(Node& folder, std::string_view name);
  void touch(Node& node);
  static void collect(const Node& node, std::vector<Facts*>& all);
  static void releaseAll(const std::vector<Facts*>& touched);
  void forget();
  void removeIfIdle(Node* node);
  void unwatch(Node& node, bool tellKernel);

  UniqueFd inotify_;
  UniqueFd mounts_;
  UniqueFd changes_;  // an epoll that holds the two
  bool impossible_ = false;
  std::size_t nodes_ = 0;
  std::unique_ptr<Node> root_;
  std::unordered_multimap<int, Node*> byWatch_;  // one inode may have several paths
};

// Asks the file system through the watch, and so notes down what was asked.
class WatchedView : public tn::FileView {
 public:
  WatchedView(PathWatch& watch, PathWatch::Facts& facts) : watch_(watch), facts_(facts) { watch.begin(facts); }
  std::optional<struct stat> status(const std::string& path) override { return watch_.status(path, facts_); }
  std::vector<std::string> names(const std::string& folder) override { return watch_.names(folder, facts_); }

 private:
  PathWatch& watch_;
  PathWatch::Facts& facts_;
};
