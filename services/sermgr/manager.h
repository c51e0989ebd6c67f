#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/handler.h"
#include "platform/bus/timer.h"
#include "services/sermgr/delivery.h"
#include "services/sermgr/record.h"
#include "services/sermgr/store.h"

namespace sermgr {

// Commands and errors of this service, beside those of every handler; docs/server-record.md.
namespace command {
inline constexpr std::uint32_t applyRecord = 0x30001;  // to a server
inline constexpr std::uint32_t askRecords = 0x30003;   // from a server
}  // namespace command

namespace error {
inline constexpr std::uint32_t badRecord = 0xfe0010;
inline constexpr std::uint32_t notStored = 0xfe0011;
inline constexpr std::uint32_t tooManyChanges = 0xfe0012;
}  // namespace error

inline constexpr std::uint32_t busId = 68;
inline constexpr std::uint32_t handlerId = 1;
inline constexpr char databasePath[] = "/rw/store/servers.db";

// What a machine that was never configured starts with: http and https, for the machine itself alone.
[[nodiscard]] std::vector<Record> defaultRecords();

// The service manager's handler: it keeps the server records, tells every change to the servers, and gives all records
// to the servers that ask or that it finds when its own link to the bus is made.
//
// A change is stored first and answered last, when the servers have answered it or had their time for it. What a server
// refuses is kept all the same: the answer then holds the reason, and so does the record when it is read. The reasons
// belong to the running servers and are not stored.
//
// A change on trial is told to the servers and not stored: whoever locks himself out by it needs nothing but to wait.
// An entry owns its trial, which begins with a `set` that names its seconds, and ends in one of four ways.
// - Another change of the record (set without seconds, addObj, removeObj) is stored and takes its place. When it cannot
//   be stored the trial runs on.
// - Another trial takes its place and has the whole of its own time; what comes back is still the stored record.
// - Its time is up: the stored record goes to the servers.
// - This service ends: the servers are given the stored record as soon as it is there again.
// Until then what is on trial is what every server is given, whether they take it or not, and whichever servers and
// links come and go. A record that follows a trial is brought to the servers again and again until each one that is
// there has heard it: whoever waits for it may have no other way to see that a server, or the broker, was too busy.
class Manager : public tn::Handler {
 public:
  // Changes that may be on their way to the servers at a time.
  static constexpr std::size_t maxChanges = 256;
  // Between two attempts to open a store that cannot be opened.
  static constexpr std::uint32_t retryMs = 1000;
  // Between two attempts to bring a record that follows a trial to the servers.
  static constexpr std::uint32_t bringMs = 1000;

  // The store must outlive the manager.
  explicit Manager(Store& store);

  // Opens the store and takes its records. While it cannot be opened, the defaults serve and changes are refused; it is
  // tried again every retryMs, and the servers are then told the records.
  void start();

  void handleCmd(tn::message& msg) override;
  tn::message cmdGet(tn::message& msg) override;
  tn::message cmdGetAll(tn::message& msg) override;
  void linked() override;

 private:
  // What is tried out in place of the stored record.
  struct Trial {
    Record stored;  // what comes back
    tn::Clock::time_point end;
  };
  struct Entry {
    Record record;               // what the servers are given
    bool applied = false;        // the servers have taken it
    std::string lastError;       // why not, when they refused
    std::uint64_t revision = 0;  // counts changes: late answers to an earlier one say nothing any more
    std::optional<Trial> trial = std::nullopt;
    std::unique_ptr<tn::Timer> timer = nullptr;  // ends the trial; after it, brings once more what followed
  };
  // Why a change is not made.
  struct Refusal {
    std::uint32_t code;
    std::string text;
  };
  // A change that the servers are being told of.
  struct Told {
    tn::message address;  // where its answer goes
    std::string name;
    bool gone;  // it was a removal
    std::uint64_t revision;
  };
  using Change = std::optional<Refusal> (Manager::*)(const tn::message& msg, std::string_view name);

  [[nodiscard]] bool openStore(std::vector<Record>& records);
  void openStoreAgain();
  void take(std::vector<Record> records);

  void change(const tn::message& msg, Change make);
  std::optional<Refusal> set(const tn::message& msg, std::string_view name);
  std::optional<Refusal> add(const tn::message& msg, std::string_view name);
  std::optional<Refusal> remove(const tn::message& msg, std::string_view name);
  std::optional<Refusal> keep(const Record& record);
  std::optional<Refusal> tryOut(const Record& record, std::uint32_t seconds);
  void takeBack(const std::string& name);
  [[nodiscard]] std::unique_ptr<tn::Timer> bringer(const std::string& name);
  void bring(const std::string& name);
  static void bringAgain(Entry& entry, const Outcome& outcome);
  void tell(const tn::message& request, const std::string& name);
  void finish(const Told& told, const Outcome& outcome);

  void giveAll(const tn::message& request);
  void sendAll(std::span<const std::uint32_t> servers);
  void sendUntracked(std::uint32_t program);
  [[nodiscard]] std::vector<Entry*> enabledFirst();

  Entry* settle(const std::string& name, std::uint64_t revision, const Outcome& outcome);
  [[nodiscard]] static tn::message describe(const Entry& entry);
  [[nodiscard]] static tn::message applyCommand(const Record& record);
  [[nodiscard]] static tn::message removeCommand(std::string_view name);

  Store& store_;
  Delivery delivery_;
  std::map<std::string, Entry, std::less<>> entries_;
  std::uint64_t lastRevision_ = 0;
  std::size_t changes_ = 0;         // on their way
  std::set<std::uint32_t> askers_;  // who is about to be given all records
  Store::Failure lastFailure_;      // of opening the store
  tn::Timer retry_;
};

}  // namespace sermgr
