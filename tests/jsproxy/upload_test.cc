#include "jsproxy/upload.h"

#include <gmock/gmock.h>
#include <optional>
#include <random>
#include <string>

namespace {

using Phase = Upload::Phase;
using Result = Upload::Result;
using testing::ElementsAre;
using testing::IsEmpty;

// Keeps what it is given, and can be told to refuse.
class Target : public UploadTarget {
 public:
  void onHeaders(const Headers& all) override { all.printHeaders(headers); }
  bool open(std::string_view name) override {
    names.emplace_back(name);
    return !refuses;
  }
  bool write(std::string_view bytes) override {
    if (content.size() + bytes.size() > room) return false;
    content += bytes;
    return true;
  }
  bool close() override {
    ++closed;
    return !losesEnd;
  }

  std::vector<std::string> names;
  std::string headers;
  std::string content;
  int closed = 0;
  bool refuses = false;
  bool losesEnd = false;
  std::size_t room = 1U << 30;
};

const std::string head = "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"a.txt\"\r\n\r\n";

class UploadTest : public testing::Test {
 protected:
  // What becomes of a whole body, given in pieces of a size.
  Result take(std::string_view body, std::size_t size = SIZE_MAX, std::string_view boundary = "b") {
    target.emplace();
    target->room = room;
    target->refuses = refuses;
    Upload upload(boundary, *target);
    Result result = Result::more;
    while (!body.empty() && result == Result::more) {
      result = upload.take(body.substr(0, size));
      body.remove_prefix(std::min(size, body.size()));
    }
    EXPECT_EQ(upload.phase() == Phase::ended, result != Result::more);
    if (result != Result::more) {
      const std::string before = target->content;
      EXPECT_EQ(upload.take("more"), Result::more);
      EXPECT_EQ(target->content, before);
    }
    return result;
  }

  // The name that a disposition gives the file.
  std::string nameFor(const std::string& disposition) {
    EXPECT_EQ(take("--b\r\nContent-Disposition: " + disposition + "\r\n\r\nx\r\n--b"), Result::complete);
    return target->names.size() == 1 ? target->names[0] : "none";
  }

  // The file that data in front of the delimiter gives.
  std::string fileOf(const std::string& data, std::size_t size = SIZE_MAX) {
    EXPECT_EQ(take(head + data + "\r\n--b--\r\n", size), Result::complete);
    EXPECT_EQ(target->closed, 1);
    return target->content;
  }

  std::optional<Target> target;
  std::size_t room = 1U << 30;
  bool refuses = false;
};

TEST_F(UploadTest, AFileInPiecesOfEverySize) {
  const std::string body = head + "some\r\ndata\r\n--b--\r\n";
  for (std::size_t size = 1; size <= body.size(); ++size) {
    EXPECT_EQ(take(body, size), Result::complete) << size;
    EXPECT_EQ(target->content, "some\r\ndata");
    EXPECT_THAT(target->names, ElementsAre("a.txt"));
    EXPECT_EQ(target->closed, 1);
  }
  EXPECT_EQ(target->headers, "Content-Disposition: form-data; name=\"f\"; filename=\"a.txt\"\r\n");
}

TEST_F(UploadTest, BareLineFeedsEndLinesToo) {
  EXPECT_EQ(take("--b\nX: y\n\ndata\r\n--b"), Result::complete);
  EXPECT_EQ(target->content, "data");
  EXPECT_THAT(target->names, ElementsAre("upload"));
}

TEST_F(UploadTest, AnEmptyFile) {
  EXPECT_EQ(fileOf(""), "");
}

TEST_F(UploadTest, ABodyThatEndsEarlyIsNotComplete) {
  const std::string body = head + "data\r\n--b";
  for (std::size_t size = 0; size < body.size(); ++size) {
    EXPECT_EQ(take(body.substr(0, size)), Result::more) << size;
    EXPECT_EQ(target->closed, 0);
  }
  EXPECT_EQ(take(body), Result::complete);
}

// ---- Names

TEST_F(UploadTest, Names) {
  EXPECT_EQ(nameFor("form-data; filename=\"a.txt\""), "a.txt");
  EXPECT_EQ(nameFor(R"(form-data; filename="C:\dir\a.txt")"), "a.txt");
  EXPECT_EQ(nameFor("form-data; filename=\"dir/a.txt\""), "dir/a.txt");
  EXPECT_EQ(nameFor("form-data; filename=\"../a\"; x=\"y\""), "../a");
  EXPECT_EQ(nameFor("filename=\"\xc3\xa4.txt\""), "\xc3\xa4.txt");
  EXPECT_EQ(nameFor("x=filename=\"a\"; filename=\"b\""), "a");
}

TEST_F(UploadTest, WithoutANameItIsUpload) {
  EXPECT_EQ(nameFor("form-data; name=\"f\""), "upload");
  EXPECT_EQ(nameFor("form-data; filename=\"\""), "upload");
  EXPECT_EQ(nameFor("form-data; filename=\"a"), "upload");
  EXPECT_EQ(nameFor("form-data; filename=a"), "upload");
  EXPECT_EQ(nameFor("form-data; filename=\"a\\\""), "upload");
  EXPECT_EQ(nameFor("form-data; Filename=\"a\""), "upload");
  EXPECT_EQ(take("--b\r\n\r\nx\r\n--b"), Result::complete);
  EXPECT_THAT(target->names, ElementsAre("upload"));
}

// ---- Lines

TEST_F(UploadTest, TheFirstLineIsTheBoundary) {
  for (const std::string_view line : {"--c", "--bb", "--", "b", "-b", "--b ", " --b", "", "--b--", "--b\r"}) {
    EXPECT_EQ(take(std::string(line) + "\r\nX: y\r\n\r\n"), Result::badBoundary) << line;
    EXPECT_THAT(target->names, IsEmpty());
  }
}

TEST_F(UploadTest, ABoundaryMayBeEmpty) {
  EXPECT_EQ(take("--\r\nX: y\r\n\r\na\r\n-b\r\n--", SIZE_MAX, ""), Result::complete);
  EXPECT_EQ(target->content, "a\r\n-b");
}

TEST_F(UploadTest, LinesOfAPartThatAreNoHeaders) {
  for (const std::string_view line : {"x", ": y", "a b: c", "X : y", " X: y", "X: a\x01", "Transfer-Encoding: x"})
    EXPECT_EQ(take("--b\r\n" + std::string(line) + "\r\n\r\n"), Result::malformed) << line;
}

TEST_F(UploadTest, LinesMayHave512Bytes) {
  const std::string value(512 - 3 - 3, 'v');
  for (const std::size_t size : {std::size_t{1}, std::size_t{SIZE_MAX}}) {
    EXPECT_EQ(take("--b\r\nX: " + value + "\r\n\r\nx\r\n--b", size), Result::complete);
    EXPECT_EQ(take("--b\r\nX: " + value + "v\r\n\r\nx\r\n--b", size), Result::malformed);
    EXPECT_EQ(take("--b\r\nX: " + value + "\r\nY: z\r\n\r\nx\r\n--b", size), Result::malformed);
  }
  EXPECT_EQ(take("--" + std::string(510, 'x') + "\r\n\r\nx\r\n--" + std::string(510, 'x'), 7, std::string(510, 'x')),
            Result::complete);
  EXPECT_EQ(take("--" + std::string(511, 'x') + "\r\n", 7, std::string(511, 'x')), Result::malformed);
  EXPECT_EQ(take("--" + std::string(4000, 'x') + "\r\n", 7, std::string(4000, 'x')), Result::malformed);
}

// A line without an end is not kept for ever.
TEST_F(UploadTest, ALineThatNeverEnds) {
  Target sink;
  Upload upload("b", sink);
  EXPECT_EQ(upload.take("--b\r\n" + std::string(509, 'x') + "\r"), Result::more);
  EXPECT_EQ(upload.take("\r"), Result::malformed);
  Upload other("b", sink);
  EXPECT_EQ(other.take(std::string(512, '-')), Result::more);
  EXPECT_EQ(other.take("-"), Result::malformed);
}

// ---- Data

TEST_F(UploadTest, AlmostDelimitersAreData) {
  for (const std::string data : {"\r", "\n", "\r\n", "\r\n-", "\r\n-x", "\r\n--", "\r\n--c", "a\r\n-b\r\n--c\r",
                                 "\r\r\n", "\rx\r\nx", "\r\n--\r\n", "\r\r\r\r"}) {
    for (std::size_t size = 1; size < 8; ++size)
      EXPECT_EQ(fileOf(data + "end", size), data + "end") << size;
  }
}

// The byte that ends a match is not looked at again, so the delimiter behind it is data.
TEST_F(UploadTest, ADelimiterRightBehindTheBeginningOfOneIsData) {
  for (std::size_t size = 1; size < 30; ++size) {
    EXPECT_EQ(fileOf("x\r\r\n--b\r\ny", size), "x\r\r\n--b\r\ny");
    EXPECT_EQ(fileOf("\r\n-\r\n--by", size), "\r\n-\r\n--by");
  }
  EXPECT_EQ(take(head + "x\r\r\n--b"), Result::more);
  EXPECT_EQ(target->content, "x\r\r\n--b");
}

// As the description has it, byte by byte.
std::string fileByBytes(std::string_view data, std::string_view delimiter, bool& complete) {
  std::string file;
  std::size_t matched = 0;
  complete = false;
  for (const char c : data) {
    if (c == delimiter[matched]) {
      if (++matched < delimiter.size()) continue;
      complete = true;
      break;
    }
    if (matched > 0) file += delimiter.substr(0, matched);
    matched = 0;
    file += c;
  }
  return file;
}

TEST_F(UploadTest, RandomData) {
  std::mt19937 random(5);
  const std::string alphabet = "\r\n--bx";
  for (int round = 0; round < 20000; ++round) {
    std::string data;
    for (std::uint32_t n = static_cast<std::uint32_t>(random()) % 40; n > 0; --n)
      data += alphabet[random() % alphabet.size()];
    bool complete = false;
    const std::string expected = fileByBytes(data, "\r\n--b", complete);
    const Result result = take(head + data, 1 + random() % 9);
    ASSERT_EQ(result, complete ? Result::complete : Result::more) << data;
    ASSERT_EQ(target->content, expected) << data;
  }
}

// ---- The target

TEST_F(UploadTest, ATargetThatRefuses) {
  refuses = true;
  EXPECT_EQ(take(head + "data\r\n--b"), Result::refused);
  EXPECT_EQ(target->content, "");
  EXPECT_EQ(target->closed, 0);
}

TEST_F(UploadTest, ATargetThatIsFull) {
  room = 3;
  EXPECT_EQ(take(head + "abc\r\n--b"), Result::complete);
  EXPECT_EQ(take(head + "abcd\r\n--b"), Result::failed);
  EXPECT_EQ(take(head + "abcd\r\n--b", 1), Result::failed);
  EXPECT_EQ(target->closed, 0);
  room = 0;
  EXPECT_EQ(take(head + "\r\nx", 1), Result::failed);
}

TEST_F(UploadTest, ATargetThatCannotEnd) {
  Target lossy;
  lossy.losesEnd = true;
  Upload upload("b", lossy);
  EXPECT_EQ(upload.take(head + "abc\r\n--b"), Result::failed);
  EXPECT_EQ(upload.phase(), Phase::ended);
}

}  // namespace
