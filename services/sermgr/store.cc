#include "services/sermgr/store.h"

#include <algorithm>

namespace sermgr {
namespace {

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
    ") STRICT, WITHOUT ROWID;";

// One row of the servers; false when no change could have made it.
bool readServer(const storage::Statement& row, Record& record) {
  const std::int64_t port = row.number(2);
  const std::int64_t tlsRef = row.number(3);
  if (port < 1 || port > maxPort || tlsRef < 0 || tlsRef >= noTlsRef) return false;
  record.name = row.text(0);
  record.enabled = row.number(1) != 0;
  record.port = static_cast<std::uint32_t>(port);
  if (!row.isNull(3)) record.tlsRef = static_cast<std::uint32_t>(tlsRef);
  return !checkName(record.name);
}

}  // namespace

Store::Failure Store::open(std::span<const Record> defaults) {
  const auto fill = [&] {
    int result = SQLITE_OK;
    for (const Record& record : defaults) {
      if (result == SQLITE_OK) result = write(record);
    }
    return result;
  };
  const auto readAll = [this] {
    std::vector<Record> records;
    return read(records);
  };
  return storage::openStore(
      database_, path_, {"records", "not a table of server records", schemaVersion, schema, maxPages, fill, readAll});
}

Store::Failure Store::load(std::vector<Record>& records) {
  if (!database_.isOpen()) return "no database";
  return storage::failureOf(read(records));
}

int Store::read(std::vector<Record>& records) {
  records.clear();
  const int result = readServers(records);
  return result == SQLITE_OK ? readPrefixes(records) : result;
}

int Store::readServers(std::vector<Record>& records) {
  storage::Statement rows(database_, "SELECT name, enabled, port, tls_ref FROM servers ORDER BY name");
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
  storage::Statement rows(database_, "SELECT server, prefix FROM allowed ORDER BY server, position");
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
  storage::Transaction transaction(database_);
  int result = transaction.begin();
  if (result == SQLITE_OK) result = erase(record.name);
  if (result == SQLITE_OK) result = write(record);
  if (result == SQLITE_OK) result = transaction.commit();
  return storage::failureOf(result);
}

Store::Failure Store::remove(std::string_view name) {
  if (!database_.isOpen()) return "no database";
  storage::Transaction transaction(database_);
  int result = transaction.begin();
  if (result == SQLITE_OK) result = erase(name);
  if (result == SQLITE_OK) result = transaction.commit();
  return storage::failureOf(result);
}

int Store::write(const Record& record) {
  storage::Statement server(database_, "INSERT INTO servers (name, enabled, port, tls_ref) VALUES (?, ?, ?, ?)");
  server.bind(1, record.name).bind(2, record.enabled ? 1 : 0).bind(3, record.port);
  if (record.tlsRef) server.bind(4, *record.tlsRef);
  int result = server.step();
  storage::Statement allowed(database_, "INSERT INTO allowed (server, position, prefix) VALUES (?, ?, ?)");
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
  storage::Statement server(database_, "DELETE FROM servers WHERE name = ?");
  const int result = server.bind(1, name).step();
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

}  // namespace sermgr
