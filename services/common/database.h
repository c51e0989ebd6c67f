#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace storage {

class Database;

// A statement of a database, which must outlive it. Texts and columns are numbered from 1 and 0, as SQLite does.
class Statement {
 public:
  // A statement that cannot be compiled fails at its first step.
  Statement(const Database& database, std::string_view sql);

  Statement& bind(int index, std::int64_t value);
  // The text must live until the statement is stepped.
  Statement& bind(int index, std::string_view value);

  // SQLITE_ROW, SQLITE_DONE or an error code.
  [[nodiscard]] int step();
  // Makes the statement ready to run again; what is bound stays.
  void reset();

  [[nodiscard]] bool isNull(int column) const;
  [[nodiscard]] std::int64_t number(int column) const;
  [[nodiscard]] std::string text(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int failed_ = SQLITE_OK;
};

// A database file, open for as long as the object lives. Result codes are SQLite's, the extended ones included.
class Database {
 public:
  // Opens the file, or makes it. Nothing is read yet.
  [[nodiscard]] int open(const std::string& path);
  void close() { connection_.reset(); }
  [[nodiscard]] bool isOpen() const { return connection_ != nullptr; }

  // Runs statements that give no rows of interest.
  [[nodiscard]] int run(const char* sql);
  // The first column of the first row.
  [[nodiscard]] int readNumber(const char* sql, std::int64_t& number);
  [[nodiscard]] int readText(const char* sql, std::string& text);

 private:
  friend class Statement;
  struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
  };
  [[nodiscard]] int connect(const std::string& path);

  std::unique_ptr<sqlite3, Close> connection_;
};

// Begins a transaction; without a commit it is rolled back at the end of the object's life.
class Transaction {
 public:
  explicit Transaction(Database& database) : database_(database) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  [[nodiscard]] int begin();
  [[nodiscard]] int commit();

 private:
  Database& database_;
  bool open_ = false;
};

}  // namespace storage
