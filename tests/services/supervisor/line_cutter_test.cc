#include "services/supervisor/line_cutter.h"

#include <gmock/gmock.h>
#include <string>
#include <string_view>
#include <vector>

namespace tnrun {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LineCutterTest : public testing::Test {
 protected:
  using Texts = std::vector<std::string>;

  // What comes out: "..." stands where a line goes on.
  Texts feed(std::string_view bytes) {
    Texts texts;
    cutter.feed(bytes, [&](const LineCutter::Piece& piece) { texts.push_back(told(piece)); });
    return texts;
  }
  Texts finish() {
    Texts texts;
    cutter.finish([&](const LineCutter::Piece& piece) { texts.push_back(told(piece)); });
    return texts;
  }
  static std::string told(const LineCutter::Piece& piece) {
    return (piece.begins ? "" : "...") + std::string(piece.text) + (piece.ends ? "" : "...");
  }

  LineCutter cutter;
};

TEST_F(LineCutterTest, LinesAsTheyCome) {
  EXPECT_THAT(feed("one\ntwo\n"), ElementsAre("one", "two"));
  EXPECT_THAT(feed("\n\nx\n"), ElementsAre("", "", "x"));
  EXPECT_THAT(feed(""), IsEmpty());
  EXPECT_THAT(finish(), IsEmpty());
}

TEST_F(LineCutterTest, ALineInPieces) {
  EXPECT_THAT(feed("o"), IsEmpty());
  EXPECT_THAT(feed("n"), IsEmpty());
  EXPECT_THAT(feed("e\ntw"), ElementsAre("one"));
  EXPECT_THAT(feed("o"), IsEmpty());
  EXPECT_THAT(feed("\n"), ElementsAre("two"));
}

TEST_F(LineCutterTest, TheLastWordsNeedNoEnd) {
  EXPECT_THAT(feed("one\nlast"), ElementsAre("one"));
  EXPECT_THAT(finish(), ElementsAre("last"));
  EXPECT_THAT(finish(), IsEmpty());
  EXPECT_THAT(feed("again\n"), ElementsAre("again"));
}

TEST_F(LineCutterTest, ALineThatIsTooLongComesInPieces) {
  const std::string piece(LineCutter::maxPieceBytes, 'x');
  EXPECT_THAT(feed(piece + piece + "rest\nnext\n"),
              ElementsAre(piece + "...", "..." + piece + "...", "...rest", "next"));
}

TEST_F(LineCutterTest, ALineOfExactlyOnePiece) {
  const std::string piece(LineCutter::maxPieceBytes, 'x');
  EXPECT_THAT(feed(piece + "\n"), ElementsAre(piece));
  // Its end comes later than the decision that it is too long.
  EXPECT_THAT(feed(piece), ElementsAre(piece + "..."));
  EXPECT_THAT(feed("\nnext\n"), ElementsAre("...", "next"));
}

TEST_F(LineCutterTest, APieceWithoutEndIsEndedAtLast) {
  const std::string piece(LineCutter::maxPieceBytes, 'x');
  feed(piece);
  EXPECT_THAT(finish(), ElementsAre("..."));
}

// However the bytes are cut, the same lines come out.
TEST_F(LineCutterTest, CutsDoNotMatter) {
  const std::string text = "a\n\nbcd\nef\n\n\nghi";
  for (std::size_t first = 0; first <= text.size(); ++first) {
    for (std::size_t second = first; second <= text.size(); ++second) {
      Texts all;
      const std::string_view view = text;
      for (const std::string_view part :
           {view.substr(0, first), view.substr(first, second - first), view.substr(second)}) {
        for (const std::string& line : feed(part))
          all.push_back(line);
      }
      for (const std::string& line : finish())
        all.push_back(line);
      EXPECT_THAT(all, ElementsAre("a", "", "bcd", "ef", "", "", "ghi"));
    }
  }
}

}  // namespace
}  // namespace tnrun
