#include "services/supervisor/log_keeper.h"

#include <csignal>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "tests/fakes/fake_runner.h"
#include "tests/services/supervisor/pipe_ends.h"

namespace tnrun {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t www = 0;
constexpr std::size_t sermgr = 1;

class LogKeeperTest : public testing::Test {
 protected:
  LogKeeperTest() { signal(SIGPIPE, SIG_IGN); }

  // The program's ends of its pipes.
  struct Ends {
    PipeEnds output;
    PipeEnds errors;
    int outputFd = -1;  // the keeper's
    int errorsFd = -1;
  };
  Ends begin(std::size_t program) {
    Ends ends;
    ends.outputFd = ends.output.reading.get();
    ends.errorsFd = ends.errors.reading.get();
    keeper.began(program, std::move(ends.output.reading), std::move(ends.errors.reading));
    return ends;
  }
  // The kernel's word for a pipe.
  void ready(int fd, unsigned bits = tn::readable) { runner.ready(fd, bits); }

  std::vector<std::string> kept() {
    std::vector<std::string> all;
    Journal::Query query;
    query.most = Journal::maxLines;
    for (const Journal::Line* line : journal.find(query).entries)
      all.push_back(line->program + (line->stream == Stream::errors ? "! " : ": ") + line->text);
    return all;
  }

  const std::vector<Program> programs = {{"www", "/bin/www"}, {"sermgr", "/bin/sermgr"}};
  tn::fakes::FakeRunner runner;
  Journal journal;
  PipeEnds shown;
  PipeEnds told;
  Outlet output{runner.timers(), shown.writing.get()};
  Outlet errors{runner.timers(), told.writing.get()};
  LogKeeper keeper{runner, programs, journal, output, errors};
};

TEST_F(LogKeeperTest, LinesArePassedOnAndKept) {
  const Ends ends = begin(www);
  ends.output.write("one\ntwo\n");
  ready(ends.outputFd);
  EXPECT_EQ(shown.take(), "one\ntwo\n");
  EXPECT_THAT(kept(), ElementsAre("www: one", "www: two"));
  ends.errors.write("trouble\n");
  ready(ends.errorsFd);
  EXPECT_EQ(shown.take(), "trouble\n");
  EXPECT_EQ(told.take(), "");
  EXPECT_THAT(kept(), ElementsAre("www: one", "www: two", "www! trouble"));
}

TEST_F(LogKeeperTest, BytesArePassedOnAsTheyAre) {
  const Ends ends = begin(www);
  const std::string odd("\x1b[31m\xff\0 \r\t\xc3\xa4\n", 13);
  ends.output.write(odd);
  ready(ends.outputFd);
  EXPECT_EQ(shown.take(), odd);
  EXPECT_THAT(kept(), ElementsAre("www: \\x1b[31m\\xff\\0 \\r\\t\xc3\xa4"));
}

TEST_F(LogKeeperTest, LinesOfTwoProgramsStayWhole) {
  const Ends first = begin(www);
  const Ends second = begin(sermgr);
  first.output.write("half a ");
  ready(first.outputFd);
  second.output.write("whole\n");
  ready(second.outputFd);
  EXPECT_EQ(shown.take(), "whole\n");
  runner.advance(LogKeeper::restMs);
  first.output.write("line\n");
  ready(first.outputFd);
  EXPECT_EQ(shown.take(), "half a line\n");
  EXPECT_THAT(kept(), ElementsAre("sermgr: whole", "www: half a line"));
}

TEST_F(LogKeeperTest, AnErrorComesBehindWhatWasWrittenBefore) {
  const Ends ends = begin(www);
  ends.output.write("before\n");
  ends.errors.write("trouble\n");
  ready(ends.errorsFd);
  EXPECT_EQ(shown.take(), "before\ntrouble\n");
  EXPECT_THAT(kept(), ElementsAre("www: before", "www! trouble"));
}

TEST_F(LogKeeperTest, APipeThatWasReadEmptyRests) {
  const Ends ends = begin(www);
  ends.output.write("one\n");
  ready(ends.outputFd);
  EXPECT_EQ(runner.mask(ends.outputFd), 0U);
  ends.output.write("two\n");
  ready(ends.outputFd);
  EXPECT_EQ(shown.take(), "one\n");
  runner.advance(LogKeeper::restMs);
  EXPECT_EQ(runner.mask(ends.outputFd), tn::readable);
  ready(ends.outputFd);
  EXPECT_EQ(shown.take(), "two\n");
}

TEST_F(LogKeeperTest, AFloodIsReadWithoutRest) {
  const Ends ends = begin(www);
  fcntl(ends.output.writing.get(), F_SETPIPE_SZ, 256 << 10);
  std::string flood;
  while (flood.size() < 200'000)
    flood += "a line of a flood\n";
  ends.output.write(flood);
  ready(ends.outputFd);
  EXPECT_EQ(runner.mask(ends.outputFd), tn::readable);
  std::string all;
  for (int i = 0; i < 10; ++i) {
    ready(ends.outputFd);
    all += shown.take();
    runner.advance(Outlet::retryMs);
  }
  EXPECT_TRUE(all == flood);
}

TEST_F(LogKeeperTest, TheLastWordsAreReadToTheirEnd) {
  Ends ends = begin(www);
  fcntl(ends.output.writing.get(), F_SETPIPE_SZ, 256 << 10);
  std::string words;
  for (int i = 0; i < 20'000; ++i)
    words += "word " + std::to_string(i) + "\n";
  words += "and no end";
  ends.output.write(words);
  ends.errors.write("crashed");
  ends.output.writing.reset();
  ends.errors.writing.reset();
  keeper.ended(www);
  std::string all;
  for (std::string part = "-"; !part.empty(); runner.advance(Outlet::retryMs)) {
    part = shown.take();
    all += part;
  }
  EXPECT_TRUE(all == words + "\ncrashed\n");
  EXPECT_EQ(kept().back(), "www! crashed");
  EXPECT_FALSE(runner.watched(ends.outputFd));
  EXPECT_FALSE(runner.watched(ends.errorsFd));
}

// Something that the program left behind holds the other end.
TEST_F(LogKeeperTest, APipeThatDoesNotEndIsClosedWithItsProgram) {
  const Ends ends = begin(www);
  ends.output.write("last");
  keeper.ended(www);
  EXPECT_EQ(shown.take(), "last\n");
  EXPECT_EQ(runner.watchedCount(), 0U);
  // The next run of the program has pipes of its own.
  const Ends again = begin(www);
  again.output.write("first\n");
  ready(again.outputFd);
  EXPECT_EQ(shown.take(), "first\n");
}

TEST_F(LogKeeperTest, APipeThatItsProgramClosesIsLetGo) {
  Ends ends = begin(www);
  ends.output.write("bye\n");
  ends.output.writing.reset();
  ready(ends.outputFd, tn::readable | tn::hangUp);
  ready(ends.outputFd, tn::hangUp);
  EXPECT_FALSE(runner.watched(ends.outputFd));
  EXPECT_TRUE(runner.watched(ends.errorsFd));
  runner.advance(LogKeeper::restMs);
  ends.errors.write("still there\n");
  ready(ends.errorsFd);
  keeper.ended(www);
  EXPECT_EQ(shown.take(), "bye\nstill there\n");
}

TEST_F(LogKeeperTest, ALineWithoutEndIsPassedOnAndKeptOnce) {
  const Ends ends = begin(www);
  const std::string part(LineCutter::maxPieceBytes, 'x');
  ends.output.write(part + "end\nnext\n");
  ready(ends.outputFd);
  EXPECT_EQ(shown.take(), part + "end\nnext\n");
  EXPECT_THAT(kept(), ElementsAre("www: " + std::string(Journal::maxTextBytes, 'x') + "...", "www: next"));
}

TEST_F(LogKeeperTest, TheSupervisorsOwnWords) {
  keeper.say(Stream::output, "tnrun: started www, process 7");
  keeper.say(Stream::errors, "tnrun: www ended");
  EXPECT_EQ(shown.take(), "tnrun: started www, process 7\n");
  EXPECT_EQ(told.take(), "tnrun: www ended\n");
  EXPECT_THAT(kept(), ElementsAre("tnrun: tnrun: started www, process 7", "tnrun! tnrun: www ended"));
}

TEST_F(LogKeeperTest, AStalledTerminalHoldsUpNobody) {
  const Ends ends = begin(www);
  std::string part;
  while (part.size() < 60'000)
    part += "nobody reads this\n";
  // Much more than the pipe to the terminal and the outlet hold together.
  for (int i = 0; i < 20; ++i) {
    ends.output.write(part);
    ready(ends.outputFd);
    runner.advance(LogKeeper::restMs);
  }
  EXPECT_THAT(kept(), testing::SizeIs(testing::Gt(5000U)));
  EXPECT_LE(output.keptBytes(), Outlet::maxKeptBytes);
}

TEST_F(LogKeeperTest, NothingIsWatchedBeforeAProgramBegins) {
  EXPECT_EQ(runner.watchedCount(), 0U);
  keeper.ended(www);
  EXPECT_THAT(kept(), IsEmpty());
}

// The kernel has no memory for it.
TEST_F(LogKeeperTest, WhatCannotBeWatchedIsTriedAgain) {
  runner.refuseAdds = true;
  Ends ends = begin(www);
  ends.output.write("a\n");
  runner.advance(5 * LogKeeper::restMs);
  runner.refuseAdds = false;
  runner.advance(LogKeeper::restMs);
  ready(ends.outputFd);
  EXPECT_THAT(kept(), ElementsAre("www: a"));
  runner.refuseChanges = true;
  runner.advance(5 * LogKeeper::restMs);
  runner.refuseChanges = false;
  runner.advance(LogKeeper::restMs);
  ends.output.write("b\n");
  ready(ends.outputFd);
  EXPECT_THAT(kept(), ElementsAre("www: a", "www: b"));
}

TEST_F(LogKeeperTest, LastWordsAreTakenThoughNothingCouldBeWatched) {
  runner.refuseAdds = true;
  Ends ends = begin(www);
  ends.output.write("a\n");
  runner.refuseAdds = false;
  keeper.ended(www);
  EXPECT_THAT(kept(), ElementsAre("www: a"));
}

}  // namespace
}  // namespace tnrun
