#include "services/common/file_text.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string_view>

namespace {

class FileText : public testing::Test {
 protected:
  ~FileText() override { ::unlink(name_); }

  void holds(std::string_view text) const {
    EXPECT_EQ(::ftruncate(file_.get(), 0), 0);
    EXPECT_EQ(::pwrite(file_.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }

  char name_[24] = "/tmp/tnfiletextXXXXXX";
  UniqueFd file_{::mkstemp(name_)};
};

TEST_F(FileText, IsReadWhole) {
  holds("one\ntwo");
  EXPECT_EQ(service::readFile(name_, 100), "one\ntwo");
  EXPECT_EQ(service::readFile(name_, 7), "one\ntwo");
  holds("");
  EXPECT_EQ(service::readFile(name_, 7), "");
}

TEST_F(FileText, IsNotCut) {
  holds("one\ntwo");
  errno = 0;
  EXPECT_EQ(service::readFile(name_, 6), std::nullopt);
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(FileText, MayNotBeReadable) {
  EXPECT_EQ(service::readFile("/tmp", 100), std::nullopt);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(service::readFile("/nowhere", 100), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
