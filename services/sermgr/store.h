#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "services/sermgr/database.h"
#include "services/sermgr/record.h"

namespace sermgr {

// The records as they outlive the process and the machine's power: an SQLite database with a rollback journal. What a
// change has answered is on the storage; a change that was cut off has not happened.
//
// The schema's version is the database's user_version. A database that is damaged, or that is none of this service, is
// moved aside together with its journal (which would else be played into its successor) and begun anew.
class Store {
 public:
  // Bounds what the records can take of a small machine's flash.
  static constexpr std::int64_t maxPages = 1024;
  static constexpr std::int64_t schemaVersion = 1;

  // What failed, in words; nothing on success.
  using Failure = std::optional<std::string>;

  explicit Store(std::string path) : path_(std::move(path)) {}

  // Opens the database, with its folders; one that is new is given `defaults`. Every later call fails until this
  // succeeded.
  [[nodiscard]] Failure open(std::span<const Record> defaults);
  // The records, sorted by name. The failure of a load that finds damage leads to a database anew at the next open.
  [[nodiscard]] Failure load(std::vector<Record>& records);
  // Adds a record, or replaces the one of its name as a whole.
  [[nodiscard]] Failure save(const Record& record);
  // No failure when there is no such record.
  [[nodiscard]] Failure remove(std::string_view name);

  // Bounds the size of the file; it opens with maxPages. A file that is larger already only grows no more.
  void limitPages(std::int64_t pages);

 private:
  enum class Finding { good, damaged, failed };

  [[nodiscard]] Finding tryOpen(std::span<const Record> defaults, std::string& why);
  [[nodiscard]] Finding check(std::span<const Record> defaults, std::string& why);
  [[nodiscard]] int create(std::span<const Record> defaults);
  [[nodiscard]] int write(const Record& record);
  [[nodiscard]] int erase(std::string_view name);
  [[nodiscard]] int readServers(std::vector<Record>& records);
  [[nodiscard]] int readPrefixes(std::vector<Record>& records);
  [[nodiscard]] bool moveAside() const;

  std::string path_;
  Database database_;
};

}  // namespace sermgr
