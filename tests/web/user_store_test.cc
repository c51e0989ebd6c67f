#include "platform/web/user_store.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>

#include "platform/web/functions.h"

namespace {

namespace fs = std::filesystem;

class Store : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/web_store_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    top_ = pattern;
    fs::create_directories(top_ + "/disk/folder/inner");
    fs::create_directories(top_ + "/flash/skins");
    fs::create_directories(top_ + "/outside");
    fs::create_directories(top_ + "/disk-other");
    std::ofstream(top_ + "/disk/file") << "x";
    std::ofstream(top_ + "/outside/secret") << "x";
    store_ = {top_ + "/disk", top_ + "/flash"};
  }
  void TearDown() override { fs::remove_all(top_); }

  void link(const std::string& target, const std::string& name) { fs::create_symlink(target, top_ + "/disk/" + name); }
  std::string found(std::string_view name) const {
    const std::optional<std::string> path = store_.lookup(name);
    if (!path) return "refused";
    EXPECT_TRUE(path->starts_with(top_));
    return path->substr(top_.size());
  }

  std::string top_;
  UserStore store_;
};

TEST_F(Store, NamesLieInTheirRoots) {
  EXPECT_EQ(found("file"), "/disk/file");
  EXPECT_EQ(found("/file"), "/disk/file");
  EXPECT_EQ(found("folder/inner/new"), "/disk/folder/inner/new");
  EXPECT_EQ(found("new/deep/er"), "/disk/new/deep/er");
  EXPECT_EQ(found("folder"), "/disk/folder");
  EXPECT_EQ(found("skins/a.json"), "/disk/skins/a.json");
  EXPECT_EQ(found("/skins/a.json"), "/disk/skins/a.json");
  EXPECT_EQ(found("/flash/skins/a.json"), "/flash/skins/a.json");
  EXPECT_EQ(found("flash/skins/a.json"), "/disk/flash/skins/a.json");
  EXPECT_EQ(found("/flash"), "/disk/flash");
  EXPECT_EQ(found("/flashy/a"), "/disk/flashy/a");
  EXPECT_EQ(found("a b"), "/disk/a b");
  EXPECT_EQ(found("\xc3\xa4.txt"), "/disk/\xc3\xa4.txt");
  EXPECT_EQ(found("..."), "/disk/...");
  EXPECT_EQ(found(".hidden"), "/disk/.hidden");
  EXPECT_EQ(found("a\\..\\b"), "/disk/a\\..\\b");
}

TEST_F(Store, NamesThatAreNone) {
  using namespace std::string_view_literals;
  for (const std::string_view name :
       {""sv,          "/"sv,    "//"sv,   "//file"sv,  "a//b"sv,      "a/"sv,
        "."sv,         ".."sv,   "./a"sv,  "../a"sv,    "a/./b"sv,     "a/../b"sv,
        "a/.."sv,      "a/."sv,  "/.."sv,  "/flash/"sv, "/flash/.."sv, "/flash/../disk/file"sv,
        "/flash//a"sv, "a\0b"sv, "a\nb"sv, "\x1f"sv,    "a\x7f"sv,     "file\0"sv,
        "a/\r/b"sv}) {
    EXPECT_EQ(found(name), "refused") << name;
  }
}

TEST_F(Store, ControlCharactersAreRefusedEverywhere) {
  for (int byte = 0; byte < 256; ++byte) {
    const bool control = byte < 0x20 || byte == 0x7f;
    const std::string name = std::string("x") + static_cast<char>(byte) + "y";
    EXPECT_EQ(found(name) == "refused", control) << byte;
  }
}

TEST_F(Store, BelowAFileIsNothing) {
  EXPECT_EQ(found("file/a"), "refused");
}

TEST_F(Store, TooLongANameIsRefused) {
  EXPECT_EQ(found(std::string(300, 'a')), "refused");
}

TEST_F(Store, LinksThatStayInside) {
  link("folder", "relative");
  link(top_ + "/disk/folder", "absolute");
  link("../disk/file", "round");
  link(".", "self");
  EXPECT_EQ(found("relative/inner"), "/disk/folder/inner");
  EXPECT_EQ(found("absolute/inner/new"), "/disk/folder/inner/new");
  EXPECT_EQ(found("round"), "/disk/file");
  EXPECT_EQ(found("self/self/file"), "/disk/file");
}

// So a name without a suffix does not hide what is sensitive.
TEST_F(Store, AnOddNameForASensitiveFileIsSeenThrough) {
  fs::create_directory(top_ + "/disk/private");
  std::ofstream(top_ + "/disk/private/list");
  std::ofstream(top_ + "/disk/host.key");
  link("host.key", "harmless");
  link("private", "open");
  EXPECT_TRUE(isSensitiveFile(store_.lookup("harmless").value_or("")));
  EXPECT_TRUE(isSensitiveFile(store_.lookup("open/list").value_or("")));
}

TEST_F(Store, LinksThatLeadOut) {
  link("../outside", "up");
  link(top_ + "/outside", "away");
  link("/", "top");
  link("..", "parent");
  link("../outside/secret", "secret");
  link("/etc/passwd", "passwd");
  link("../disk-other", "sibling");  // its path begins with the store's
  link("../flash", "other");
  link("up", "chain");
  fs::create_symlink("../../outside", top_ + "/disk/folder/deep");
  for (const char* name : {"up", "up/secret", "up/new", "away", "away/secret", "away/x/y", "top", "top/etc/passwd",
                           "parent", "parent/outside/secret", "secret", "passwd", "sibling", "sibling/x", "other/skins",
                           "chain", "chain/secret", "folder/deep", "folder/deep/secret"}) {
    EXPECT_EQ(found(name), "refused") << name;
  }
}

// Opened for writing, a link to nothing would make the file where it points.
TEST_F(Store, LinksToNothing) {
  link("nowhere", "dangling");
  link(top_ + "/outside/made", "maker");
  link("loop2", "loop1");
  link("loop1", "loop2");
  for (const char* name : {"dangling", "dangling/a", "maker", "loop1", "loop2/x"})
    EXPECT_EQ(found(name), "refused") << name;
}

TEST_F(Store, RootMayItselfBeReachedByALink) {
  fs::create_directory_symlink(top_ + "/disk", top_ + "/mount");
  const UserStore mounted{top_ + "/mount", top_ + "/flash"};
  link("folder", "inside");
  link("../outside", "outside");
  EXPECT_EQ(mounted.lookup("inside/a"), top_ + "/mount/folder/a");
  EXPECT_FALSE(mounted.lookup("outside/secret").has_value());
}

TEST_F(Store, RootThatIsNotThere) {
  const UserStore missing{top_ + "/none", top_ + "/none2"};
  EXPECT_EQ(missing.lookup("a/b"), top_ + "/none/a/b");
  EXPECT_FALSE(missing.makePathFor("a/b"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(fs::exists(top_ + "/none"));
}

TEST_F(Store, MakesTheFoldersAboveAName) {
  EXPECT_TRUE(store_.makePathFor("one/two/three/name"));
  EXPECT_TRUE(fs::is_directory(top_ + "/disk/one/two/three"));
  EXPECT_FALSE(fs::exists(top_ + "/disk/one/two/three/name"));
  EXPECT_TRUE(store_.makePathFor("one/two/three/name"));
  EXPECT_TRUE(store_.makePathFor("/flash/skins/new/name"));
  EXPECT_TRUE(fs::is_directory(top_ + "/flash/skins/new"));
  EXPECT_TRUE(store_.makePathFor("plain"));
  EXPECT_FALSE(fs::exists(top_ + "/disk/plain"));
  link("folder", "inside");
  EXPECT_TRUE(store_.makePathFor("inside/made/name"));
  EXPECT_TRUE(fs::is_directory(top_ + "/disk/folder/made"));
}

TEST_F(Store, MakesNothingOutside) {
  link("../outside", "up");
  link("../outside/made", "dangling");
  for (const char* name :
       {"up/made/name", "dangling/name", "../outside/made/name", "a/../../outside/made/name", "", "a//b/c"}) {
    errno = 0;
    EXPECT_FALSE(store_.makePathFor(name)) << name;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_FALSE(fs::exists(top_ + "/outside/made"));
  EXPECT_FALSE(fs::exists(top_ + "/disk/a"));
}

TEST_F(Store, AFileInTheWay) {
  EXPECT_FALSE(store_.makePathFor("file/a/b"));
  EXPECT_TRUE(fs::is_regular_file(top_ + "/disk/file"));
}

// The system's own roots; the names used here exist on no machine.
TEST(UserStoreOfTheSystem, Roots) {
  EXPECT_EQ(lookupUserFile("no such name here/x"), "/rw/disk/no such name here/x");
  EXPECT_EQ(lookupUserFile("/flash/no such name here"), "/flash/no such name here");
  EXPECT_FALSE(lookupUserFile("../x").has_value());
  EXPECT_FALSE(makeUserPathFor("../x"));
}

}  // namespace
