#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "services/common/store_file.h"
#include "services/sermgr/record.h"

namespace sermgr {

// The records as they outlive the process and the machine's power: an SQLite database with a rollback journal. What a
// change has answered is on the storage; a change that was cut off has not happened.
// A database that is no good is moved aside and begun anew, as storage::openStore does it.
class Store {
 public:
  // Bounds what the records can take of a small machine's flash.
  static constexpr std::int64_t maxPages = 1024;
  static constexpr std::int64_t schemaVersion = 1;

  using Failure = storage::Failure;

  explicit Store(std::string path) : path_(std::move(path)) {}

  // Opens the database, with its folders; one that is new is given `defaults`. Every later call fails until this
  // succeeded.
  [[nodiscard]] Failure open(std::span<const Record> defaults);
  // The records, sorted by name. The failure of a load that finds damage leads to a database anew at the next open.
  [[nodiscard]] Failure load(std::vector<Record>& records);
  [[nodiscard]] bool isOpen() const { return database_.isOpen(); }
  // Every later call but open() fails.
  void close() { database_.close(); }
  // Adds a record, or replaces the one of its name as a whole.
  [[nodiscard]] Failure save(const Record& record);
  // No failure when there is no such record.
  [[nodiscard]] Failure remove(std::string_view name);

  // As storage::limitPages; it opens with maxPages.
  void limitPages(std::int64_t pages) { storage::limitPages(database_, pages); }

 private:
  [[nodiscard]] int read(std::vector<Record>& records);
  [[nodiscard]] int write(const Record& record);
  [[nodiscard]] int erase(std::string_view name);
  [[nodiscard]] int readServers(std::vector<Record>& records);
  [[nodiscard]] int readPrefixes(std::vector<Record>& records);

  std::string path_;
  storage::Database database_;
};

}  // namespace sermgr
