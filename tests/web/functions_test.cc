#include "platform/web/functions.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <stdlib.h>
#include <string>

#include "platform/web/system_version.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ContentType, BySuffix) {
  const std::pair<const char*, const char*> types[] = {
      {"index.html", "text/html; charset=utf-8"},
      {"index.htm", "text/html; charset=utf-8"},
      {"a.js", "text/javascript; charset=utf-8"},
      {"a.mjs", "text/javascript; charset=utf-8"},
      {"a.css", "text/css; charset=utf-8"},
      {"a.json", "application/json"},
      {"a.js.map", "application/json"},
      {"a.svg", "image/svg+xml"},
      {"a.png", "image/png"},
      {"a.jpg", "image/jpeg"},
      {"a.jpeg", "image/jpeg"},
      {"a.gif", "image/gif"},
      {"a.webp", "image/webp"},
      {"a.avif", "image/avif"},
      {"favicon.ico", "image/x-icon"},
      {"a.woff", "font/woff"},
      {"a.woff2", "font/woff2"},
      {"a.ttf", "font/ttf"},
      {"a.wasm", "application/wasm"},
      {"a.txt", "text/plain"},
      {"a.xml", "application/xml"},
      {"a.pdf", "application/pdf"},
      {"a.csv", "text/csv"},
      {"a.md", "text/markdown"},
      {"a.webmanifest", "application/manifest+json"},
      {"a.mp4", "video/mp4"},
      {"a.webm", "video/webm"},
      {"a.mp3", "audio/mpeg"},
      {"a.zip", "application/zip"},
      {"a.tar.gz", "application/gzip"},
      {"/home/web/x.y/INDEX.HTML", "text/html; charset=utf-8"},
      {"A.WebManifest", "application/manifest+json"},
      {".css", "text/css; charset=utf-8"},
  };
  for (const auto& [name, type] : types)
    EXPECT_EQ(getContentType(name, nullptr), type) << name;
}

TEST(ContentType, WithoutAKnownSuffix) {
  for (const char* name : {"", ".", "html", "a.", "a.htmlx", "a.ht", "a.html/", "a.html/b", "a.css ", "/x.js/README",
                           "a.verylongsuffixindeed", "a.webmanifest2", "a.j s", "a.\xff"}) {
    EXPECT_EQ(getContentType(name, nullptr), "application/octet-stream") << name;
    EXPECT_EQ(getContentType(name, "x/y"), "x/y") << name;
  }
  EXPECT_EQ(getContentType("a.png", "x/y"), "image/png");
}

TEST(Tokenize, NonEmptyPieces) {
  EXPECT_THAT(tokenize("a/b/c", '/'), ElementsAre("a", "b", "c"));
  EXPECT_THAT(tokenize("/a//b/", '/'), ElementsAre("a", "b"));
  EXPECT_THAT(tokenize("abc", '/'), ElementsAre("abc"));
  EXPECT_THAT(tokenize("63,15", ','), ElementsAre("63", "15"));
  EXPECT_THAT(tokenize("", '/'), IsEmpty());
  EXPECT_THAT(tokenize("///", '/'), IsEmpty());
  EXPECT_THAT(tokenize(" a / b ", '/'), ElementsAre(" a ", " b "));
}

TEST(ParseNumber, WholeDecimalNumbers) {
  const std::pair<const char*, unsigned> good[] = {{"0", 0},
                                                   {"7", 7},
                                                   {"65535", 65535},
                                                   {"4294967295", 4294967295U},
                                                   {"0007", 7},
                                                   {"00", 0},
                                                   {"000000000000000000012", 12}};
  for (const auto& [text, expected] : good) {
    unsigned value = 99;
    EXPECT_TRUE(parseNumber(text, &value)) << text;
    EXPECT_EQ(value, expected);
  }
  for (const char* text : {"", " ", "-1", "+1", " 1", "1 ", "1x", "x", "0x1", "1.0", "1,0", "4294967296",
                           "99999999999999999999", "--1", "-0"}) {
    unsigned value = 99;
    EXPECT_FALSE(parseNumber(text, &value)) << text;
    EXPECT_EQ(value, 99U);
  }
  using namespace std::string_view_literals;
  unsigned value = 99;
  EXPECT_FALSE(parseNumber("1\0"sv, &value));
  EXPECT_FALSE(parseNumber(std::string_view(), &value));
  EXPECT_EQ(value, 99U);
}

TEST(ParseNumber, AgreesWithPrinting) {
  std::mt19937 random(4);
  for (int round = 0; round < 10000; ++round) {
    const auto number = static_cast<unsigned>(random() >> (random() % 32));
    unsigned value = 0;
    EXPECT_TRUE(parseNumber(std::to_string(number), &value));
    EXPECT_EQ(value, number);
    EXPECT_FALSE(parseNumber(std::to_string(number + (std::uint64_t{1} << 32)), &value));
  }
}

TEST(SensitiveFile, Suffixes) {
  for (const char* name : {"a.backup", "a.key", "a.pem", "a.p12", "a.db", "/rw/disk/a.BACKUP", "x/y.Key", "x.PEM",
                           ".key", "a.b.p12", "A.Db"}) {
    EXPECT_TRUE(isSensitiveFile(name)) << name;
  }
  for (const char* name :
       {"", "a", "key", "akey", "a.keys", "a.key/b", "a.backup.txt", "a.d", "pem", "db", "a.pemx", "a.db-wal", "/"}) {
    EXPECT_FALSE(isSensitiveFile(name)) << name;
  }
}

TEST(SensitiveFile, PrivateFolders) {
  for (const char* name :
       {"private/a", "/private/a", "/rw/disk/private/a.txt", "x/PRIVATE/y/z", "x/Private/", "private/"}) {
    EXPECT_TRUE(isSensitiveFile(name)) << name;
  }
  for (const char* name : {"private", "/private", "x/private", "privates/a", "aprivate/a", "x/private.txt",
                           "not-private/a", "pri/vate/a"}) {
    EXPECT_FALSE(isSensitiveFile(name)) << name;
  }
}

class Version : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/web_version_XXXXXX";
    const int fd = mkstemp(pattern);
    ASSERT_GE(fd, 0);
    ::close(fd);
    path_ = pattern;
  }
  void TearDown() override { ::unlink(path_.c_str()); }
  std::string versionOf(const std::string& content) {
    std::ofstream(path_, std::ios::trunc | std::ios::binary) << content;
    return readVersion(path_.c_str());
  }
  std::string path_;
};

TEST_F(Version, FirstLineOfTheFile) {
  EXPECT_EQ(versionOf("7.1 (stable)\nmore\n"), "7.1 (stable)");
  EXPECT_EQ(versionOf("  7.1\t\r\n"), "7.1");
  EXPECT_EQ(versionOf("7.1"), "7.1");
  EXPECT_EQ(versionOf(std::string(500, '7')), std::string(63, '7'));
}

TEST_F(Version, ElseTheProgramsOwn) {
  const std::string own = readVersion("/nonexistent/version");
  EXPECT_FALSE(own.empty());
  EXPECT_EQ(versionOf(""), own);
  EXPECT_EQ(versionOf("\n7.1"), own);
  EXPECT_EQ(versionOf("   \n"), own);
  EXPECT_EQ(versionOf(std::string("7\0"
                                  "1\n",
                                  4)),
            own);
  EXPECT_EQ(versionOf("7\x1b[1m"), own);
  EXPECT_EQ(readVersion("/tmp"), own);
}

}  // namespace
