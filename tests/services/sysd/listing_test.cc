#include <algorithm>
#include <array>
#include <climits>
#include <sys/statvfs.h>

#include "tests/services/sysd/files_fixture.h"

namespace sysd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view noDirectory = "fe0006 no such directory";
constexpr std::string_view noName = "fe0010 the directory (string 1) is no name in the store";

class ListingTest : public FilesTest {
 protected:
  // All pages of a directory, each as the tunnel could carry it.
  std::vector<std::string> allNames(std::string_view directory, std::uint32_t entries) {
    std::vector<std::string> all;
    tn::message query = named(directory);
    query.insert(field::listing::entries, entries);
    while (true) {
      const tn::message page = ask(tn::command::getAll, query);
      const auto names = namesOf(page);
      EXPECT_FALSE(tn::isError(page)) << shown(page);
      EXPECT_LE(names.size(), entries);
      EXPECT_LE(page.max_length(), 65'000U);
      all.insert(all.end(), names.begin(), names.end());
      const auto after = page.get(field::listing::after);
      if (!after) return all;
      EXPECT_FALSE(names.empty());
      query.insert(field::listing::after, *after);
    }
  }
  std::vector<std::string> makeFiles(std::string_view directory, std::size_t count, std::string_view start) {
    std::vector<std::string> made;
    for (std::size_t i = 0; i < count; ++i) {
      made.push_back(std::string(start) + std::to_string(i));
      write(std::string(directory) + "/" + made.back());
    }
    std::ranges::sort(made);
    return made;
  }
};

TEST_F(ListingTest, TellsWhatEachEntryIs) {
  write("disk/b.txt", "12345");
  write("disk/box.KEY");
  makeDirectory("disk/a");
  makeDirectory("disk/Private");
  link("disk/link", "b.txt");
  ASSERT_EQ(::mkfifo(at("disk/pipe").c_str(), 0600), 0);
  for (const char* name : {"b.txt", "box.KEY", "a", "Private", "link", "pipe"}) {
    const std::array<timespec, 2> times{timespec{5, 0}, timespec{1'600'000'000, 123'456'789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, at("disk/" + std::string(name)).c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
  }
  EXPECT_EQ(shown(list("")),
            "{M1:[{s1:'Private',u2:2,q3:0,q4:1600000000123,b5:1},{s1:'a',u2:2,q3:0,q4:1600000000123,b5:0},"
            "{s1:'b.txt',u2:1,q3:5,q4:1600000000123,b5:0},{s1:'box.KEY',u2:1,q3:0,q4:1600000000123,b5:1},"
            "{s1:'link',u2:3,q3:0,q4:1600000000123,b5:0},{s1:'pipe',u2:3,q3:0,q4:1600000000123,b5:0}],u3:6,u4:0}");
}

TEST_F(ListingTest, TimesBefore1970AreNone) {
  write("disk/old");
  const std::array<timespec, 2> times{timespec{5, 0}, timespec{-7, 500}};
  ASSERT_EQ(::utimensat(AT_FDCWD, at("disk/old").c_str(), times.data(), 0), 0);
  EXPECT_EQ(shown(list("")), "{M1:[{s1:'old',u2:1,q3:0,q4:0,b5:0}],u3:1,u4:0}");
}

TEST_F(ListingTest, AnEmptyDirectoryIsAnEmptyList) {
  EXPECT_EQ(shown(list("")), "{M1:[],u3:0,u4:0}");
}

TEST_F(ListingTest, NamesAreThoseOfTheTunnel) {
  write("disk/folder/x");
  write("disk/flash/on disk");
  write("flash/folder/y");
  write("flash/skins/z");
  write("disk/skins/w");
  for (const char* top : {"", "/"})
    EXPECT_THAT(names(top), ElementsAre("flash", "folder", "skins"));
  for (const char* folder : {"folder", "folder/", "/folder", "/folder/"})
    EXPECT_THAT(names(folder), ElementsAre("x"));
  EXPECT_THAT(names("/flash/"), ElementsAre("folder", "skins"));
  EXPECT_THAT(names("/flash/folder"), ElementsAre("y"));
  for (const char* folder : {"flash", "/flash", "flash/"})
    EXPECT_THAT(names(folder), ElementsAre("on disk"));
  EXPECT_THAT(names("skins"), ElementsAre("w"));
  write("flash-skins");
  for (const char* folder : {"skins", "skins/"})
    EXPECT_THAT(names(folder), ElementsAre("z"));
  EXPECT_THAT(names("/skins"), ElementsAre("w"));
  EXPECT_EQ(remove("skins/z"), "{}");
  EXPECT_FALSE(isThere("flash/skins/z"));
}

TEST_F(ListingTest, HostileNamesAreRefused) {
  write("disk/a/b");
  const std::string_view hostile[] = {"..",
                                      ".",
                                      "../outside",
                                      "a/..",
                                      "a/../..",
                                      "a//b",
                                      "//",
                                      "/flash//",
                                      "//a",
                                      "a//",
                                      "./a",
                                      "a/.",
                                      "\n",
                                      "a\x7f",
                                      "/flash/..",
                                      "/flash/../outside",
                                      "a\x80",
                                      "a\xc2\x85",
                                      "a\xff",
                                      std::string_view("a\0b", 3),
                                      std::string_view("\0", 1)};
  for (const std::string_view name : hostile)
    EXPECT_THAT(names(name), ElementsAre(noName)) << name;
  EXPECT_THAT(names(std::string(256, 'x')), ElementsAre(noName));
  EXPECT_THAT(names(std::string(255, 'x')), ElementsAre(noDirectory));
  for (const char* missing : {"b", "a/c", "a/b", "a/b/c", "a/b/", "\xc3\xa4"})
    EXPECT_THAT(names(missing), ElementsAre(noDirectory)) << missing;
}

TEST_F(ListingTest, DeepPathsEndWhereThoseOfTheTunnelDo) {
  const std::size_t most = PATH_MAX - 1 - at("disk/").size();
  // The first piece takes what the others, of 199 bytes each, leave over.
  std::string deep(most % 200 == 0 ? 200 : most % 200, 'd');
  while (make(deep) == "{}" && deep.size() < most)
    deep += "/" + std::string(199, 'd');
  ASSERT_EQ(deep.size(), most);
  EXPECT_TRUE(isThere("disk/" + deep));
  EXPECT_THAT(names(deep), IsEmpty());
  EXPECT_THAT(names(deep + "/"), IsEmpty());
  EXPECT_THAT(names(deep + "d"), ElementsAre(noName));
  EXPECT_EQ(make(deep + "d"), "fe0010 the name (string 1) is missing, or none in the store");
}

TEST_F(ListingTest, NamesThatCannotBeNamedAreCounted) {
  for (const char* name : {"good", "caf\xe9", "line\nend", "\x1b[2J", "\xed\xa0\x80", "\xc3\xa9", "q'u\"o\\te", " "})
    write("disk/" + std::string(name));
  const tn::message listing = list("");
  EXPECT_THAT(namesOf(listing), ElementsAre(" ", "good", "q'u\"o\\te", "\xc3\xa9"));
  EXPECT_EQ(listing.get(field::listing::shown), 4U);
  EXPECT_EQ(listing.get(field::listing::unnamed), 4U);
}

TEST_F(ListingTest, LinksAreShownAndNotFollowed) {
  write("outside/secret");
  write("disk/inner/x");
  link("disk/out", folder_ + "/outside");
  link("disk/up", "..");
  link("disk/in", "inner");
  link("disk/loop", "loop");
  link("disk/inner/top", "/");
  EXPECT_THAT(names(""), ElementsAre("in", "inner", "loop", "out", "up"));
  for (const char* name : {"out", "out/", "up", "up/outside", "in", "loop", "loop/x", "inner/top", "inner/top/etc"})
    EXPECT_THAT(names(name), ElementsAre(noDirectory)) << name;
}

TEST_F(ListingTest, TheStoreItselfMayLieBehindALink) {
  write("outside/x");
  std::filesystem::remove(at("disk"));
  EXPECT_THAT(names(""), ElementsAre(noDirectory));
  link("disk", folder_ + "/outside");
  EXPECT_THAT(names(""), ElementsAre("x"));
}

TEST_F(ListingTest, UnreadableDirectoriesAreTold) {
  makeDirectory("disk/closed");
  write("disk/dark/x");
  ASSERT_EQ(::chmod(at("disk/closed").c_str(), 0), 0);
  ASSERT_EQ(::chmod(at("disk/dark").c_str(), 0444), 0);
  ASSERT_EQ(::chmod(folder_.c_str(), 0755), 0);
  // Root may read everything.
  const bool isRoot = ::geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(::seteuid(65534), 0);
  }
  const std::string closed = shown(list("closed"));
  const std::string made = make("closed/x");
  const std::string dark = shown(list("dark"));
  if (isRoot) {
    ASSERT_EQ(::seteuid(0), 0);
  }
  EXPECT_EQ(closed, "fe0011 the directory cannot be read: Permission denied");
  EXPECT_EQ(made, "fe0011 cannot store the change: Permission denied");
  EXPECT_THAT(dark, ::testing::AnyOf("fe0011 the directory cannot be read: Permission denied",
                                     "{M1:[{s1:'x',u2:3,q3:0,q4:0,b5:0}],u3:1,u4:0}"));
  ASSERT_EQ(::chmod(at("disk/dark").c_str(), 0755), 0);
}

TEST_F(ListingTest, SensitiveEntriesAreLeftOut) {
  for (const char* name : {"a.txt", "b.pem", "c.DB", "Private/x", "folder/private/x", "folder/y", "dir.key/sub/x"})
    write("disk/" + std::string(name));
  EXPECT_THAT(names(""), ElementsAre("Private", "a.txt", "b.pem", "c.DB", "dir.key", "folder"));
  beSession(0x4050);
  EXPECT_THAT(names("Private"), ElementsAre("x"));
  beSession(0x50);
  EXPECT_THAT(names(""), ElementsAre("a.txt", "folder"));
  EXPECT_THAT(names("folder"), ElementsAre("y"));
  EXPECT_EQ(list("").get(field::listing::shown), 2U);
  for (const char* name :
       {"Private", "private/", "PRIVATE/none", "folder/private", "dir.key", "dir.key/sub", "none.key"})
    EXPECT_THAT(names(name), ElementsAre("fe0009 not allowed")) << name;
}

TEST_F(ListingTest, PagesMakeTheWhole) {
  const auto made = makeFiles("disk", 1203, "file");
  EXPECT_EQ(allNames("", 500), made);
  EXPECT_EQ(allNames("", 499), made);
  EXPECT_EQ(namesOf(list("")).size(), 500U);
  EXPECT_EQ(list("").get(field::listing::shown), 1203U);
  for (const std::uint32_t wrong : {0U, 501U, 0xffffffffU}) {
    tn::message query = named("");
    query.insert(field::listing::entries, wrong);
    EXPECT_EQ(shown(ask(tn::command::getAll, query)), "fe0010 a page (u32 3) has 1 to 500 entries");
  }
}

TEST_F(ListingTest, SmallPagesMakeTheWhole) {
  const auto made = makeFiles("disk", 7, "file");
  for (std::uint32_t entries = 1; entries <= 8; ++entries)
    EXPECT_EQ(allNames("", entries), made);
}

TEST_F(ListingTest, LongNamesMakeShorterPages) {
  const auto made = makeFiles("disk", 600, std::string(252, 'n'));
  EXPECT_EQ(allNames("", 500), made);
}

TEST_F(ListingTest, PagesGoOnAfterAnyName) {
  (void)makeFiles("disk", 3, "");
  tn::message query = named("");
  query.insert(field::listing::after, "1 is gone");
  EXPECT_THAT(namesOf(ask(tn::command::getAll, query)), ElementsAre("2"));
  query.insert(field::listing::after, "\xff\xff");
  EXPECT_THAT(namesOf(ask(tn::command::getAll, query)), IsEmpty());
}

TEST_F(ListingTest, LargeDirectoriesAreReadByTurnsWithOthers) {
  const auto made = makeFiles("disk/large", FilesHandler::entriesPerTurn + 100, "");
  write("disk/small/x");
  const auto large = send(tn::command::getAll, named("large"), {1500, 1});
  EXPECT_EQ(loop_.bus.replyTo(large), nullptr);
  const auto small = send(tn::command::getAll, named("small"), {1500, 2});
  ASSERT_NE(loop_.bus.replyTo(small), nullptr);
  EXPECT_EQ(loop_.bus.replyTo(large), nullptr);
  loop_.advance(10);
  const auto* const reply = loop_.bus.replyTo(large);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->content.get(field::listing::shown), made.size());
  EXPECT_EQ(reply->content.get(tn::field::destination), (Path{1}));
  EXPECT_EQ(namesOf(reply->content), std::vector(made.begin(), made.begin() + Listing::mostEntries));
}

TEST_F(ListingTest, OnlySoManyAreReadAtOnce) {
  (void)makeFiles("disk/large", FilesHandler::entriesPerTurn + 1, "");
  std::vector<std::uint32_t> numbers;
  for (std::uint32_t session = 1; session <= 4; ++session) {
    for (std::uint32_t i = 0; i < FilesHandler::mostListingsOfSession; ++i)
      numbers.push_back(send(tn::command::getAll, named("large"), {1700, 100, session, i}));
    const auto oneMore = send(tn::command::getAll, named("large"), {1700, 100, session, 9});
    EXPECT_EQ(shown(loop_.bus.replyTo(oneMore)->content), "fe0012 too busy, try again");
  }
  const auto oneMore = send(tn::command::getAll, named("large"), {1700, 100, 77});
  EXPECT_EQ(shown(loop_.bus.replyTo(oneMore)->content), "fe0012 too busy, try again");
  loop_.advance(1000);
  for (const std::uint32_t number : numbers) {
    ASSERT_NE(loop_.bus.replyTo(number), nullptr);
    EXPECT_EQ(namesOf(loop_.bus.replyTo(number)->content).size(), Listing::mostEntries);
  }
  EXPECT_EQ(namesOf(list("large")).size(), Listing::mostEntries);
}

TEST_F(ListingTest, ALostBrokerEndsWhatIsUnderWay) {
  (void)makeFiles("disk/large", FilesHandler::entriesPerTurn + 1, "");
  (void)send(tn::command::getAll, named("large"));
  loop_.bus.unlink();
  loop_.bus.link();
  loop_.bus.sent.clear();
  loop_.advance(1000);
  EXPECT_THAT(loop_.bus.sent, IsEmpty());
  EXPECT_EQ(namesOf(list("large")).size(), Listing::mostEntries);
}

TEST_F(ListingTest, TellsTheRoom) {
  struct statvfs status {};
  ASSERT_EQ(::statvfs(at("disk").c_str(), &status), 0);
  makeDirectory("disk/private");
  makeDirectory("disk/folder");
  for (const char* name : {"", "/flash/", "folder/"}) {
    const tn::message room = ask(tn::command::get, named(name));
    EXPECT_EQ(room.get(field::storage::total), status.f_blocks * status.f_frsize) << shown(room);
    EXPECT_LE(room.get(field::storage::available), room.get(field::storage::total));
    EXPECT_EQ(room.get(field::storage::inodes), status.f_files);
    EXPECT_EQ(room.get(field::storage::readOnly), false);
    EXPECT_TRUE(room.has(field::storage::free) && room.has(field::storage::freeInodes));
  }
  EXPECT_EQ(shown(ask(tn::command::get, named("none"))), noDirectory);
  EXPECT_EQ(shown(ask(tn::command::get, named(".."))), noName);
  beSession(0x50);
  EXPECT_EQ(shown(ask(tn::command::get, named("private"))), "fe0009 not allowed");
}

}  // namespace
}  // namespace sysd
