#include "platform/bus/files.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/bus/files_under.h"

namespace {

namespace fs = std::filesystem;

class Files : public testing::Test {
 protected:
  Files() {
    std::string name = (fs::temp_directory_path() / "files_test.XXXXXX").string();
    root_ = ::mkdtemp(name.data());
  }
  ~Files() override { fs::remove_all(root_); }

  void write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(root_ + path).parent_path());
    std::ofstream(root_ + path) << text;
  }
  std::string found(std::string_view path) { return tn::lookupFileUnder(root_, path).path; }

  std::string root_;
};

TEST_F(Files, APathThatExistsIsItself) {
  write("/home/web/a.html", "12345");
  write("/rw/pckg/one/home/web/a.html", "other");
  const tn::FoundFile file = tn::lookupFileUnder(root_, "/home/web/a.html");
  EXPECT_EQ(file.path, "/home/web/a.html");
  ASSERT_TRUE(file.status);
  EXPECT_EQ(file.status->st_size, 5);
  EXPECT_EQ(found("/home/web"), "/home/web");
}

TEST_F(Files, PackagesAreSearchedInByteOrder) {
  for (const char* package : {"b", "a2", "a10", "Z", "empty"})
    fs::create_directories(root_ + "/rw/pckg/" + package);
  write("/rw/pckg/plain-file", "");
  write("/rw/pckg/b/x/f", "b");
  EXPECT_EQ(found("/x/f"), "/rw/pckg/b/x/f");
  write("/rw/pckg/a2/x/f", "a2");
  EXPECT_EQ(found("/x/f"), "/rw/pckg/a2/x/f");
  write("/rw/pckg/a10/x/f", "a10");
  EXPECT_EQ(found("/x/f"), "/rw/pckg/a10/x/f");
  write("/rw/pckg/Z/x/f", "capital");
  const tn::FoundFile file = tn::lookupFileUnder(root_, "/x/f");
  EXPECT_EQ(file.path, "/rw/pckg/Z/x/f");
  ASSERT_TRUE(file.status);
  EXPECT_EQ(file.status->st_size, 7);
  EXPECT_EQ(found("x/f"), "/rw/pckg/Z/x/f");
}

TEST_F(Files, WhatIsNowhereIsItself) {
  const tn::FoundFile none = tn::lookupFileUnder(root_, "/no/such");
  EXPECT_EQ(none.path, "/no/such");
  EXPECT_FALSE(none.status);
  fs::create_directories(root_ + "/rw/pckg/p");
  EXPECT_EQ(found("/no/such"), "/no/such");
}

TEST_F(Files, ThePackagesFolderIsLookedForInTheSystemFirst) {
  write("/rw/pckg/skins/admin.json", "package");
  EXPECT_EQ(found("/rw/pckg/skins/admin.json"), "/rw/pckg/skins/admin.json");
  EXPECT_EQ(found("/rw/pckg//skins/admin.json"), "/rw/pckg//skins/admin.json");
  write("/home/web/skins/admin.json", "system");
  EXPECT_EQ(found("/rw/pckg/skins/admin.json"), "/home/web/skins/admin.json");
  EXPECT_EQ(found("/rw/pckg//skins/admin.json"), "/home/web/skins/admin.json");
  EXPECT_EQ(found("/rw/pckg/skins/other.json"), "/rw/pckg/skins/other.json");
  EXPECT_EQ(found("/rw/pckg/"), "/rw/pckg/");
}

TEST_F(Files, ANameThatClimbsIsNotCarriedOver) {
  write("/home/secret", "");
  fs::create_directories(root_ + "/home/web");
  fs::create_directories(root_ + "/rw/pckg/p/x");
  write("/rw/pckg/p/f", "");
  EXPECT_EQ(found("/rw/pckg/../secret"), "/rw/pckg/../secret");
  EXPECT_EQ(found("/x/../f"), "/x/../f");
  EXPECT_EQ(found(".."), "..");
  // Two dots in a name are no climb.
  write("/rw/pckg/p/a..b", "");
  EXPECT_EQ(found("/a..b"), "/rw/pckg/p/a..b");
}

TEST_F(Files, ANulCutsNothingShort) {
  write("/a", "");
  const std::string path("/a\0b", 4);
  EXPECT_FALSE(tn::lookupFileUnder(root_, path).status);
  EXPECT_EQ(found(path), path);
  EXPECT_FALSE(tn::fileExists(std::string_view("/\0x", 3), 0));
}

TEST_F(Files, FindsInTheRealTree) {
  write("/f", "abc");
  const std::string path = root_ + "/f";
  EXPECT_EQ(tn::findFile(path, true), path);
  EXPECT_EQ(tn::findFile(path, false), path);
  EXPECT_EQ(tn::findFile(root_ + "/none", false), root_ + "/none");
  ASSERT_TRUE(tn::lookupFile(path).status);
  EXPECT_EQ(tn::lookupFile(path).status->st_size, 3);
}

TEST_F(Files, ExistenceIsAskedFromTheRoot) {
  write("/f", "");
  fs::permissions(root_ + "/f", fs::perms::owner_read);
  EXPECT_TRUE(tn::fileExists(root_ + "/f", 0));
  EXPECT_TRUE(tn::fileExists(root_ + "/f", R_OK));
  EXPECT_FALSE(tn::fileExists(root_ + "/f", X_OK));
  EXPECT_TRUE(tn::fileExists(root_.substr(1) + "/f", 0));
  EXPECT_FALSE(tn::fileExists(root_ + "/none", 0));
  EXPECT_TRUE(tn::fileExists("", 0));
}

TEST(Hexdump, IsTwoDigitsAByte) {
  EXPECT_EQ(tn::hexdump({}), "");
  EXPECT_EQ(tn::hexdump(std::vector<std::uint8_t>{0}), "00");
  EXPECT_EQ(tn::hexdump(std::vector<std::uint8_t>{0, 0x9a, 0xff, 0x10}), "00 9a ff 10");
}

}  // namespace
