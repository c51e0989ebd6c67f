#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "platform/unique_fd.h"
#include "platform/xml/document.h"
#include "platform/xml/parser.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Collection : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "xml_collection_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }

  void write(const std::string& name, std::string_view text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }

  // Names of the root elements, in order.
  static std::vector<std::string> roots(const xml::DocumentCollection& collection) {
    std::vector<std::string> names;
    for (const auto& root : collection.roots())
      names.emplace_back(root->name());
    return names;
  }

  static std::vector<std::string> errors(const xml::DocumentCollection& collection) {
    std::vector<std::string> texts;
    for (const xml::ParseError& error : collection.errors())
      texts.push_back(error.text());
    return texts;
  }

  std::string directory_;
};

TEST_F(Collection, OfAnEmptyDirectoryIsEmpty) {
  const xml::DocumentCollection collection(directory_);
  EXPECT_THAT(roots(collection), IsEmpty());
  EXPECT_THAT(errors(collection), IsEmpty());
}

TEST_F(Collection, IsSortedByNameBytewise) {
  write("b.xml", "<second/>");
  write("a.xml", "<first/>");
  write("B.xml", "<upper/>");
  write("10.xml", "<ten/>");
  write("9.xml", "<nine/>");
  write("\xC3\xA9.xml", "<last/>");
  const xml::DocumentCollection collection(directory_);
  EXPECT_THAT(roots(collection), ElementsAre("ten", "nine", "upper", "first", "second", "last"));
  EXPECT_THAT(errors(collection), IsEmpty());
}

TEST_F(Collection, TakesNamesThatEndInXmlAlone) {
  write("a.xml", "<a/>");
  write("b.xml~", "<b/>");
  write("c.XML", "<c/>");
  write("d.xml.old", "<d/>");
  write("xml", "<e/>");
  write(".xml", "<f/>");
  write(".hidden.xml", "<g/>");
  write("README", "no document");
  const xml::DocumentCollection collection(directory_);
  EXPECT_THAT(roots(collection), ElementsAre("a"));
  EXPECT_THAT(errors(collection), IsEmpty());
}

TEST_F(Collection, LeavesOutWhatCannotBeReadAndGoesOn) {
  write("1.xml", "<one/>");
  write("2.xml", "<two>\n  <broken>\n</two>");
  write("3.xml", "");
  write("4.xml", "<!DOCTYPE four><four/>");
  write("5.xml", "<five/>");
  const xml::DocumentCollection collection(directory_);
  EXPECT_THAT(roots(collection), ElementsAre("one", "five"));
  EXPECT_THAT(
      errors(collection),
      ElementsAre(path("2.xml") + ":3:1: expected end tag </broken>", path("3.xml") + ":1:1: expected the root element",
                  path("4.xml") + ":1:1: expected the root element, not a document type declaration"));
}

TEST_F(Collection, ReportsWhatIsNoRegularFileWithoutWaitingForIt) {
  ASSERT_EQ(::mkdir(path("1-directory.xml").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo(path("2-fifo.xml").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", path("3-device.xml"));
  write("4.xml", "<four/>");
  const xml::DocumentCollection collection(directory_);
  EXPECT_THAT(roots(collection), ElementsAre("four"));
  EXPECT_THAT(errors(collection), ElementsAre(path("1-directory.xml") + ": expected a regular file",
                                              path("2-fifo.xml") + ": expected a regular file",
                                              path("3-device.xml") + ": expected a regular file"));
}

TEST_F(Collection, ReportsWhatCannotBeOpened) {
  std::filesystem::create_symlink("nowhere", path("1-dangling.xml"));
  std::filesystem::create_symlink("2-loop.xml", path("2-loop.xml"));
  const UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path("3-socket.xml").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  write("4.xml", "<four/>");
  const xml::DocumentCollection collection(directory_);
  EXPECT_THAT(roots(collection), ElementsAre("four"));
  EXPECT_THAT(errors(collection),
              ElementsAre(path("1-dangling.xml") + ": expected a readable file: No such file or directory",
                          path("2-loop.xml") + ": expected a readable file: Too many levels of symbolic links",
                          path("3-socket.xml") + ": expected a readable file: No such device or address"));
}

TEST_F(Collection, FollowsASymbolicLinkToADocument) {
  write("target", "<linked/>");
  std::filesystem::create_symlink("target", path("a.xml"));
  EXPECT_THAT(roots(xml::DocumentCollection(directory_)), ElementsAre("linked"));
}

TEST_F(Collection, ReadsDocumentsUpToTheLimit) {
  const std::string text(xml::limit::documentBytes - 7, 't');
  write("1.xml", "<a>" + text + "</a>");
  write("2.xml", "<b>" + text + "</b>\n");
  write("3.xml", std::string(5 * xml::limit::documentBytes, ' '));
  const xml::DocumentCollection collection(directory_);
  ASSERT_THAT(roots(collection), ElementsAre("a"));
  EXPECT_EQ(collection.roots().front()->text(), text);
  EXPECT_THAT(errors(collection), ElementsAre(path("2.xml") + ": expected at most 1048576 bytes",
                                              path("3.xml") + ": expected at most 1048576 bytes"));
}

TEST_F(Collection, OfADirectoryThatIsNotThereIsAnError) {
  const xml::DocumentCollection collection(path("nowhere"));
  EXPECT_THAT(roots(collection), IsEmpty());
  EXPECT_THAT(errors(collection),
              ElementsAre(path("nowhere") + ": expected a readable directory: No such file or directory"));
}

TEST_F(Collection, OfAFileIsAnError) {
  write("a.xml", "<a/>");
  EXPECT_THAT(errors(xml::DocumentCollection(path("a.xml"))),
              ElementsAre(path("a.xml") + ": expected a readable directory: Not a directory"));
}

TEST_F(Collection, LeaksNoDescriptors) {
  write("1.xml", "<one/>");
  write("2.xml", "<two>");
  ASSERT_EQ(::mkdir(path("3.xml").c_str(), 0700), 0);
  const UniqueFd before(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  for (int i = 0; i < 20; ++i)
    const xml::DocumentCollection collection(directory_);
  const UniqueFd after(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(after.get(), before.get() + 1);
}

}  // namespace
