#include "services/tlsd/pair_store.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/services/tlsd/certificates.h"

namespace tlsd {
namespace {

using ::testing::HasSubstr;
using tests::Folder;
using tests::readFile;
using tests::writeFile;

class PairStoreTest : public ::testing::Test {
 protected:
  void put(const char* name, const std::string& text) const {
    writeFile(folder_ / ("rw/tls/" + std::string(name)), text);
  }
  [[nodiscard]] std::string held(const char* name) const { return readFile(folder_ / ("rw/tls/" + std::string(name))); }
  [[nodiscard]] bool has(const char* name) const {
    return std::filesystem::exists(folder_ / ("rw/tls/" + std::string(name)));
  }
  [[nodiscard]] mode_t modeOf(const char* name) const {
    struct stat status {};
    EXPECT_EQ(::stat((folder_ / name).c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  Folder folder_;
  PairStore store_{folder_ / "rw/tls"};
};

TEST_F(PairStoreTest, MakesItsFolderAndKeepsTheKeyForItself) {
  ASSERT_EQ(store_.save(PemPair("C", "K")), std::nullopt);
  EXPECT_EQ(modeOf("rw/tls"), 0700U);
  EXPECT_EQ(modeOf("rw/tls/key.pem"), 0600U);
  EXPECT_EQ(modeOf("rw/tls/certificate.pem"), 0644U);
  EXPECT_FALSE(store_.keyIsOpen());
  const auto loaded = store_.load();
  ASSERT_TRUE(loaded.has_value());
  EXPECT_EQ(loaded->certificate, "C");
  EXPECT_EQ(loaded->key, "K");
}

TEST_F(PairStoreTest, ReplacesBothAndLeavesNothingBehind) {
  ASSERT_EQ(store_.save(PemPair("C1", "K1")), std::nullopt);
  const PairStore::Marks before = store_.look();
  ASSERT_EQ(store_.save(PemPair("C2", "K2")), std::nullopt);
  EXPECT_NE(store_.look(), before);
  EXPECT_EQ(held("certificate.pem"), "C2");
  EXPECT_EQ(held("key.pem"), "K2");
  EXPECT_FALSE(has("certificate.pem.new"));
  EXPECT_FALSE(has("key.pem.new"));
}

TEST_F(PairStoreTest, SeesAKeyThatIsOpenToOthers) {
  ASSERT_EQ(store_.save(PemPair("C", "K")), std::nullopt);
  ::chmod((folder_ / "rw/tls/key.pem").c_str(), 0640);
  EXPECT_TRUE(store_.keyIsOpen());
}

TEST_F(PairStoreTest, SaysWhichFileCannotBeRead) {
  EXPECT_THAT(store_.load().error(), HasSubstr("certificate.pem: No such file or directory"));
  put("certificate.pem", "C");
  EXPECT_THAT(store_.load().error(), HasSubstr("key.pem: No such file or directory"));
  std::filesystem::create_directory(folder_ / "rw/tls/key.pem");
  EXPECT_THAT(store_.load().error(), HasSubstr("key.pem: not a regular file"));
}

TEST_F(PairStoreTest, DoesNotWaitAtAPipe) {
  put("certificate.pem", "C");
  ASSERT_EQ(::mkfifo((folder_ / "rw/tls/key.pem").c_str(), 0600), 0);
  EXPECT_THAT(store_.load().error(), HasSubstr("key.pem: not a regular file"));
}

TEST_F(PairStoreTest, ReadsNoMoreThanCanBeTaken) {
  put("certificate.pem", std::string(3 * maxPemBytes, 'x'));
  put("key.pem", "K");
  EXPECT_EQ(store_.load()->certificate.size(), maxPemBytes + 1);
}

TEST_F(PairStoreTest, MarksWhatIsThere) {
  EXPECT_EQ(store_.look(), PairStore::Marks{});
  put("key.pem", "K");
  const PairStore::Marks one = store_.look();
  EXPECT_FALSE(one[0].has_value());
  EXPECT_TRUE(one[1].has_value());
  put("key.pem", "longer");
  EXPECT_NE(store_.look(), one);
}

TEST_F(PairStoreTest, CarriesAChangeThroughThatWasCutOffBetweenTheRenames) {
  put("certificate.pem", "old");
  put("key.pem", "new key");
  put("certificate.pem.new", "new");
  store_.recover();
  EXPECT_EQ(held("certificate.pem"), "new");
  EXPECT_EQ(held("key.pem"), "new key");
  EXPECT_FALSE(has("certificate.pem.new"));
}

TEST_F(PairStoreTest, ForgetsAChangeThatWasCutOffBefore) {
  for (const bool both : {false, true}) {
    put("certificate.pem", "old");
    put("key.pem", "old key");
    put("key.pem.new", "new k");
    if (both) put("certificate.pem.new", "ne");
    store_.recover();
    EXPECT_EQ(held("certificate.pem"), "old");
    EXPECT_EQ(held("key.pem"), "old key");
    EXPECT_FALSE(has("certificate.pem.new"));
    EXPECT_FALSE(has("key.pem.new"));
  }
}

TEST_F(PairStoreTest, IsNotEmptyWhereNothingCanBeSeen) {
  EXPECT_TRUE(store_.isEmpty());
  std::filesystem::create_directories(folder_ / "rw");
  EXPECT_TRUE(store_.isEmpty());
  std::filesystem::create_symlink(folder_ / "rw/tls", folder_ / "rw/tls");  // ELOOP, also for root
  EXPECT_FALSE(store_.isEmpty());
}

TEST_F(PairStoreTest, RecoversNothingWhereThereIsNothing) {
  store_.recover();
  EXPECT_FALSE(has(""));
}

TEST_F(PairStoreTest, LeavesTheOldPairWhenTheNewOneCannotBeWritten) {
  ASSERT_EQ(store_.save(PemPair("C1", "K1")), std::nullopt);
  // A folder in the way of the new certificate: it can be neither removed as a file nor made.
  std::filesystem::create_directories(folder_ / "rw/tls/certificate.pem.new/x");
  const auto failure = store_.save(PemPair("C2", "K2"));
  ASSERT_TRUE(failure.has_value());
  EXPECT_THAT(*failure, HasSubstr("certificate.pem.new: "));
  EXPECT_EQ(held("certificate.pem"), "C1");
  EXPECT_EQ(held("key.pem"), "K1");
  EXPECT_FALSE(has("key.pem.new"));
}

TEST_F(PairStoreTest, SaysWhyThereIsNoFolder) {
  writeFile(folder_ / "rw", "a file");
  EXPECT_THAT(*store_.save(PemPair("C", "K")), HasSubstr("Not a directory"));
}

}  // namespace
}  // namespace tlsd
