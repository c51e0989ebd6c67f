// A file that opens and that nothing can be learned of. fstat is put aside by the linker, as no real file does this.
#include <cerrno>
#include <sys/stat.h>

#include "tests/http/connection_fixture.h"

namespace {

bool fstatFails = false;

}  // namespace

// The names that fstat has in the C library with 64-bit offsets and times.
#if __SIZEOF_LONG__ == 4
#define REAL_FSTAT __real___fstat64_time64
#define WRAP_FSTAT __wrap___fstat64_time64
#else
#define REAL_FSTAT __real_fstat64
#define WRAP_FSTAT __wrap_fstat64
#endif

extern "C" int REAL_FSTAT(int fd, struct stat* status);
extern "C" int WRAP_FSTAT(int fd, struct stat* status);

int WRAP_FSTAT(int fd, struct stat* status) {
  if (!fstatFails) return REAL_FSTAT(fd, status);
  errno = EOVERFLOW;
  return -1;
}

namespace {

class UnknownFileTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    addServlet("/", [this](Request&, Response& response) {
      response.sendFile(file, "text/plain", remove);
      fstatFails = true;
    });
    addServlet("/known", [this](Request&, Response& response) { response.sendFile(file, "text/plain", false); });
  }
  void TearDown() override {
    fstatFails = false;
    ConnectionTest::TearDown();
  }

  ScratchDir dir;
  std::string file = dir.write("file", "contents");
  bool remove = false;
};

TEST_F(UnknownFileTest, IsServedWhenItCanBeKnown) {
  open();
  EXPECT_EQ(exchange("GET /known HTTP/1.1\r\n\r\n").body, "contents");
}

TEST_F(UnknownFileTest, HasNoLengthAndNoDateAndEndsTheConnection) {
  captureErrors();
  open();
  const Answer answer = exchange("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.names, (std::vector<std::string>{"Content-Type", "Date", "Expires", "Cache-Control", "Connection"}));
  EXPECT_EQ(answer.field("connection"), "close");
  EXPECT_EQ(answer.body, "");
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "fstat: Value too large for defined data type\n");
}

TEST_F(UnknownFileTest, IsRemovedAllTheSameWhenFlagged) {
  captureErrors();
  remove = true;
  open();
  EXPECT_EQ(exchange("GET / HTTP/1.1\r\n\r\n").status, 200);
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  takeErrors();
}

}  // namespace
