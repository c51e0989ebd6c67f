#include "services/sysd/files_handler.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <expected>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/bus/looper.h"
#include "platform/policies.h"
#include "services/sysd/errors.h"
#include "services/sysd/fields.h"
#include "services/sysd/subscriber_list.h"

namespace sysd {
namespace {

// Files are put into it by the web server, which need not be the same user; the umask says how far that goes.
constexpr mode_t directoryMode = 0777;
constexpr std::uint32_t turnMs = 1;

using Name = std::expected<StoreName, tn::message>;

tn::message notAllowed() {
  return tn::errorMsg(tn::error::notAllowed, "not allowed");
}

tn::message bad(std::string_view why) {
  return tn::errorMsg(error::badRequest, why);
}

// No right to files goes without that to read.
bool mayRead(const tn::message& msg) {
  return tn::policies::holds(msg, tn::policies::read) && tn::policies::holds(msg, tn::policies::readFiles);
}

bool mayWrite(const tn::message& msg) {
  return tn::policies::holds(msg, tn::policies::read) && tn::policies::holds(msg, tn::policies::writeFiles);
}

bool mayKnow(const tn::message& msg, const StoreName& name) {
  return tn::policies::holds(msg, tn::policies::sensitiveFiles) || !isSensitiveName(name.rest);
}

tn::message unreadable(int why) {
  return tn::errorMsg(error::notStored, std::string("the directory cannot be read: ") + std::strerror(why));
}

bool isMissing(int why) {
  return why == ENOENT || why == ENOTDIR;
}

tn::message noDirectory() {
  return tn::errorMsg(tn::error::noSuchService, "no such directory");
}

// What became of a change; 0 is success.
tn::message outcome(int why) {
  switch (why) {
    case 0:
      return {};
    case ENOENT:
    case ENOTDIR:
      return tn::errorMsg(tn::error::noSuchService, "no such file");
    case EEXIST:
      return tn::errorMsg(error::conflict, "there is a file of that name");
    case ENOTEMPTY:
      return tn::errorMsg(error::conflict, "the directory is not empty");
    default:
      return tn::errorMsg(error::notStored, std::string("cannot store the change: ") + std::strerror(why));
  }
}

// The same where the directory of the name could not be opened.
tn::message noFolder(int why) {
  return isMissing(why) ? noDirectory() : outcome(why);
}

Name checked(const tn::message& msg, std::optional<StoreName> name, std::string_view whatIsWrong) {
  if (!name) return std::unexpected(bad(whatIsWrong));
  if (!mayKnow(msg, *name)) return std::unexpected(notAllowed());
  return *std::move(name);
}

Name directoryOf(const FileStore& store, const tn::message& msg) {
  return checked(msg, store.directoryName(msg.get(field::file::name).value_or(std::string_view())),
                 "the directory (string 1) is no name in the store");
}

Name fileOf(const FileStore& store, const tn::message& msg) {
  return checked(msg, store.fileName(msg.get(field::file::name).value_or(std::string_view())),
                 "the name (string 1) is missing, or none in the store");
}

Name newNameOf(const FileStore& store, const tn::message& msg) {
  return checked(msg, store.fileName(msg.get(field::file::newName).value_or(std::string_view())),
                 "the new name (string 2) is missing, or none in the store");
}

int removeEntry(const UniqueFd& folder, const std::string& entry) {
  if (::unlinkat(folder.get(), entry.c_str(), 0) == 0) return 0;
  if (errno != EISDIR) return errno;
  return ::unlinkat(folder.get(), entry.c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
}

tn::message describe(const struct statvfs& status) {
  const std::uint64_t unit = status.f_frsize;
  tn::message msg;
  msg.insert(field::storage::total, status.f_blocks * unit);
  msg.insert(field::storage::free, status.f_bfree * unit);
  msg.insert(field::storage::available, status.f_bavail * unit);
  msg.insert(field::storage::inodes, std::uint64_t{status.f_files});
  msg.insert(field::storage::freeInodes, std::uint64_t{status.f_ffree});
  msg.insert(field::storage::readOnly, (status.f_flag & ST_RDONLY) != 0);
  return msg;
}

// Program, handler and session.
std::vector<std::uint32_t> sessionOf(const tn::message& msg) {
  auto path = msg.get(tn::field::sender).value_or(std::vector<std::uint32_t>());
  path.resize(std::min(path.size(), SubscriberList::sessionElements));
  return path;
}

}  // namespace

FilesHandler::FilesHandler(const FileStore& store, tn::TimerQueue& timers)
    : store_(store), timers_(timers), turn_([this] { onTurn(); }) {}

void FilesHandler::handleCmd(tn::message& msg) {
  if (msg.get(tn::field::command) != tn::command::getAll) return Handler::handleCmd(msg);
  if (auto answer = list(msg)) reply(msg, *std::move(answer));
}

std::optional<tn::message> FilesHandler::list(const tn::message& msg) {
  if (!mayRead(msg)) return notAllowed();
  const Name name = directoryOf(store_, msg);
  if (!name) return name.error();
  const std::uint32_t entries = msg.get(field::listing::entries).value_or(Listing::mostEntries);
  if (entries < 1 || entries > Listing::mostEntries) return bad("a page (u32 3) has 1 to 500 entries");
  const auto directory = openDirectory(*name);
  if (!directory) return isMissing(directory.error()) ? noDirectory() : unreadable(directory.error());
  auto listing = Listing::open(*directory, {std::string(msg.get(field::listing::after).value_or(std::string_view())),
                                            entries, tn::policies::holds(msg, tn::policies::sensitiveFiles)});
  if (!listing) return unreadable(listing.error());
  const auto progress = listing->read(entriesPerTurn);
  if (!progress) return unreadable(progress.error());
  if (*progress == Listing::Progress::done) return listing->answer();
  if (isTooBusyFor(msg)) return tn::errorMsg(error::tooMuch, "too busy, try again");
  jobs_.push_back({msg, *std::move(listing)});
  if (!turn_.armed()) turn_.start(timers_, turnMs);
  return std::nullopt;
}

bool FilesHandler::isTooBusyFor(const tn::message& msg) const {
  if (jobs_.size() == mostListings) return true;
  const auto session = sessionOf(msg);
  const auto isSame = [&](const Job& job) { return sessionOf(job.request) == session; };
  return std::cmp_greater_equal(std::ranges::count_if(jobs_, isSame), mostListingsOfSession);
}

void FilesHandler::onTurn() {
  const auto progress = jobs_.front().listing.read(entriesPerTurn);
  if (progress && *progress == Listing::Progress::more) {
    jobs_.splice(jobs_.end(), jobs_, jobs_.begin());
  } else {
    // Taken off first: to send may end the link, and with it all of them.
    std::list<Job> ended;
    ended.splice(ended.end(), jobs_, jobs_.begin());
    Job& job = ended.front();
    reply(job.request, progress ? job.listing.answer() : unreadable(progress.error()));
  }
  if (!jobs_.empty()) turn_.start(timers_, turnMs);
}

// Programs that come back have other numbers, so answers would lead nowhere.
void FilesHandler::unlinked() {
  jobs_.clear();
  turn_.cancel();
}

tn::message FilesHandler::cmdGet(tn::message& msg) {
  if (!mayRead(msg)) return notAllowed();
  const Name name = directoryOf(store_, msg);
  if (!name) return name.error();
  const auto directory = openDirectory(*name);
  if (!directory) return isMissing(directory.error()) ? noDirectory() : unreadable(directory.error());
  struct statvfs status {};
  if (::fstatvfs(directory->get(), &status) != 0) return unreadable(errno);
  return describe(status);
}

tn::message FilesHandler::cmdAddObj(tn::message& msg) {
  if (!mayWrite(msg)) return notAllowed();
  const Name name = fileOf(store_, msg);
  if (!name) return name.error();
  const auto folder = openFolder(*name);
  if (!folder) return noFolder(folder.error());
  return outcome(::mkdirat(folder->get(), name->last().c_str(), directoryMode) == 0 ? 0 : errno);
}

tn::message FilesHandler::cmdRemoveObj(tn::message& msg, std::uint32_t /*object*/) {
  if (!mayWrite(msg)) return notAllowed();
  const Name name = fileOf(store_, msg);
  if (!name) return name.error();
  const auto folder = openFolder(*name);
  if (!folder) return noFolder(folder.error());
  return outcome(removeEntry(*folder, name->last()));
}

tn::message FilesHandler::cmdMoveObj(tn::message& msg, std::uint32_t /*object*/) {
  if (!mayWrite(msg)) return notAllowed();
  const Name from = fileOf(store_, msg);
  if (!from) return from.error();
  const Name to = newNameOf(store_, msg);
  if (!to) return to.error();
  if (from->root != to->root) return bad("a file cannot be moved between the disk and the flash");
  if (to->rest.starts_with(from->rest + "/")) return bad("a directory cannot be moved into itself");
  const auto folder = openFolder(*from);
  if (!folder) return noFolder(folder.error());
  const auto newFolder = openFolder(*to);
  if (!newFolder) return noFolder(newFolder.error());
  const bool moved =
      ::renameat2(folder->get(), from->last().c_str(), newFolder->get(), to->last().c_str(), RENAME_NOREPLACE) == 0;
  return outcome(moved ? 0 : errno);
}

}  // namespace sysd
