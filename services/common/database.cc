#include "services/common/database.h"

namespace storage {
namespace {

// How long another program's lock on the file is waited for. The loop stands still meanwhile.
constexpr int lockWaitMs = 250;

}  // namespace

Statement::Statement(const Database& database, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  failed_ =
      sqlite3_prepare_v2(database.connection_.get(), sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  statement_.reset(statement);
}

Statement& Statement::bind(int index, std::int64_t value) {
  sqlite3_bind_int64(statement_.get(), index, value);
  return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
  sqlite3_bind_text(statement_.get(), index, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
  return *this;
}

int Statement::step() {
  return failed_ != SQLITE_OK ? failed_ : sqlite3_step(statement_.get());
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::int64_t Statement::number(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string Statement::text(int column) const {
  const unsigned char* const text = sqlite3_column_text(statement_.get(), column);
  if (text == nullptr) return {};
  const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
  return {reinterpret_cast<const char*>(text), length};
}

int Database::open(const std::string& path) {
  int result = connect(path);
  // A file that could not be opened for writing was opened for reading. Where that passes, it must not last.
  if (result == SQLITE_OK && sqlite3_db_readonly(connection_.get(), "main") == 1) result = connect(path);
  if (result != SQLITE_OK) return result;
  sqlite3* const connection = connection_.get();
  sqlite3_busy_timeout(connection, lockWaitMs);
  // The file may have been written by anyone who got at the storage.
  sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  return SQLITE_OK;
}

int Database::connect(const std::string& path) {
  sqlite3* connection = nullptr;
  constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  const int result = sqlite3_open_v2(path.c_str(), &connection, flags, nullptr);
  connection_.reset(connection);  // there also after a failure
  return result;
}

int Database::run(const char* sql) {
  return sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr);
}

int Database::readNumber(const char* sql, std::int64_t& number) {
  Statement statement(*this, sql);
  const int result = statement.step();
  if (result != SQLITE_ROW) return result;
  number = statement.number(0);
  return SQLITE_OK;
}

int Database::readText(const char* sql, std::string& text) {
  Statement statement(*this, sql);
  const int result = statement.step();
  if (result != SQLITE_ROW) return result;
  text = statement.text(0);
  return SQLITE_OK;
}

Transaction::~Transaction() {
  if (!open_) return;
  // SQLite has rolled back by itself after some errors; there is nothing more that could be done after one here.
  [[maybe_unused]] const int result = database_.run("ROLLBACK");
}

int Transaction::begin() {
  const int result = database_.run("BEGIN IMMEDIATE");
  open_ = result == SQLITE_OK;
  return result;
}

int Transaction::commit() {
  const int result = database_.run("COMMIT");
  if (result == SQLITE_OK) open_ = false;
  return result;
}

}  // namespace storage
