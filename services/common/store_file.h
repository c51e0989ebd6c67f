#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "services/common/database.h"

namespace storage {

// What failed, in words; nothing on success.
using Failure = std::optional<std::string>;

// The failure that an SQLite result stands for. The text belongs to the code: what a connection tells is about its last
// call, which may be a later one that cleaned up.
[[nodiscard]] Failure failureOf(int result);

// What a service expects of its database.
struct Layout {
  std::string_view what;         // what it holds, for the log: "records"
  std::string_view mismatch;     // what is wrong with one that holds anything else: "not a table of server records"
  std::int64_t version;          // kept as the database's user_version
  const char* schema;            // makes the tables
  std::int64_t maxPages;         // bounds what it can take of a small machine's flash
  std::function<int()> fill;     // puts in what a new one begins with, within the transaction that makes it
  std::function<int()> readAll;  // reads everything; SQLITE_MISMATCH when it holds what no change could have made
};

// Opens the database of a service, with the folders above it: a file with a rollback journal, synced at every change,
// so that what was answered is on the storage and what was cut off has not happened.
//
// A database that is damaged, has another version, or is none of this service, is moved aside to PATH.damaged together
// with its journal (which would else be played into its successor), a line in the log says why, and it is begun anew.
// After any other failure `database` is closed, and the file as it was.
[[nodiscard]] Failure openStore(Database& database, const std::string& path, const Layout& layout);

// Bounds the size of the file. One that is larger already only grows no more.
void limitPages(Database& database, std::int64_t pages);

}  // namespace storage
