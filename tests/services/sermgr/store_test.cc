#include "services/sermgr/store.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/log.h"

namespace {

using sermgr::Prefix;
using sermgr::Record;
using sermgr::Store;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

Record named(std::string name, std::uint32_t port) {
  Record record;
  record.name = std::move(name);
  record.port = port;
  return record;
}

// A record whose every part depends on one number, so that a mixture of two is noticed.
Record woven(std::uint32_t number) {
  Record record = named("woven", 1 + number % 65535);
  record.enabled = number % 2 == 0;
  record.tlsRef = number;
  for (std::uint32_t i = 0; i <= number % 40; ++i)
    record.allowed.push_back(Prefix::ofIpv4(number + i, 32));
  return record;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "sermgr_store_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    path_ = directory_ + "/rw/store/servers.db";
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  // What a service that starts now finds.
  std::vector<Record> reopened() const {
    Store store(path_);
    EXPECT_EQ(store.open(defaults_), std::nullopt);
    return loaded(store);
  }

  static std::vector<Record> loaded(Store& store) {
    std::vector<Record> records;
    EXPECT_EQ(store.load(records), std::nullopt);
    return records;
  }

  // Writes any file in the database's place.
  void plant(std::string_view bytes) const {
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    std::ofstream(path_, std::ios::binary) << bytes;
  }

  std::string bytesOf(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Runs SQL on the database from outside.
  void tamper(const char* sql) const {
    storage::Database database;
    ASSERT_EQ(database.open(path_), SQLITE_OK);
    ASSERT_EQ(database.run(sql), SQLITE_OK) << sql;
  }

  // The text that the log got from `action`.
  template <typename Action>
  std::string logOf(Action&& action) const {
    ::testing::internal::CaptureStdout();
    action();
    drainLog();
    return ::testing::internal::GetCapturedStdout();
  }

  std::string directory_;
  std::string path_;
  std::vector<Record> defaults_ = {named("http", 8080), named("https", 8443)};
};

TEST_F(StoreTest, IsMadeWithItsFoldersAndTheDefaults) {
  EXPECT_THAT(reopened(), ElementsAre(defaults_[0], defaults_[1]));
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
}

TEST_F(StoreTest, GivesTheDefaultsOnceOnly) {
  {
    Store store(path_);
    ASSERT_EQ(store.open(defaults_), std::nullopt);
    ASSERT_EQ(store.remove("http"), std::nullopt);
    ASSERT_EQ(store.remove("https"), std::nullopt);
  }
  EXPECT_THAT(reopened(), ElementsAre());
}

TEST_F(StoreTest, KeepsEveryPartOfARecord) {
  Record full = named("a name with 'quotes' and ~", 65535);
  full.enabled = false;
  full.tlsRef = 4294967294;
  full.allowed = {Prefix::ofIpv4(0x7F000000, 8), {false, {0xFE, 0x80}, 10}, Prefix::ofIpv4(0, 0)};
  {
    Store store(path_);
    ASSERT_EQ(store.open({}), std::nullopt);
    ASSERT_EQ(store.save(full), std::nullopt);
    ASSERT_EQ(store.save(named("b", 1)), std::nullopt);
  }
  EXPECT_THAT(reopened(), ElementsAre(full, named("b", 1)));
}

TEST_F(StoreTest, ReplacesARecordAsAWhole) {
  {
    Store store(path_);
    ASSERT_EQ(store.open({}), std::nullopt);
    ASSERT_EQ(store.save(woven(39)), std::nullopt);
    ASSERT_EQ(store.save(woven(3)), std::nullopt);
  }
  EXPECT_THAT(reopened(), ElementsAre(woven(3)));
}

TEST_F(StoreTest, RemovesOneRecordAndItsPrefixes) {
  {
    Store store(path_);
    ASSERT_EQ(store.open(defaults_), std::nullopt);
    ASSERT_EQ(store.save(woven(5)), std::nullopt);
    ASSERT_EQ(store.remove("woven"), std::nullopt);
    ASSERT_EQ(store.remove("never there"), std::nullopt);
    ASSERT_EQ(store.save(named("woven", 9)), std::nullopt);
  }
  EXPECT_THAT(reopened(), ElementsAre(defaults_[0], defaults_[1], named("woven", 9)));
}

TEST_F(StoreTest, HoldsAsMuchAsTheServiceTakes) {
  std::vector<Record> records;
  for (std::size_t i = 0; i < sermgr::maxServers; ++i) {
    Record record = named(std::string(60, 'n') + std::to_string(1000 + i), 80);
    for (std::uint32_t j = 0; j < sermgr::maxPrefixes; ++j) {
      tn::Addr6 address;
      address.fill(0xFE);
      address[15] = static_cast<std::uint8_t>(j);
      record.allowed.push_back({false, address, 128});
    }
    records.push_back(std::move(record));
  }
  {
    Store store(path_);
    ASSERT_EQ(store.open(records), std::nullopt);
  }
  EXPECT_EQ(reopened(), records);
}

TEST_F(StoreTest, TellsThatItIsFullAndKeepsWhatWasThere) {
  {
    Store store(path_);
    ASSERT_EQ(store.open(defaults_), std::nullopt);
    store.limitPages(6);
    Store::Failure failure;
    std::vector<Record> before;
    for (int i = 0; i < 1000 && !failure; ++i) {
      before = loaded(store);
      Record record = woven(39);
      record.name = std::string("w").append(std::to_string(i));
      failure = store.save(record);
    }
    EXPECT_EQ(failure, "database or disk is full");
    EXPECT_EQ(loaded(store), before);
    EXPECT_EQ(reopened(), before);
    // What makes no more room necessary goes on.
    EXPECT_EQ(store.remove("w0"), std::nullopt);
    EXPECT_EQ(store.save(named("http", 1)), std::nullopt);
  }
  EXPECT_EQ(reopened().front(), named("http", 1));
}

TEST_F(StoreTest, MovesAFileThatIsNoDatabaseAside) {
  const std::string garbage = std::string(5000, 'x');
  plant(garbage);
  const std::string log = logOf([this] { EXPECT_EQ(reopened(), defaults_); });
  EXPECT_EQ(log, "records: " + path_ + ": file is not a database; moved aside, starting with the defaults\n");
  EXPECT_EQ(bytesOf(path_ + ".damaged"), garbage);
  EXPECT_EQ(logOf([this] { EXPECT_EQ(reopened(), defaults_); }), "");
}

TEST_F(StoreTest, BeginsAnewFromAnEmptyFile) {
  plant("");
  EXPECT_EQ(logOf([this] { EXPECT_EQ(reopened(), defaults_); }), "");
}

TEST_F(StoreTest, MovesWhatIsNoFileAside) {
  std::filesystem::create_directories(path_);
  const std::string log = logOf([this] { EXPECT_EQ(reopened(), defaults_); });
  EXPECT_THAT(log, HasSubstr("not a regular file; moved aside"));
  EXPECT_TRUE(std::filesystem::is_directory(path_ + ".damaged"));
}

TEST_F(StoreTest, MovesDatabasesOfOthersAside) {
  for (const char* sql : {"CREATE TABLE other (x)", "PRAGMA user_version = 2", "PRAGMA user_version = 1",
                          "CREATE TABLE servers (name); CREATE TABLE allowed (server); PRAGMA user_version = 1"}) {
    std::filesystem::remove_all(directory_ + "/rw");
    plant("");
    tamper(sql);
    const std::string log = logOf([this] { EXPECT_EQ(reopened(), defaults_); });
    EXPECT_THAT(log, HasSubstr("moved aside, starting with the defaults\n")) << sql;
  }
}

TEST_F(StoreTest, MovesRecordsThatCannotBeAside) {
  constexpr const char* open = "PRAGMA ignore_check_constraints = 1; PRAGMA foreign_keys = 0;";
  for (const char* sql : {"UPDATE servers SET port = 0 WHERE name = 'http'", "UPDATE servers SET port = 4294967376",
                          "UPDATE servers SET name = 'a' || char(10) WHERE name = 'http'",
                          "UPDATE servers SET tls_ref = -1", "INSERT INTO allowed VALUES ('http', 1, '127.0.0.1')",
                          "INSERT INTO allowed VALUES ('nobody', 1, '127.0.0.0/8')"}) {
    std::filesystem::remove_all(directory_ + "/rw");
    EXPECT_EQ(reopened(), defaults_);
    const std::string all = std::string(open) + sql;
    tamper(all.c_str());
    const std::string log = logOf([this] { EXPECT_EQ(reopened(), defaults_); });
    EXPECT_THAT(log, HasSubstr("moved aside, starting with the defaults\n")) << sql;
  }
}

TEST_F(StoreTest, RefusesMoreRecordsOrPrefixesThanTheServiceTakes) {
  for (const char* sql : {"WITH RECURSIVE n (i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < 64)"
                          "INSERT INTO servers SELECT 'n' || i, 1, 80, NULL FROM n",
                          "WITH RECURSIVE n (i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < 257)"
                          "INSERT INTO allowed SELECT 'http', i, '127.0.0.0/8' FROM n"}) {
    std::filesystem::remove_all(directory_ + "/rw");
    EXPECT_EQ(reopened(), defaults_);
    tamper(sql);
    EXPECT_THAT(logOf([this] { EXPECT_EQ(reopened(), defaults_); }), HasSubstr("moved aside")) << sql;
  }
}

// Every page in turn is overwritten: the records come back as they were, or anew, and nothing else happens.
TEST_F(StoreTest, SurvivesDamageInAnyPlace) {
  EXPECT_EQ(reopened(), defaults_);
  const std::string good = bytesOf(path_);
  for (std::size_t at = 0; at < good.size(); at += 193) {
    std::string bad = good;
    for (std::size_t i = at; i < std::min(bad.size(), at + 100); ++i)
      bad[i] = static_cast<char>(~bad[i]);
    plant(bad);
    (void)logOf([this] {
      const std::vector<Record> records = reopened();
      EXPECT_EQ(reopened(), records);
    });
  }
}

TEST_F(StoreTest, SurvivesTruncationAnywhere) {
  EXPECT_EQ(reopened(), defaults_);
  const std::string good = bytesOf(path_);
  for (std::size_t length = 0; length < good.size(); length += 1021) {
    plant(good.substr(0, length));
    (void)logOf([this] { EXPECT_EQ(reopened(), defaults_); });
  }
}

// The journal of a damaged database would be played into its successor.
TEST_F(StoreTest, MovesTheJournalOfADamagedDatabaseAsideToo) {
  std::filesystem::create_directories(path_);
  std::ofstream(path_ + "-journal") << "not a journal";
  (void)logOf([this] { EXPECT_EQ(reopened(), defaults_); });
  EXPECT_FALSE(std::filesystem::exists(path_ + "-journal"));
  EXPECT_TRUE(std::filesystem::exists(path_ + ".damaged-journal"));
}

TEST_F(StoreTest, FailsInWordsWhereNothingCanBeMade) {
  std::ofstream(directory_ + "/rw") << "a file in the way";
  Store store(path_);
  EXPECT_EQ(store.open(defaults_), path_ + ": Not a directory");
  std::vector<Record> records;
  EXPECT_EQ(store.load(records), "no database");
  EXPECT_EQ(store.save(defaults_[0]), "no database");
  EXPECT_EQ(store.remove("http"), "no database");
}

TEST_F(StoreTest, FailsInWordsWhileAnotherProgramHoldsTheDatabase) {
  Store store(path_);
  ASSERT_EQ(store.open(defaults_), std::nullopt);
  storage::Database other;
  ASSERT_EQ(other.open(path_), SQLITE_OK);
  ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), SQLITE_OK);
  EXPECT_EQ(store.save(named("http", 1)), "database is locked");
  ASSERT_EQ(other.run("ROLLBACK"), SQLITE_OK);
  EXPECT_EQ(store.save(named("http", 1)), std::nullopt);
}

// A process that is killed while it saves leaves one of its records behind, whole, and not an older one than it said to
// have saved.
TEST_F(StoreTest, SurvivesAKillInTheMiddleOfSaving) {
  for (unsigned round = 0; round < 25; ++round) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
      Store store(path_);
      if (store.open({})) ::_exit(1);
      for (std::uint32_t number = 0;; ++number) {
        if (store.save(woven(number)) || ::write(ends[1], &number, sizeof number) != sizeof number) ::_exit(1);
      }
    }
    ::close(ends[1]);
    std::uint32_t told = 0;
    // Killed at another point each time: after some saves, and a little later.
    for (unsigned saves = 0; saves <= round % 7; ++saves)
      ASSERT_EQ(::read(ends[0], &told, sizeof told), 4);
    ::usleep(round * 137);
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    while (::read(ends[0], &told, sizeof told) == sizeof told) {
    }
    ::close(ends[0]);
    const std::vector<Record> records = reopened();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_THAT(records[0], ::testing::AnyOf(woven(told), woven(told + 1))) << "round " << round;
  }
}

}  // namespace
