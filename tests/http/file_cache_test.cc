#include "http/file_cache.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "http/file_facts.h"
#include "tests/fakes/fake_runner.h"
#include "tests/http/scratch_dir.h"

namespace {

class FileCacheTest : public testing::Test {
 protected:
  void SetUp() override { descriptors_ = openDescriptors(); }
  void TearDown() override {
    cache.clear();
    EXPECT_EQ(cache.totalBytes(), 0U);
    EXPECT_EQ(openDescriptors(), descriptors_);
    EXPECT_FALSE(runner.timers().nextDeadline());
  }

  static struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
  }
  std::shared_ptr<const CachedFile> insert(const std::string& path) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto file = cache.insert(runner, path, fd, statusOf(path));
    EXPECT_EQ(static_cast<bool>(fd), file == nullptr) << "the descriptor belongs to one side";
    return file;
  }
  std::shared_ptr<const CachedFile> find(const std::string& path) { return cache.find(path, statusOf(path)); }
  static std::string contents(const CachedFile& file) { return std::string(file.mapped()); }

  ScratchDir dir;
  tn::fakes::FakeRunner runner;
  FileCache cache;

 private:
  int descriptors_ = 0;
};

TEST_F(FileCacheTest, FindsWhatWasInserted) {
  const std::string path = dir.write("a", "contents");
  EXPECT_EQ(find(path), nullptr);
  const auto inserted = insert(path);
  ASSERT_NE(inserted, nullptr);
  EXPECT_EQ(contents(*inserted), "contents");
  EXPECT_EQ(find(path), inserted);
  EXPECT_EQ(cache.fileCount(), 1U);
  EXPECT_EQ(cache.totalBytes(), 8U);
}

TEST_F(FileCacheTest, ShowsWhatIsWrittenInPlace) {
  const std::string path = dir.write("a", "contents");
  const auto file = insert(path);
  ASSERT_NE(file, nullptr);
  const UniqueFd writer(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(pwrite(writer.get(), "CON", 3, 0), 3);
  EXPECT_EQ(contents(*file), "CONtents");
}

TEST_F(FileCacheTest, AReplacedFileIsAnotherOne) {
  const std::string path = dir.write("a", "contents");
  const auto old = insert(path);
  dir.replace("a", "CONTENTS");
  EXPECT_EQ(find(path), nullptr);
  EXPECT_EQ(cache.fileCount(), 0U);
  EXPECT_EQ(contents(*old), "contents") << "whoever still sends it has it";
  EXPECT_EQ(contents(*insert(path)), "CONTENTS");
}

TEST_F(FileCacheTest, AnyChangeOfSizeModeOrTimeIsAnotherFile) {
  const std::string path = dir.write("a", "contents");
  const auto changes = std::vector<std::function<void()>>{[&] { ASSERT_EQ(truncate(path.c_str(), 4), 0); },
                                                          [&] { ASSERT_EQ(truncate(path.c_str(), 9), 0); },
                                                          [&] { ASSERT_EQ(chmod(path.c_str(), 0600), 0); },
                                                          [&] {
                                                            const timespec times[2] = {{5, 0}, {5, 0}};
                                                            ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
                                                          },
                                                          [&] {
                                                            const timespec times[2] = {{5, 0}, {5, 1}};
                                                            ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
                                                          }};
  for (const auto& change : changes) {
    ASSERT_NE(insert(path), nullptr);
    ASSERT_NE(find(path), nullptr);
    change();
    EXPECT_EQ(find(path), nullptr);
  }
}

TEST_F(FileCacheTest, TellsEveryStatThatDiffers) {
  const std::string path = dir.write("a", "contents");
  const struct stat real = statusOf(path);
  const auto changes = std::vector<std::function<void(struct stat&)>>{
      [](struct stat& s) { ++s.st_dev; },         [](struct stat& s) { ++s.st_ino; },
      [](struct stat& s) { ++s.st_size; },        [](struct stat& s) { s.st_mode ^= S_IXUSR; },
      [](struct stat& s) { ++s.st_mtim.tv_sec; }, [](struct stat& s) { ++s.st_mtim.tv_nsec; },
      [](struct stat& s) { ++s.st_ctim.tv_sec; }, [](struct stat& s) { ++s.st_ctim.tv_nsec; }};
  for (const auto& change : changes) {
    ASSERT_NE(insert(path), nullptr);
    struct stat other = real;
    change(other);
    EXPECT_EQ(cache.find(path, other), nullptr);
    EXPECT_EQ(cache.find(path, real), nullptr) << "what did not match is let go";
  }
}

TEST_F(FileCacheTest, APlaceIsGoodUntilSomethingIsLetGo) {
  const std::string path = dir.write("a", "contents");
  const struct stat status = statusOf(path);
  FileCache::Place place;
  EXPECT_EQ(cache.find(path, status, &place), nullptr);
  const auto first = insert(path);
  EXPECT_EQ(cache.find(path, status, &place), first);
  EXPECT_EQ(cache.find(path, status, &place), first);
  const auto second = insert(path);
  EXPECT_EQ(cache.find(path, status, &place), second) << "the first was let go";
  FileCache::Place other;
  dir.replace("a", "CONTENTS");
  EXPECT_EQ(cache.find(path, statusOf(path), &other), nullptr) << "a new place is not believed";
  EXPECT_EQ(cache.find(path, status, &place), nullptr) << "and that let the file go";
  const auto third = insert(path);
  EXPECT_EQ(cache.find(path, statusOf(path), &other), third);
  cache.clear();
  EXPECT_EQ(cache.find(path, statusOf(path), &other), nullptr);
}

// A file that is found at its place is in use.
TEST_F(FileCacheTest, AFileFoundAtItsPlaceIsNotLetGo) {
  const std::string path = dir.write("a", "contents");
  FileCache::Place place;
  insert(path);
  for (int sweeps = 0; sweeps < 3; ++sweeps) {
    EXPECT_NE(cache.find(path, statusOf(path), &place), nullptr);
    runner.advance(FileCache::sweepMs);
  }
  EXPECT_EQ(cache.fileCount(), 1U);
}

TEST_F(FileCacheTest, KeepsItsLastHeadBeforeTheFileOrAlone) {
  for (const std::size_t size : {std::size_t{8}, FileCache::maxMappedBytes + 1}) {
    const auto file = insert(dir.write("file" + std::to_string(size), std::string(size, 'x')));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->lastHead().second, -1);
    for (const char* text : {"head", "a longer head, and more of it than fits into a short string", "h"}) {
      std::string head = text;
      file->keepHead({"fields", 5, true, false, head});
      head.assign(head.size(), '-');
      EXPECT_EQ(file->lastHead().text, text);
      EXPECT_EQ(file->lastHead().fields, "fields");
      EXPECT_EQ(file->whole(), size == 8 ? std::string(text) + "xxxxxxxx" : "");
    }
    EXPECT_EQ(file->heads(), 3U);
  }
}

TEST_F(FileCacheTest, LeavesAloneWhatHasNoBytesToKeep) {
  EXPECT_EQ(insert(dir.write("empty", "")), nullptr);
  EXPECT_EQ(insert("/dev/zero"), nullptr);
  EXPECT_EQ(insert("/proc/self/status"), nullptr);
  EXPECT_EQ(insert(dir.makeDir("folder")), nullptr);
}

TEST_F(FileCacheTest, MapsSmallFilesAlone) {
  const auto small = insert(dir.write("small", std::string(FileCache::maxMappedBytes, 'x')));
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->mapped().size(), FileCache::maxMappedBytes);
  const std::string path = dir.write("large", std::string(FileCache::maxMappedBytes + 1, 'x'));
  const auto large = insert(path);
  ASSERT_NE(large, nullptr);
  EXPECT_TRUE(large->mapped().empty());
  EXPECT_EQ(find(path), large);
  EXPECT_EQ(cache.totalBytes(), FileCache::maxMappedBytes);
}

TEST_F(FileCacheTest, PutsAHeadRightBeforeAMappedFile) {
  const std::string path = dir.write("file", "contents");
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  FileMapping mapping(UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)).get(), 8);
  EXPECT_EQ(mapping.file(), "contents");
  EXPECT_EQ(mapping.withHead("head "), "head contents");
  EXPECT_EQ(mapping.withHead("longer head "), "longer head contents");
  EXPECT_EQ(mapping.withHead(""), "contents");
  EXPECT_EQ(mapping.withHead(std::string(page, 'h')), std::string(page, 'h') + "contents");
  EXPECT_EQ(mapping.withHead(std::string(page + 1, 'h')), "");
  EXPECT_EQ(mapping.file(), "contents");
}

TEST_F(FileCacheTest, PutsNoHeadBeforeWhatIsNotMapped) {
  const std::string path = dir.write("file", std::string(FileCache::maxMappedBytes + 1, 'x'));
  FileMapping mapping(UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)).get(), FileCache::maxMappedBytes + 1);
  EXPECT_EQ(mapping.file(), "");
  EXPECT_EQ(mapping.withHead("head"), "");
}

TEST_F(FileCacheTest, HoldsAFileThatItsFileSystemWillNotMap) {
  const std::string path = "/sys/kernel/mm/transparent_hugepage/enabled";  // 4096 bytes by its own word
  if (access(path.c_str(), R_OK) != 0) return;
  const auto file = insert(path);
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(file->mapped().empty());
  EXPECT_EQ(find(path), file);
}

TEST_F(FileCacheTest, KeepsTheFilesUsedLast) {
  for (std::size_t i = 0; i < FileCache::maxFiles; ++i) {
    ASSERT_NE(insert(dir.write(std::to_string(i), "x")), nullptr);
  }
  EXPECT_NE(find(dir / "0"), nullptr);
  ASSERT_NE(insert(dir.write("one more", "x")), nullptr);
  EXPECT_EQ(cache.fileCount(), FileCache::maxFiles);
  EXPECT_NE(find(dir / "0"), nullptr);
  EXPECT_EQ(find(dir / "1"), nullptr);
  EXPECT_NE(find(dir / "2"), nullptr);
}

TEST_F(FileCacheTest, KeepsNoMoreBytesThanAllowed) {
  const std::string bytes(FileCache::maxMappedBytes, 'x');
  constexpr std::size_t most = FileCache::maxTotalBytes / FileCache::maxMappedBytes;
  for (std::size_t i = 0; i <= most; ++i) {
    ASSERT_NE(insert(dir.write(std::to_string(i), bytes)), nullptr);
    EXPECT_LE(cache.totalBytes(), FileCache::maxTotalBytes);
  }
  EXPECT_EQ(cache.fileCount(), most);
  EXPECT_EQ(find(dir / "0"), nullptr);
}

TEST_F(FileCacheTest, AnInsertReplacesTheSamePath) {
  const std::string path = dir.write("a", "contents");
  const auto first = insert(path);
  const auto second = insert(path);
  EXPECT_NE(first, second);
  EXPECT_EQ(cache.fileCount(), 1U);
  EXPECT_EQ(find(path), second);
}

TEST_F(FileCacheTest, LetsGoOfWhatIsNotUsed) {
  const std::string used = dir.write("used", "x");
  const std::string unused = dir.write("unused", "x");
  insert(used);
  insert(unused);
  runner.advance(FileCache::sweepMs);
  EXPECT_EQ(cache.fileCount(), 2U);
  EXPECT_NE(find(used), nullptr);
  runner.advance(FileCache::sweepMs);
  EXPECT_EQ(cache.fileCount(), 1U);
  EXPECT_NE(find(used), nullptr);
  runner.advance(2 * FileCache::sweepMs);
  EXPECT_EQ(cache.fileCount(), 0U);
  EXPECT_FALSE(runner.timers().nextDeadline()) << "an empty cache wants no time";
  EXPECT_NE(insert(used), nullptr);
  runner.advance(2 * FileCache::sweepMs);
  EXPECT_EQ(cache.fileCount(), 0U);
}

TEST(FileFactsTest, RemembersOneFileUntilForgotten) {
  struct stat status {};
  status.st_size = 7;
  EXPECT_EQ(rememberedFile("/a"), nullptr);
  rememberFile("/a", status);
  ASSERT_NE(rememberedFile("/a"), nullptr);
  EXPECT_EQ(rememberedFile("/a")->st_size, 7);
  EXPECT_EQ(rememberedFile("/b"), nullptr);
  EXPECT_EQ(rememberedFile(""), nullptr);
  rememberFile("/b", status);
  EXPECT_EQ(rememberedFile("/a"), nullptr);
  forgetFile();
  EXPECT_EQ(rememberedFile("/b"), nullptr);
  EXPECT_EQ(rememberedFile(""), nullptr);
}

}  // namespace
