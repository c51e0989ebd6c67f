#include "services/userd/first_login.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>

#include "tests/services/userd/scratch.h"

namespace userd {
namespace {

class FirstLoginTest : public ScratchTest {
 protected:
  std::string text() const {
    std::ifstream file(path("note"));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void plant(std::string_view text) const { std::ofstream(path("note")) << text; }
  std::string read() const {
    const auto password = FirstLogin(path("note")).readPassword();
    return password ? std::string(password->text()) : "none";
  }
};

TEST_F(FirstLoginTest, IsForRootAlone) {
  const FirstLogin note(path("note"));
  ASSERT_TRUE(note.write("admin", Secret("7kq2-mnx4")));
  EXPECT_EQ(text(), "user admin\npassword 7kq2-mnx4\n");
  struct stat status {};
  ASSERT_EQ(::stat(path("note").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(read(), "7kq2-mnx4");
}

TEST_F(FirstLoginTest, IsWrittenOverAnEarlierOne) {
  const FirstLogin note(path("note"));
  plant(std::string(5000, 'x'));
  plant(std::string(5000, 'x'));
  ASSERT_TRUE(note.write("admin", Secret("one")));
  ASSERT_TRUE(note.write("admin", Secret("other")));
  EXPECT_EQ(read(), "other");
  EXPECT_FALSE(std::filesystem::exists(path("note.new")));
}

TEST_F(FirstLoginTest, GoesAway) {
  const FirstLogin note(path("note"));
  ASSERT_TRUE(note.write("admin", Secret("one")));
  note.remove();
  EXPECT_FALSE(std::filesystem::exists(path("note")));
  note.remove();
  EXPECT_EQ(takeLog(), "");
}

TEST_F(FirstLoginTest, SaysThatItCannotBeWritten) {
  EXPECT_FALSE(FirstLogin(path("missing/note")).write("admin", Secret("one")));
}

TEST_F(FirstLoginTest, IsNotTakenFromWhatIsNone) {
  EXPECT_EQ(read(), "none");
  for (const char* const text : {"", "password x\n", "user admin\n", "user admin\npassword \n", "\n\n\n"}) {
    plant(text);
    EXPECT_EQ(read(), "none") << text;
  }
  plant("user admin\npassword x");
  EXPECT_EQ(read(), "x");
  plant("user " + std::string(5000, 'x') + "\npassword x\n");
  EXPECT_EQ(read(), "none");
}

}  // namespace
}  // namespace userd
