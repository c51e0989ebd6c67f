#include "services/common/store_file.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "platform/log.h"

namespace storage {
namespace {

// EXTRA also makes the journal's removal durable, which is what ends a transaction.
constexpr char setUp[] =
    "PRAGMA journal_mode = DELETE;"
    "PRAGMA synchronous = EXTRA;"
    "PRAGMA temp_store = MEMORY;"
    "PRAGMA foreign_keys = ON;";

enum class Finding { good, damaged, failed };

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

bool moveAside(const std::string& path) {
  constexpr std::string_view suffix = ".damaged";
  for (const std::string_view part : {"-journal", "-wal", "-shm", ""}) {
    const std::string from = path + std::string(part);
    const std::string to = path + std::string(suffix) + std::string(part);
    if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) return false;
  }
  return true;
}

int create(Database& database, const Layout& layout) {
  const std::string version = "PRAGMA user_version = " + std::to_string(layout.version);
  Transaction transaction(database);
  int result = transaction.begin();
  if (result == SQLITE_OK) result = database.run(layout.schema);
  if (result == SQLITE_OK) result = database.run(version.c_str());
  if (result == SQLITE_OK) result = layout.fill();
  return result == SQLITE_OK ? transaction.commit() : result;
}

Finding check(Database& database, const Layout& layout, std::string& why) {
  std::int64_t version = 0;
  std::int64_t tables = 0;
  std::string verdict;
  int result = database.readNumber("PRAGMA user_version", version);
  if (result == SQLITE_OK) result = database.readNumber("SELECT count(*) FROM sqlite_schema", tables);
  const bool blank = version == 0 && tables == 0;
  if (result == SQLITE_OK && !blank) result = database.readText("PRAGMA quick_check(1)", verdict);
  if (result == SQLITE_OK && blank) result = create(database, layout);
  if (result == SQLITE_OK && !blank && (verdict != "ok" || version != layout.version)) {
    why = verdict != "ok" ? verdict : std::string(layout.what) + " of version " + std::to_string(version);
    return Finding::damaged;
  }
  if (result == SQLITE_OK) result = layout.readAll();
  if (result == SQLITE_OK) return Finding::good;
  why = result == SQLITE_MISMATCH ? std::string(layout.mismatch) : sqlite3_errstr(result);
  return meansDamage(result) ? Finding::damaged : Finding::failed;
}

Finding tryOpen(Database& database, const std::string& path, const Layout& layout, std::string& why) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    why = "not a regular file";
    return Finding::damaged;
  }
  int result = database.open(path);
  if (result == SQLITE_OK) result = database.run(setUp);
  Finding finding = Finding::failed;
  if (result == SQLITE_OK) {
    limitPages(database, layout.maxPages);
    finding = check(database, layout, why);
  } else {
    why = sqlite3_errstr(result);
    if (meansDamage(result)) finding = Finding::damaged;
  }
  if (finding != Finding::good) database.close();
  return finding;
}

}  // namespace

Failure failureOf(int result) {
  if (result == SQLITE_OK) return std::nullopt;
  return sqlite3_errstr(result);
}

Failure openStore(Database& database, const std::string& path, const Layout& layout) {
  std::string why;
  if (!makeFolders(path)) return path + ": " + std::strerror(errno);
  Finding finding = tryOpen(database, path, layout, why);
  if (finding == Finding::damaged) {
    if (!moveAside(path)) return path + ": " + why + ", and it cannot be moved aside";
    logLine(layout.what, ": ", path, ": ", why, "; moved aside, starting with the defaults");
    finding = tryOpen(database, path, layout, why);
  }
  if (finding == Finding::good) return std::nullopt;
  return path + ": " + why;
}

void limitPages(Database& database, std::int64_t pages) {
  const std::string pragma = "PRAGMA max_page_count = " + std::to_string(pages);
  [[maybe_unused]] const int result = database.run(pragma.c_str());
}

}  // namespace storage
