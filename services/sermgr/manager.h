#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
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
class Manager : public tn::Handler {
 public:
  // Changes that may be on their way to the servers at a time.
  static constexpr std::size_t maxChanges = 256;
  // Between two attempts to open a store that cannot be opened.
  static constexpr std::uint32_t retryMs = 1000;

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
  struct Entry {
    Record record;
    bool applied = false;        // the servers have taken it
    std::string lastError;       // why not, when they refused
    std::uint64_t revision = 0;  // counts changes: late answers to an earlier one say nothing any more
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
  void tell(const tn::message& request, const std::string& name);
  void finish(const Told& told, const Outcome& outcome);

  void giveAll(const tn::message& request);
  void sendAll(std::span<const std::uint32_t> servers);
  void sendUntracked(std::uint32_t program);
  [[nodiscard]] std::vector<Entry*> enabledFirst();

  void settle(const std::string& name, std::uint64_t revision, const Outcome& outcome);
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
