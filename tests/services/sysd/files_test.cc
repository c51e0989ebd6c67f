#include <atomic>
#include <cstdio>
#include <thread>

#include "platform/policies.h"
#include "tests/services/sysd/files_fixture.h"

namespace sysd {
namespace {

using ::testing::ElementsAre;

constexpr std::string_view done = "{}";
constexpr std::string_view notAllowed = "fe0009 not allowed";
constexpr std::string_view noDirectory = "fe0006 no such directory";
constexpr std::string_view noFile = "fe0006 no such file";
constexpr std::string_view noName = "fe0010 the name (string 1) is missing, or none in the store";
constexpr std::string_view noNewName = "fe0010 the new name (string 2) is missing, or none in the store";
constexpr std::string_view isTaken = "fe0013 there is a file of that name";

TEST_F(FilesTest, MakesDirectories) {
  const mode_t umask = ::umask(022);
  EXPECT_EQ(make("a"), done);
  EXPECT_EQ(make("/a/b"), done);
  EXPECT_EQ(make("/flash/c"), done);
  ::umask(umask);
  struct stat status {};
  ASSERT_EQ(::stat(at("disk/a/b").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
  EXPECT_TRUE(isThere("flash/c"));
  EXPECT_EQ(make("a"), isTaken);
  write("disk/file");
  EXPECT_EQ(make("file"), isTaken);
  EXPECT_EQ(make("file/x"), noDirectory);
  EXPECT_EQ(make("none/x"), noDirectory);
}

TEST_F(FilesTest, RemovesFilesAndEmptyDirectories) {
  write("disk/a/file", "content");
  ASSERT_EQ(::mkfifo(at("disk/a/pipe").c_str(), 0600), 0);
  EXPECT_EQ(remove("a"), "fe0013 the directory is not empty");
  EXPECT_EQ(remove("a/file"), done);
  EXPECT_EQ(remove("a/file"), noFile);
  EXPECT_EQ(remove("a/pipe"), done);
  EXPECT_EQ(remove("a"), done);
  EXPECT_EQ(remove("a/file"), noDirectory);
  EXPECT_THAT(names(""), ::testing::IsEmpty());
}

TEST_F(FilesTest, RenamesAndReplacesNothing) {
  write("disk/a", "content");
  write("disk/folder/b");
  EXPECT_EQ(move("a", "folder/a b"), done);
  EXPECT_THAT(names("folder"), ElementsAre("a b", "b"));
  EXPECT_EQ(move("folder/b", "folder/a b"), isTaken);
  EXPECT_EQ(move("folder/b", "folder/b"), isTaken);
  EXPECT_EQ(move("folder", "other"), done);
  EXPECT_EQ(move("folder", "third"), noFile);
  EXPECT_EQ(move("none/x", "x"), noDirectory);
  EXPECT_EQ(move("other/b", "none/b"), noDirectory);
  EXPECT_EQ(move("other", "other/inside"), "fe0010 a directory cannot be moved into itself");
  EXPECT_EQ(move("other/b", "/flash/b"), "fe0010 a file cannot be moved between the disk and the flash");
  EXPECT_EQ(make("empty"), done);
  EXPECT_EQ(move("other", "empty"), isTaken);
  EXPECT_THAT(names("other"), ElementsAre("a b", "b"));
}

TEST_F(FilesTest, HostileNamesAreRefused) {
  write("outside/x");
  write("disk/a/b");
  for (const std::string_view name : {"", "/", "/flash/", ".", "..", "../outside/x", "a/../../outside/x", "a/", "a//b",
                                      "//a", "a/./b", "a\n", "a\x80", "/flash/../outside/x", "skins/../../outside/x"}) {
    EXPECT_EQ(make(name), noName) << name;
    EXPECT_EQ(remove(name), noName) << name;
    EXPECT_EQ(move(name, "x"), noName) << name;
    EXPECT_EQ(move("a/b", name), noNewName) << name;
  }
  EXPECT_EQ(shown(ask(tn::command::addObj, {})), noName);
  EXPECT_EQ(shown(ask(tn::command::removeObj, {})), noName);
  const std::string tooLong(256, 'x');
  EXPECT_EQ(make(tooLong), noName);
  EXPECT_EQ(make(std::string(65'535, '/')), noName);
  EXPECT_TRUE(isThere("outside/x") && isThere("disk/a/b"));
}

TEST_F(FilesTest, LinksLeadNowhere) {
  write("outside/x", "content");
  write("disk/folder/y");
  link("disk/out", folder_ + "/outside");
  link("disk/folder/up", "../..");
  link("disk/file", folder_ + "/outside/x");
  link("disk/in", "folder");
  for (const std::string folder : {"out", "in", "folder/up", "folder/up/outside", "file"}) {
    EXPECT_EQ(make(folder + "/new"), noDirectory) << folder;
    EXPECT_EQ(remove(folder + "/x"), noDirectory) << folder;
    EXPECT_EQ(move(folder + "/x", "x"), noDirectory) << folder;
    EXPECT_EQ(move("folder/y", folder + "/y"), noDirectory) << folder;
  }
  EXPECT_EQ(make("out"), isTaken);
  EXPECT_EQ(move("folder/y", "file"), isTaken);
  // The links themselves can be put in order.
  EXPECT_EQ(move("out", "away"), done);
  for (const char* name : {"away", "file", "in", "folder/up"})
    EXPECT_EQ(remove(name), done) << name;
  EXPECT_TRUE(isThere("outside/x") && isThere("disk/folder/y"));
}

// While names are worked with, somebody has the directory and a link that leads out change places without end.
TEST_F(FilesTest, NoRaceLeadsOutOfTheStore) {
  write("outside/d/secret");
  write("disk/a/d/mine");
  link("disk/b", folder_ + "/outside");
  std::atomic<unsigned> exchanges = 0;
  std::jthread exchanger([&](const std::stop_token& end) {
    while (!end.stop_requested()) {
      if (::renameat2(AT_FDCWD, at("disk/a").c_str(), AT_FDCWD, at("disk/b").c_str(), RENAME_EXCHANGE) == 0)
        ++exchanges;
    }
  });
  unsigned reached = 0;
  for (int i = 0; i < 100'000 && (reached < 100 || exchanges < 1000); ++i) {
    const auto found = names("a/d");
    ASSERT_THAT(found, ::testing::AnyOf(ElementsAre("mine"), ElementsAre(noDirectory)));
    reached += found.front() == "mine" ? 1 : 0;
    ASSERT_THAT(remove("a/d/secret"), ::testing::AnyOf(noFile, noDirectory));
    ASSERT_THAT(move("a/d/secret", "stolen"), ::testing::AnyOf(noFile, noDirectory));
    (void)make("a/new");
    (void)remove("a/new");
  }
  exchanger.request_stop();
  exchanger.join();
  EXPECT_GE(reached, 100U);
  EXPECT_GE(exchanges, 1000U);
  EXPECT_TRUE(isThere("outside/d/secret"));
  EXPECT_FALSE(isThere("outside/new"));
  EXPECT_FALSE(isThere("disk/stolen"));
}

TEST_F(FilesTest, RightsAreAskedFor) {
  write("disk/a");
  struct Case {
    std::uint32_t policies;
    bool reads;
    bool writes;
  };
  for (const Case& one : {Case{0, false, false}, Case{0x10, false, false}, Case{0x40, false, false},
                          Case{0x80, false, false}, Case{0xc0, false, false}, Case{0x50, true, false},
                          Case{0x90, false, true}, Case{0xd0, true, true}, Case{0xffffffefU, false, false}}) {
    beSession(one.policies);
    EXPECT_EQ(shown(list("")) != notAllowed, one.reads) << one.policies;
    EXPECT_EQ(shown(ask(tn::command::get, named(""))) != notAllowed, one.reads) << one.policies;
    EXPECT_EQ(make("a"), one.writes ? isTaken : notAllowed) << one.policies;
    EXPECT_EQ(remove("none"), one.writes ? noFile : notAllowed) << one.policies;
    EXPECT_EQ(move("none", "other"), one.writes ? noFile : notAllowed) << one.policies;
    EXPECT_EQ(shown(ask(tn::command::set, {})), "fe0007 unknown command");
  }
}

TEST_F(FilesTest, SensitiveFilesAskForTheirOwnRight) {
  for (const char* name : {"a.key", "private/x", "folder/plain"})
    write("disk/" + std::string(name));
  beSession(0xd0);
  for (const char* name :
       {"a.key", "A.Key", "none.pem", "private", "Private", "private/x", "folder/private", "folder/none.db/x"}) {
    EXPECT_EQ(make(name), notAllowed) << name;
    EXPECT_EQ(remove(name), notAllowed) << name;
    EXPECT_EQ(move(name, "public"), notAllowed) << name;
    EXPECT_EQ(move("folder/plain", name), notAllowed) << name;
  }
  EXPECT_EQ(move("folder", "renamed"), done);
  beSession(0x4090);
  EXPECT_EQ(move("private", "public"), done);
  EXPECT_EQ(move("a.key", "public/a"), done);
  EXPECT_EQ(make("private"), done);
  EXPECT_EQ(remove("private"), done);
}

TEST_F(FilesTest, ADirectoryWithHiddenEntriesIsNotEmpty) {
  write("disk/folder/a.key");
  beSession(0xd0);
  EXPECT_THAT(names("folder"), ::testing::IsEmpty());
  EXPECT_EQ(remove("folder"), "fe0013 the directory is not empty");
}

}  // namespace
}  // namespace sysd
