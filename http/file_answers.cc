#include "http/file_answers.h"

#include <bit>
#include <utility>

#include "http/file_facts.h"

namespace {

constexpr std::uint32_t mostRarely = 1024;  // a proof that cannot be had is tried once in as many requests

FileAnswers answers;

}  // namespace

// Mostly it is one of the two that were used last.
FileAnswers::Entry* FileAnswers::locate(const void* owner, std::string_view question) const {
  int left = 2;
  for (auto entry = entries_.begin(); left != 0 && entry != entries_.end(); ++entry, --left) {
    if ((*entry)->owner_ == owner && (*entry)->question_ == question) return entry->get();
  }
  const auto found = byKey_.find(Key{owner, question});
  return found != byKey_.end() ? found->second->get() : nullptr;
}

void FileAnswers::check() {
  watch_.check();
  checked_ = true;
  checkedAfter_ = runner_->waits();
  checkedAt_ = std::time(nullptr);
  if (newsOf_ == nullptr) join();
}

void FileAnswers::join() {
  if (!watch_.join(*runner_)) return;
  newsOf_ = runner_;
  newsAfter_ = runner_->waits();
}

// Once in a second. Of a folder nothing is told that could go stale unannounced.
bool FileAnswers::stillSame(Entry& entry) const {
  entry.looked_ = checkedAt_;
  if (S_ISDIR(entry.answer_.status.st_mode)) return true;
  struct stat status {};
  return stat(entry.answer_.path.c_str(), &status) == 0 && isSameFile(status, entry.answer_.status);
}

// At the second time, the fourth, the eighth and so on.
bool FileAnswers::isWanted(const void* owner, std::string_view question) {
  if (runner_ == nullptr || !watch_.open()) return false;
  const std::size_t hash = KeyHash()(Key{owner, question});
  Asked& asked = asked_[hash % asked_.size()];
  if (asked.hash != hash) asked = {hash, 0};
  ++asked.times;
  return asked.times >= 2 && (std::has_single_bit(asked.times) || asked.times % mostRarely == 0);
}

// Events that came with the watches are heard at the next check.
const FileAnswer* FileAnswers::insert(std::unique_ptr<Entry> entry) {
  if (!entry->facts_.hold()) return nullptr;
  const Key key{entry->owner_, entry->question_};
  asked_[KeyHash()(key) % asked_.size()] = {};
  if (entries_.size() >= maxAnswers) drop(std::prev(entries_.end()));
  entry->looked_ = std::time(nullptr);
  entries_.push_front(std::move(entry));
  entries_.front()->self_ = entries_.begin();
  byKey_.emplace(key, entries_.begin());
  armSweep();
  return &entries_.front()->answer_;
}

void FileAnswers::drop(Entries::iterator entry) {
  ++drops_;
  forgetFile();
  byKey_.erase(Key{(*entry)->owner_, (*entry)->question_});
  entries_.erase(entry);
}

void FileAnswers::clear() {
  ++drops_;
  forgetFile();
  byKey_.clear();
  entries_.clear();
  if (newsOf_ != nullptr) watch_.leave(*std::exchange(newsOf_, nullptr));
  watch_.close();
  asked_ = {};
  checkedAfter_ = noWait;
  if (sweepTimer_ != 0) sweeper_->removeTimer(std::exchange(sweepTimer_, 0));
}

void FileAnswers::armSweep() {
  if (sweepTimer_ != 0) return;
  sweeper_ = runner_;
  sweepTimer_ = sweeper_->addTimer(sweepMs, [this] { sweep(); });
}

// With nothing kept nothing is watched either: the kernel need not note what others do.
void FileAnswers::sweep() {
  sweepTimer_ = 0;
  watch_.check();
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const auto current = entry++;
    if (!std::exchange((*current)->used_, false) || !(*current)->facts_.hold()) drop(current);
  }
  if (entries_.empty()) return;
  sweepTimer_ = sweeper_->addTimer(sweepMs, [this] { sweep(); });
}

FileAnswers& fileAnswers() {
  return answers;
}
