#include "http/path_watch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

#include "platform/web/ascii.h"

namespace {

constexpr std::uint32_t selfEvents = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;
constexpr std::uint32_t folderEvents = selfEvents | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;
constexpr std::uint32_t fileEvents = selfEvents | IN_MODIFY | IN_CLOSE_WRITE;

// By the magic number that statfs(2) tells: file systems whose every change passes through this kernel, with names that
// are told as they are looked up.
constexpr std::array<std::uint32_t, 14> provable{
    0x0000EF53,  // ext2, ext3, ext4
    0x01021994,  // tmpfs
    0x858458F6,  // ramfs
    0x58465342,  // xfs
    0x9123683E,  // btrfs
    0xF2F52010,  // f2fs
    0x000072B6,  // jffs2
    0x24051905,  // ubifs
    0x73717368,  // squashfs
    0x28CD3D45,  // cramfs
    0xE0F5E1E2,  // erofs
    0x00009660,  // iso9660
    0x00007275,  // romfs
    0x3153464A,  // jfs
};

bool announcesChanges(const std::string& path) {
  struct statfs status {};
  if (statfs(path.c_str(), &status) != 0) return false;
  const auto type = static_cast<std::uint32_t>(status.f_type);
  return std::find(provable.begin(), provable.end(), type) != provable.end();
}

// The form in which names are compared.
std::string folded(std::string_view name) {
  std::string out(name);
  std::transform(out.begin(), out.end(), out.begin(), ascii::lower);
  return out;
}

bool isAscii(std::string_view name) {
  return std::all_of(name.begin(), name.end(), [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
}

bool passes(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool watchReadiness(const UniqueFd& epoll, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

// A piece of a path: a folder, a file, or a name that is not there. It lives as long as facts rest on it or on what is
// below it.
struct PathWatch::Node {
  Node* parent = nullptr;
  std::string name;  // folded
  int watch = -1;    // none for what is not there
  bool folder = false;
  std::map<std::string, std::unique_ptr<Node>, std::less<>> children;
  std::vector<Facts*> facts;    // that rest on it being what it is
  std::vector<Facts*> listers;  // that rest on which names are in it
};

PathWatch::PathWatch() = default;

PathWatch::~PathWatch() {
  close();
}

void PathWatch::Facts::release() {
  hold_ = false;
  PathWatch* watch = std::exchange(watch_, nullptr);
  for (Node* node : std::exchange(nodes_, {})) {
    std::erase(node->facts, this);
    std::erase(node->listers, this);
    watch->removeIfIdle(node);
  }
}

// The table of mounts is read through once: only what changes afterwards is told.
bool PathWatch::open() {
  if (changes_) return true;
  if (impossible_) return false;
  inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (inotify_) mounts_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  if (mounts_) changes_.reset(epoll_create1(EPOLL_CLOEXEC));
  if (changes_ && watchReadiness(changes_, inotify_.get(), EPOLLIN) &&
      watchReadiness(changes_, mounts_.get(), EPOLLPRI)) {
    return true;
  }
  impossible_ = !passes(errno);
  close();
  return false;
}

void PathWatch::close() {
  forget();
  changes_.reset();
  mounts_.reset();
  inotify_.reset();
}

void PathWatch::check() {
  if (!changes_) return;
  std::array<epoll_event, 2> events;
  const int count = epoll_wait(changes_.get(), events.data(), static_cast<int>(events.size()), 0);
  if (count < 0) forget();
  for (int i = 0; i < count; ++i) {
    if (events[static_cast<std::size_t>(i)].data.fd == inotify_.get()) {
      drain();
    } else {
      forget();
    }
  }
}

bool PathWatch::join(tn::ThinRunner& runner) {
  if (!changes_ || !runner.addNews(inotify_.get(), false, [this] { drain(); })) return false;
  if (!runner.addNews(mounts_.get(), true, [this] { forget(); })) {
    runner.removeSocket(inotify_.get());
    return false;
  }
  // The table of mounts tells each change once, and may just have told one to the kernel, which asks it at this moment.
  forget();
  return true;
}

void PathWatch::leave(tn::ThinRunner& runner) {
  runner.removeSocket(inotify_.get());
  runner.removeSocket(mounts_.get());
}

void PathWatch::drain() {
  alignas(inotify_event) std::array<char, queueBytes> buffer;
  for (unsigned reads = 0; reads < queueReads; ++reads) {
    const ssize_t got = read(inotify_.get(), buffer.data(), buffer.size());
    if (got <= 0) {
      if (got == 0 || errno != EAGAIN) forget();
      return;
    }
    for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
      inotify_event event;
      std::memcpy(&event, &buffer[at], sizeof event);
      const char* name = &buffer[at + sizeof event];
      take(event.wd, event.mask, {name, event.len == 0 ? 0 : strnlen(name, event.len)});
      at += sizeof event + event.len;
    }
  }
  forget();
}

// Events of a watch that has been taken back meanwhile find nothing.
void PathWatch::take(int watch, std::uint32_t mask, std::string_view name) {
  if ((mask & IN_Q_OVERFLOW) != 0) {
    forget();
    return;
  }
  std::vector<Node*> nodes;
  const auto [first, last] = byWatch_.equal_range(watch);
  for (auto entry = first; entry != last; ++entry)
    nodes.push_back(entry->second);
  for (Node* node : nodes) {
    // What the nodes before has touched may have taken this one along.
    const auto [begin, end] = byWatch_.equal_range(watch);
    if (std::none_of(begin, end, [node](const auto& entry) { return entry.second == node; })) continue;
    if ((mask & IN_IGNORED) != 0) unwatch(*node, false);
    if (name.empty()) {
      touch(*node);
    } else {
      takeNamed(*node, name);
    }
  }
}

// Whatever rests on which names are in the folder, or on what one of that name leads to.
void PathWatch::takeNamed(Node& folder, std::string_view name) {
  std::vector<Facts*> touched = folder.listers;
  const bool ascii = isAscii(name);
  const std::string wanted = folded(name);
  for (const auto& [key, piece] : folder.children) {
    if (!ascii || key == wanted) collect(*piece, touched);
  }
  releaseAll(touched);
}

// Whatever rests on a node or on something below it.
void PathWatch::touch(Node& node) {
  std::vector<Facts*> touched;
  collect(node, touched);
  releaseAll(touched);
}

void PathWatch::collect(const Node& node, std::vector<Facts*>& all) {
  all.insert(all.end(), node.facts.begin(), node.facts.end());
  all.insert(all.end(), node.listers.begin(), node.listers.end());
  for (const auto& entry : node.children)
    collect(*entry.second, all);
}

// With the last facts of a node the node goes: nothing of the tree may be held across this.
void PathWatch::releaseAll(const std::vector<Facts*>& touched) {
  for (Facts* facts : touched)
    facts->release();
}

void PathWatch::forget() {
  if (root_) touch(*root_);
}

void PathWatch::removeIfIdle(Node* node) {
  while (node != nullptr && node->facts.empty() && node->listers.empty() && node->children.empty()) {
    unwatch(*node, true);
    Node* parent = node->parent;
    --nodes_;
    if (parent == nullptr) {
      root_.reset();
    } else {
      parent->children.erase(node->name);
    }
    node = parent;
  }
}

void PathWatch::unwatch(Node& node, bool tellKernel) {
  if (node.watch < 0) return;
  const auto [first, last] = byWatch_.equal_range(node.watch);
  const auto entry = std::find_if(first, last, [&node](const auto& known) { return known.second == &node; });
  if (entry != last) byWatch_.erase(entry);
  if (tellKernel && !byWatch_.contains(node.watch)) inotify_rm_watch(inotify_.get(), node.watch);
  node.watch = -1;
}

void PathWatch::begin(Facts& facts) {
  facts.release();
  facts.watch_ = this;
  facts.hold_ = true;
}

void PathWatch::rest(Facts& facts, Node& node) {
  if (std::find(node.facts.begin(), node.facts.end(), &facts) != node.facts.end()) return;
  node.facts.push_back(&facts);
  facts.nodes_.push_back(&node);
}

// Null: there are too many.
PathWatch::Node* PathWatch::child(Node& parent, std::string_view name) {
  std::string key = folded(name);
  if (const auto known = parent.children.find(key); known != parent.children.end()) return known->second.get();
  if (nodes_ >= maxNodes) return nullptr;
  auto made = std::make_unique<Node>();
  made->parent = &parent;
  made->name = key;
  ++nodes_;
  return parent.children.emplace(std::move(key), std::move(made)).first->second.get();
}

bool PathWatch::addWatch(Node& node, const std::string& path, std::uint32_t mask) {
  const int watch = inotify_add_watch(inotify_.get(), path.c_str(), mask);
  if (watch < 0) return false;
  node.watch = watch;
  node.folder = (mask & IN_ONLYDIR) != 0;
  byWatch_.emplace(watch, &node);
  return announcesChanges(path);
}

PathWatch::Found PathWatch::watchFolder(Node& node, const std::string& path) {
  if (node.watch >= 0) return node.folder ? Found::present : Found::unprovable;
  errno = 0;
  if (addWatch(node, path, folderEvents)) return Found::present;
  return errno == ENOENT && node.watch < 0 ? Found::missing : Found::unprovable;
}

// The first look tells which watch is needed, the second what is to be kept: it comes after the watch. A file that
// takes the place of another in between is an event of the folder.
PathWatch::Found PathWatch::watchLeaf(Node& node, const std::string& path, struct stat& status) {
  if (lstat(path.c_str(), &status) != 0) return errno == ENOENT ? Found::missing : Found::unprovable;
  if (S_ISDIR(status.st_mode)) return watchFolder(node, path);
  if (!S_ISREG(status.st_mode) || node.folder) return Found::unprovable;
  if (node.watch < 0 && !addWatch(node, path, fileEvents)) return Found::unprovable;
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return Found::unprovable;
  return Found::present;
}

// Watches all folders on the way. `node` becomes the last piece, not looked at yet, and `path` its path without
// needless slashes; or, when missing, the piece that is not there.
PathWatch::Found PathWatch::walk(std::string_view rest, Node*& node, std::string& path) {
  node = nullptr;
  if (!changes_ || !rest.starts_with('/') || rest.find('\0') != std::string_view::npos) return Found::unprovable;
  if (!root_) {
    root_ = std::make_unique<Node>();
    ++nodes_;
  }
  node = root_.get();
  path.assign(1, '/');
  while (true) {
    rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
    if (rest.empty()) return Found::present;
    if (const Found found = watchFolder(*node, path); found != Found::present) return found;
    const std::string_view name = rest.substr(0, rest.find('/'));
    rest.remove_prefix(name.size());
    Node* next = name == "." || name == ".." ? nullptr : child(*node, name);
    if (next == nullptr) return Found::unprovable;
    node = next;
    if (path.size() > 1) path += '/';
    path += name;
  }
}

std::optional<struct stat> PathWatch::status(const std::string& path, Facts& facts) {
  if (facts.hold_) {
    Node* node = nullptr;
    std::string plain;
    struct stat status {};
    Found found = walk(path, node, plain);
    if (found == Found::present) found = watchLeaf(*node, plain, status);
    if (found == Found::unprovable) {
      giveUp(facts, node);
    } else {
      rest(facts, *node);
      // With a slash at its end, a path leads to a folder or nowhere.
      if (found == Found::missing || (path.ends_with('/') && !S_ISDIR(status.st_mode))) return std::nullopt;
      return status;
    }
  }
  return tn::FileView().status(path);
}

std::vector<std::string> PathWatch::names(const std::string& folder, Facts& facts) {
  if (facts.hold_) {
    Node* node = nullptr;
    std::string plain;
    Found found = walk(folder, node, plain);
    if (found == Found::present) found = watchFolder(*node, plain);
    if (found == Found::unprovable) {
      giveUp(facts, node);
    } else {
      rest(facts, *node);
      node->listers.push_back(&facts);
    }
  }
  return tn::FileView().names(folder);
}

void PathWatch::giveUp(Facts& facts, Node* reached) {
  // The node that was reached may rest on these facts alone: it is looked at before they go.
  if (reached != nullptr && reached->facts.empty()) removeIfIdle(reached);
  facts.release();
}
