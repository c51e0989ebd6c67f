#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>

#include "http/file_cache.h"
#include "http/path_watch.h"
#include "http/text_hash.h"
#include "platform/bus/thin_runner.h"

// The file, or folder, that a question of a servlet leads to.
struct FileAnswer {
  std::string path;
  std::string_view contentType;      // lives for ever
  bool compressed = false;           // the ".gz" variant in the place of the file itself
  mutable FileCache::Place place{};  // of that path and status
  struct stat status {};
};

// What servlets have found in the file system lately, kept as long as it is proved to hold (see PathWatch), so that a
// request for the same costs no look at the file system. A question is an owner and a text.
//
// The answer to a question is kept when it is asked for the second time: for one that is asked once the watches would
// be wasted. Where the proof cannot be had it is tried again ever more rarely. A file that is in use is looked at anew
// once in a second all the same, for the sake of writers that the kernel does not announce.
class FileAnswers {
 public:
  static constexpr std::size_t maxAnswers = 256;
  static constexpr std::uint32_t sweepMs = 10000;  // what is unused between two sweeps is let go

  class Entry {
   public:
    Entry(const void* owner, std::string_view question) : owner_(owner), question_(question) {}

   private:
    friend class FileAnswers;
    const void* owner_;
    std::string question_;
    std::list<std::unique_ptr<Entry>>::iterator self_;
    std::time_t looked_ = 0;  // the second in which it was last looked at
    bool used_ = true;        // since the last sweep
    PathWatch::Facts facts_;
    FileAnswer answer_;
  };
  using Entries = std::list<std::unique_ptr<Entry>>;

  // Where an answer was found last; it is there still as long as none has been let go.
  class Place {
    friend class FileAnswers;
    Entry* entry_ = nullptr;
    std::uint64_t drops_ = UINT64_MAX;
  };

  // Opens what the proofs need, as it would be at the first request: a server at rest holds as many descriptors as one
  // that has worked.
  void prepare() { (void)watch_.open(); }

  // For every request, after its last byte was read and before a servlet is asked about it: what is known will be
  // checked before it is used. The runner drives the sweeps. `announced` and `newsHeard` are its words on the first
  // byte of the request: with the first, one check serves all such requests until the next wait, and with the second
  // none is needed.
  void beginRequest(tn::ThinRunner& runner, bool announced, bool newsHeard) {
    runner_ = &runner;
    checked_ = (announced && checkedAfter_ == runner.waits()) ||
               (newsHeard && newsOf_ == &runner && newsAfter_ < runner.waits());
    if (checked_) checkedAt_ = std::time(nullptr);
  }
  // The request is answered. Nothing is known or kept until the next one begins.
  void endRequest() { runner_ = nullptr; }

  // Null: nothing is kept. The answer dies at the next call.
  [[nodiscard]] const FileAnswer* find(const void* owner, std::string_view question) {
    if (!mayKnow()) return nullptr;
    Entry* const entry = locate(owner, question);
    return entry != nullptr ? use(*entry) : nullptr;
  }
  // For an owner that asks the same question all the time, and has a place for that question alone.
  [[nodiscard]] const FileAnswer* find(const void* owner, std::string_view question, Place& place) {
    if (!mayKnow()) return nullptr;
    if (place.drops_ != drops_) {
      place.entry_ = locate(owner, question);
      if (place.entry_ == nullptr) return nullptr;
      place.drops_ = drops_;
    }
    return use(*place.entry_);
  }

  // After a find that returned null: looks for the answer through `look(view, answer)`, which returns whether there is
  // one, when it is worth to be kept. Null, and most often `look` was not called: it is not kept.
  template <typename Look>
  const FileAnswer* keep(const void* owner, std::string_view question, Look&& look) {
    if (!isWanted(owner, question)) return nullptr;
    auto entry = std::make_unique<Entry>(owner, question);
    WatchedView view(watch_, entry->facts_);
    return look(static_cast<tn::FileView&>(view), entry->answer_) ? insert(std::move(entry)) : nullptr;
  }

  // Lets everything go. The runner of the last request that kept something must still live.
  void clear();

  [[nodiscard]] std::size_t size() const { return entries_.size(); }
  [[nodiscard]] std::size_t watches() const { return watch_.watches(); }

 private:
  struct Key {
    const void* owner;
    std::string_view question;
    friend bool operator==(const Key&, const Key&) = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const {
      return textHash(key.question) ^ reinterpret_cast<std::uintptr_t>(key.owner);
    }
  };
  // How often a question was asked that has no answer yet; by hash, so that others may share the place.
  struct Asked {
    std::size_t hash = 0;
    std::uint32_t times = 0;
  };
  static constexpr std::uint64_t noWait = UINT64_MAX;
  void check();
  void join();
  // After this an answer that is still there and holds may be used.
  [[nodiscard]] bool mayKnow() {
    if (runner_ == nullptr || entries_.empty()) return false;
    if (!checked_) check();
    return true;
  }
  [[nodiscard]] const FileAnswer* use(Entry& entry) {
    if (!entry.facts_.hold() || (entry.looked_ != checkedAt_ && !stillSame(entry))) {
      drop(entry.self_);
      return nullptr;
    }
    entry.used_ = true;
    // A folder and a file in it are asked for in turn: they need not change places each time.
    const auto front = entries_.begin();
    if (entry.self_ != front && entry.self_ != std::next(front)) entries_.splice(front, entries_, entry.self_);
    return &entry.answer_;
  }
  [[nodiscard]] Entry* locate(const void* owner, std::string_view question) const;
  [[nodiscard]] bool isWanted(const void* owner, std::string_view question);
  const FileAnswer* insert(std::unique_ptr<Entry> entry);
  [[nodiscard]] bool stillSame(Entry& entry) const;
  void drop(Entries::iterator entry);
  void armSweep();
  void sweep();

  PathWatch watch_;
  Entries entries_;  // the one used last in front; lets go of its watches before `watch_` ends
  std::unordered_map<Key, Entries::iterator, KeyHash> byKey_;
  std::array<Asked, 128> asked_{};
  tn::ThinRunner* runner_ = nullptr;  // of the request; null between two
  tn::ThinRunner* sweeper_ = nullptr;
  tn::ThinRunner::TimerHandle sweepTimer_ = 0;
  bool checked_ = false;                 // for this request
  std::time_t checkedAt_ = 0;            // the second of the last check
  std::uint64_t drops_ = 0;              // how often something was let go
  std::uint64_t checkedAfter_ = noWait;  // the wait after which the last check was made
  tn::ThinRunner* newsOf_ = nullptr;     // the runner that tells of changes
  std::uint64_t newsAfter_ = 0;          // the wait after which it began to
};

// Those of the process.
[[nodiscard]] FileAnswers& fileAnswers();
