#include "services/sermgr/store.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "platform/log.h"

namespace sermgr {
namespace {

// EXTRA also makes the journal's removal durable, which is what ends a transaction.
constexpr char setUp[] =
    "PRAGMA journal_mode = DELETE;"
    "PRAGMA synchronous = EXTRA;"
    "PRAGMA temp_store = MEMORY;"
    "PRAGMA foreign_keys = ON;";

// The checks keep out, for every program that opens the file, what the service would not take itself.
constexpr char schema[] =
    "CREATE TABLE servers ("
    "  name TEXT NOT NULL PRIMARY KEY CHECK (length(name) BETWEEN 1 AND 64),"
    "  enabled INTEGER NOT NULL CHECK (enabled IN (0, 1)),"
    "  port INTEGER NOT NULL CHECK (port BETWEEN 1 AND 65535),"
    "  tls_ref INTEGER CHECK (tls_ref BETWEEN 0 AND 4294967294)"
    ") STRICT, WITHOUT ROWID;"
    "CREATE TABLE allowed ("
    "  server TEXT NOT NULL REFERENCES servers (name) ON DELETE CASCADE,"
    "  position INTEGER NOT NULL,"
    "  prefix TEXT NOT NULL,"
    "  PRIMARY KEY (server, position)"
    ") STRICT, WITHOUT ROWID;"
    "PRAGMA user_version = 1;";

// Makes the folders above a path, as far as they are missing.
bool makeFolders(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (::mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Whether a failure says that the file itself is no good, rather than that it cannot be reached now.
bool meansDamage(int result) {
  const int primary = result & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_MISMATCH;
}

// One row of the servers; false when no change could have made it.
bool readServer(const Statement& row, Record& record) {
  const std::int64_t port = row.number(2);
  const std::int64_t tlsRef = row.number(3);
  if (port < 1 || port > maxPort || tlsRef < 0 || tlsRef >= noTlsRef) return false;
  record.name = row.text(0);
  record.enabled = row.number(1) != 0;
  record.port = static_cast<std::uint32_t>(port);
  if (!row.isNull(3)) record.tlsRef = static_cast<std::uint32_t>(tlsRef);
  return !checkName(record.name);
}

// The text belongs to the code: what the connection tells is about its last call, which may be a later one that cleaned
// up.
Store::Failure failure(int result) {
  if (result == SQLITE_OK) return std::nullopt;
  return sqlite3_errstr(result);
}

}  // namespace

Store::Failure Store::open(std::span<const Record> defaults) {
  std::string why;
  if (!makeFolders(path_)) return path_ + ": " + std::strerror(errno);
  Finding finding = tryOpen(defaults, why);
  if (finding == Finding::damaged) {
    if (!moveAside()) return path_ + ": " + why + ", and it cannot be moved aside";
    logLine("records: ", path_, ": ", why, "; moved aside, starting with the defaults");
    finding = tryOpen(defaults, why);
  }
  if (finding == Finding::good) return std::nullopt;
  database_.close();
  return path_ + ": " + why;
}

Store::Finding Store::tryOpen(std::span<const Record> defaults, std::string& why) {
  struct stat status = {};
  if (::stat(path_.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    why = "not a regular file";
    return Finding::damaged;
  }
  int result = database_.open(path_);
  if (result == SQLITE_OK) result = database_.run(setUp);
  Finding finding = Finding::failed;
  if (result == SQLITE_OK) {
    limitPages(maxPages);
    finding = check(defaults, why);
  } else {
    why = sqlite3_errstr(result);
    if (meansDamage(result)) finding = Finding::damaged;
  }
  if (finding != Finding::good) database_.close();
  return finding;
}

Store::Finding Store::check(std::span<const Record> defaults, std::string& why) {
  std::int64_t version = 0;
  std::int64_t tables = 0;
  std::string verdict;
  std::vector<Record> records;
  int result = database_.readNumber("PRAGMA user_version", version);
  if (result == SQLITE_OK) result = database_.readNumber("SELECT count(*) FROM sqlite_schema", tables);
  const bool blank = version == 0 && tables == 0;
  if (result == SQLITE_OK && !blank) result = database_.readText("PRAGMA quick_check(1)", verdict);
  if (result == SQLITE_OK && blank) result = create(defaults);
  if (result == SQLITE_OK && !blank && (verdict != "ok" || version != schemaVersion)) {
    why = verdict != "ok" ? verdict : "records of version " + std::to_string(version);
    return Finding::damaged;
  }
  if (result == SQLITE_OK) result = readServers(records);
  if (result == SQLITE_OK) result = readPrefixes(records);
  if (result == SQLITE_OK) return Finding::good;
  why = result == SQLITE_MISMATCH ? "not a table of server records" : sqlite3_errstr(result);
  return meansDamage(result) ? Finding::damaged : Finding::failed;
}

int Store::create(std::span<const Record> defaults) {
  Transaction transaction(database_);
  int result = transaction.begin();
  if (result == SQLITE_OK) result = database_.run(schema);
  for (const Record& record : defaults) {
    if (result == SQLITE_OK) result = write(record);
  }
  return result == SQLITE_OK ? transaction.commit() : result;
}

Store::Failure Store::load(std::vector<Record>& records) {
  if (!database_.isOpen()) return "no database";
  records.clear();
  int result = readServers(records);
  if (result == SQLITE_OK) result = readPrefixes(records);
  return failure(result);
}

int Store::readServers(std::vector<Record>& records) {
  Statement rows(database_, "SELECT name, enabled, port, tls_ref FROM servers ORDER BY name");
  int result = rows.step();
  for (; result == SQLITE_ROW; result = rows.step()) {
    Record record;
    if (records.size() == maxServers || !readServer(rows, record)) return SQLITE_MISMATCH;
    records.push_back(std::move(record));
  }
  // A table that is not there, or has other columns, is SQLITE_ERROR.
  if (result == SQLITE_ERROR) return SQLITE_MISMATCH;
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

int Store::readPrefixes(std::vector<Record>& records) {
  Statement rows(database_, "SELECT server, prefix FROM allowed ORDER BY server, position");
  int result = rows.step();
  for (; result == SQLITE_ROW; result = rows.step()) {
    const std::string server = rows.text(0);
    const auto record = std::ranges::lower_bound(records, server, {}, &Record::name);
    const auto prefix = readPrefixText(rows.text(1));
    if (record == records.end() || record->name != server || !prefix) return SQLITE_MISMATCH;
    if (record->allowed.size() == maxPrefixes) return SQLITE_MISMATCH;
    record->allowed.push_back(*prefix);
  }
  if (result == SQLITE_ERROR) return SQLITE_MISMATCH;
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

Store::Failure Store::save(const Record& record) {
  if (!database_.isOpen()) return "no database";
  Transaction transaction(database_);
  int result = transaction.begin();
  if (result == SQLITE_OK) result = erase(record.name);
  if (result == SQLITE_OK) result = write(record);
  if (result == SQLITE_OK) result = transaction.commit();
  return failure(result);
}

Store::Failure Store::remove(std::string_view name) {
  if (!database_.isOpen()) return "no database";
  Transaction transaction(database_);
  int result = transaction.begin();
  if (result == SQLITE_OK) result = erase(name);
  if (result == SQLITE_OK) result = transaction.commit();
  return failure(result);
}

int Store::write(const Record& record) {
  Statement server(database_, "INSERT INTO servers (name, enabled, port, tls_ref) VALUES (?, ?, ?, ?)");
  server.bind(1, record.name).bind(2, record.enabled ? 1 : 0).bind(3, record.port);
  if (record.tlsRef) server.bind(4, *record.tlsRef);
  int result = server.step();
  Statement allowed(database_, "INSERT INTO allowed (server, position, prefix) VALUES (?, ?, ?)");
  std::int64_t position = 0;
  for (const Prefix& prefix : record.allowed) {
    if (result != SQLITE_DONE) return result;
    const std::string text = prefixText(prefix);
    allowed.bind(1, record.name).bind(2, ++position).bind(3, text);
    result = allowed.step();
    allowed.reset();
  }
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

int Store::erase(std::string_view name) {
  // The prefixes go with it.
  Statement server(database_, "DELETE FROM servers WHERE name = ?");
  const int result = server.bind(1, name).step();
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

bool Store::moveAside() const {
  constexpr std::string_view suffix = ".damaged";
  for (const std::string_view part : {"-journal", "-wal", "-shm", ""}) {
    const std::string from = path_ + std::string(part);
    const std::string to = path_ + std::string(suffix) + std::string(part);
    if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) return false;
  }
  return true;
}

void Store::limitPages(std::int64_t pages) {
  const std::string pragma = "PRAGMA max_page_count = " + std::to_string(pages);
  [[maybe_unused]] const int result = database_.run(pragma.c_str());
}

}  // namespace sermgr
