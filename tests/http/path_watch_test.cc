#include "http/path_watch.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <utime.h>

#include "platform/bus/epoll_runner.h"
#include "tests/http/scratch_dir.h"

namespace {

namespace fs = std::filesystem;

// Layered file systems, as containers have them, can prove nothing: there every answer has to be asked for anew.
bool isLayered(const std::string& path) {
  struct statfs status {};
  return statfs(path.c_str(), &status) == 0 && static_cast<std::uint32_t>(status.f_type) == 0x794C7630;
}

class PathWatchTest : public testing::Test {
 protected:
  void SetUp() override {
    descriptors_ = openDescriptors();
    dir.makeDir("web/sub");
    dir.write("web/sub/a.txt", "one");
    dir.write("web/sub/b.txt", "other");
    ASSERT_TRUE(watch.open());
  }
  void TearDown() override {
    facts.release();
    other.release();
    EXPECT_EQ(watch.watches(), 0U) << "what nothing rests on is not watched";
    watch.close();
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  // Notes down what is at a path; whether there is a file or folder.
  bool look(const std::string& name) { return look(name, facts); }
  bool look(const std::string& name, PathWatch::Facts& into) {
    watch.begin(into);
    const auto status = watch.status(dir / name, into);
    EXPECT_EQ(into.hold(), provable_) << name;
    struct stat honest {};
    EXPECT_EQ(status.has_value(), stat((dir / name).c_str(), &honest) == 0) << name;
    return status.has_value();
  }
  bool holds() {
    watch.check();
    return facts.hold();
  }
  bool mayHold() { return holds() == provable_; }

  ScratchDir dir;
  PathWatch watch;
  PathWatch::Facts facts;
  PathWatch::Facts other;
  const bool provable_ = !isLayered("/") && !isLayered(dir.path());

 private:
  int descriptors_ = 0;
};

TEST_F(PathWatchTest, HoldsWhileNothingChanges) {
  EXPECT_TRUE(look("web/sub/a.txt"));
  EXPECT_TRUE(mayHold());
  EXPECT_TRUE(mayHold());
}

TEST_F(PathWatchTest, HearsThroughARunner) {
  tn::EpollRunner runner;
  EXPECT_TRUE(look("web/sub/a.txt"));
  ASSERT_TRUE(watch.join(runner));
  EXPECT_FALSE(facts.hold()) << "what was known before may have changed at this moment";
  EXPECT_TRUE(look("web/sub/a.txt"));
  ASSERT_TRUE(runner.turn(false));
  EXPECT_EQ(facts.hold(), provable_);
  dir.write("web/sub/a.txt", "two");
  ASSERT_TRUE(runner.turn(false));
  EXPECT_FALSE(facts.hold());
  watch.leave(runner);
  EXPECT_TRUE(look("web/sub/a.txt"));
  dir.write("web/sub/a.txt", "three");
  ASSERT_TRUE(runner.turn(false));
  EXPECT_EQ(facts.hold(), provable_) << "nobody tells of it any more";
  EXPECT_FALSE(holds());
}

struct Change {
  const char* what;
  const char* path;
  std::function<void(const ScratchDir&)> make;
};

void PrintTo(const Change& change, std::ostream* out) {
  *out << change.what;
}

class ChangeTest : public PathWatchTest, public testing::WithParamInterface<Change> {};

TEST_P(ChangeTest, IsHeard) {
  look(GetParam().path);
  EXPECT_TRUE(mayHold());
  GetParam().make(dir);
  EXPECT_FALSE(holds());
  // What is left of a long queue is about watches that are gone.
  watch.check();
  watch.check();
  look(GetParam().path);
  EXPECT_TRUE(mayHold()) << "what is new can be noted again";
}

void rename(const ScratchDir& dir, const char* from, const char* to) {
  EXPECT_EQ(std::rename((dir / from).c_str(), (dir / to).c_str()), 0);
}

const Change changes[] = {
    {"written in place", "web/sub/a.txt", [](const ScratchDir& d) { d.write("web/sub/a.txt", "two"); }},
    {"appended to", "web/sub/a.txt",
     [](const ScratchDir& d) {
       const UniqueFd fd(open((d / "web/sub/a.txt").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
       EXPECT_EQ(::write(fd.get(), "x", 1), 1);
     }},
    {"cut short", "web/sub/a.txt",
     [](const ScratchDir& d) { EXPECT_EQ(truncate((d / "web/sub/a.txt").c_str(), 1), 0); }},
    {"replaced", "web/sub/a.txt", [](const ScratchDir& d) { d.replace("web/sub/a.txt", "two"); }},
    {"removed", "web/sub/a.txt", [](const ScratchDir& d) { fs::remove(d / "web/sub/a.txt"); }},
    {"renamed", "web/sub/a.txt", [](const ScratchDir& d) { rename(d, "web/sub/a.txt", "web/sub/c.txt"); }},
    {"made unreadable", "web/sub/a.txt",
     [](const ScratchDir& d) { EXPECT_EQ(chmod((d / "web/sub/a.txt").c_str(), 0), 0); }},
    {"given another time", "web/sub/a.txt",
     [](const ScratchDir& d) {
       const utimbuf times{1000, 1000};
       EXPECT_EQ(utime((d / "web/sub/a.txt").c_str(), &times), 0);
     }},
    {"written through another name", "web/sub/a.txt",
     [](const ScratchDir& d) {
       fs::create_hard_link(d / "web/sub/a.txt", d / "elsewhere");
       d.write("elsewhere", "two");
     }},
    {"replaced by a link", "web/sub/a.txt",
     [](const ScratchDir& d) {
       fs::create_symlink(d / "web/sub/b.txt", d / "link");
       rename(d, "link", "web/sub/a.txt");
       fs::remove(d / "web/sub/a.txt");
     }},
    {"made", "web/sub/new.txt", [](const ScratchDir& d) { d.write("web/sub/new.txt", "new"); }},
    {"moved there", "web/sub/new.txt", [](const ScratchDir& d) { rename(d, "web/sub/a.txt", "web/sub/new.txt"); }},
    {"linked there", "web/sub/new.txt",
     [](const ScratchDir& d) { fs::create_hard_link(d / "web/sub/a.txt", d / "web/sub/new.txt"); }},
    {"made as a folder", "web/sub/new.txt", [](const ScratchDir& d) { d.makeDir("web/sub/new.txt"); }},
    {"made in another case", "web/sub/new.txt",
     [](const ScratchDir& d) {
       d.write("web/sub/NEW.txt", "new");
       fs::remove(d / "web/sub/NEW.txt");
     }},
    {"made with its folders", "web/no/such/new.txt",
     [](const ScratchDir& d) {
       d.makeDir("web/no/such");
       d.write("web/no/such/new.txt", "new");
     }},
    {"folder renamed", "web/sub/a.txt", [](const ScratchDir& d) { rename(d, "web/sub", "web/gone"); }},
    {"folder above renamed", "web/sub/a.txt", [](const ScratchDir& d) { rename(d, "web", "gone"); }},
    {"folder replaced", "web/sub/a.txt",
     [](const ScratchDir& d) {
       d.makeDir("next/sub");
       d.write("next/sub/a.txt", "next");
       rename(d, "web", "gone");
       rename(d, "next", "web");
     }},
    {"folder removed", "web/sub/a.txt", [](const ScratchDir& d) { fs::remove_all(d / "web"); }},
    {"folder closed", "web/sub/a.txt", [](const ScratchDir& d) { EXPECT_EQ(chmod((d / "web").c_str(), 0700), 0); }},
    {"the folder itself removed", "web/sub", [](const ScratchDir& d) { fs::remove_all(d / "web/sub"); }},
    {"among more than is read at once", "web/sub/a.txt",
     [](const ScratchDir& d) {
       d.makeDir("web/x");
       d.makeDir("web/y");
       for (mode_t i = 0; i < PathWatch::queueReads * PathWatch::queueBytes / 32; ++i) {
         EXPECT_EQ(chmod((d / "web/x").c_str(), 0700 + i % 2), 0);
         EXPECT_EQ(chmod((d / "web/y").c_str(), 0700 + i % 2), 0);
       }
     }},
};

INSTANTIATE_TEST_SUITE_P(Each, ChangeTest, testing::ValuesIn(changes));

TEST_F(PathWatchTest, WhatNeighboursDoChangesNothing) {
  look("web/sub/a.txt");
  look("web/missing", other);
  for (int i = 0; i < 100; ++i) {
    dir.write("web/sub/neighbour", "x");
    dir.replace("web/sub/b.txt", std::to_string(i));
    fs::remove(dir / "web/sub/neighbour");
    dir.makeDir("web/folder");
    fs::remove(dir / "web/folder");
    ASSERT_TRUE(mayHold());
    ASSERT_EQ(other.hold(), provable_);
  }
}

TEST_F(PathWatchTest, OneChangeLeavesTheOthers) {
  look("web/sub/a.txt");
  look("web/sub/b.txt", other);
  dir.write("web/sub/a.txt", "two");
  EXPECT_FALSE(holds());
  EXPECT_EQ(other.hold(), provable_);
}

TEST_F(PathWatchTest, AWriterWhoIsNotAnnouncedIsHeardWhenItCloses) {
  UniqueFd fd(open((dir / "web/sub/a.txt").c_str(), O_RDWR | O_CLOEXEC));
  look("web/sub/a.txt");
  EXPECT_TRUE(mayHold());
  fd.reset();
  EXPECT_FALSE(holds());
}

TEST_F(PathWatchTest, NamesOfAFolderAreHeard) {
  for (const char* change : {"web/sub/c.txt", "web/other"}) {
    watch.begin(facts);
    EXPECT_EQ(watch.names(dir / "web/sub", facts), (std::vector<std::string>{"a.txt", "b.txt"}));
    EXPECT_TRUE(mayHold());
    dir.write(change, "");
    const bool within = std::string_view(change).starts_with("web/sub/");
    EXPECT_EQ(holds(), provable_ && !within);
    if (within) fs::remove(dir / change);
  }
  watch.begin(facts);
  EXPECT_EQ(watch.names(dir / "web/none", facts), std::vector<std::string>());
  EXPECT_TRUE(mayHold());
  dir.makeDir("web/none");
  EXPECT_FALSE(holds());
}

TEST_F(PathWatchTest, WhatCannotBeProvedDoesNotHold) {
  fs::create_directory_symlink(dir / "web/sub", dir / "web/link");
  fs::create_symlink(dir / "web/sub/a.txt", dir / "web/sub/link.txt");
  fs::create_symlink(dir / "nowhere", dir / "web/sub/broken.txt");
  ASSERT_EQ(mkfifo((dir / "web/sub/fifo").c_str(), 0644), 0);
  for (const char* path : {"web/link/a.txt", "web/link", "web/sub/link.txt", "web/sub/broken.txt", "web/sub/fifo",
                           "web/./sub/a.txt", "web/sub/../sub/a.txt", "web/sub/a.txt/x"}) {
    watch.begin(facts);
    const auto status = watch.status(dir / path, facts);
    struct stat honest {};
    EXPECT_EQ(status.has_value(), stat((dir / path).c_str(), &honest) == 0) << path;
    EXPECT_FALSE(facts.hold()) << path;
    EXPECT_EQ(watch.watches(), 0U) << path;
  }
  for (const char* path : {"", "relative", "/proc/self/status", "/proc"}) {
    watch.begin(facts);
    struct stat honest {};
    EXPECT_EQ(watch.status(path, facts).has_value(), stat(path, &honest) == 0) << path;
    EXPECT_FALSE(facts.hold()) << path;
  }
}

TEST_F(PathWatchTest, SlashesMeanWhatTheyMeanToTheKernel) {
  EXPECT_TRUE(look("/web//sub/a.txt"));
  EXPECT_TRUE(look("web/sub/"));
  EXPECT_FALSE(look("web/sub/a.txt/"));
  EXPECT_FALSE(look("web/none/"));
}

TEST_F(PathWatchTest, ManyPathsAreBounded) {
  watch.begin(facts);
  for (std::size_t i = 0; i < PathWatch::maxNodes + 10; ++i)
    EXPECT_FALSE(watch.status(dir / ("web/" + std::to_string(i)), facts));
  EXPECT_FALSE(facts.hold()) << "too many: asked for each time";
  EXPECT_EQ(watch.watches(), 0U);
}

TEST_F(PathWatchTest, ClosingEndsAll) {
  look("web/sub/a.txt");
  watch.close();
  EXPECT_FALSE(facts.hold());
  watch.begin(facts);
  EXPECT_TRUE(watch.status(dir / "web/sub/a.txt", facts));
  EXPECT_FALSE(facts.hold()) << "nothing can be proved without the kernel";
}

}  // namespace
