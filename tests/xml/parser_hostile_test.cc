#include <array>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/xml/parser.h"
#include "tests/xml/canonical.h"
#include "tests/xml/reading.h"

namespace {

// A copy of some bytes that ends at a page that may not be touched: one byte read too far ends the test.
class Fenced {
 public:
  explicit Fenced(std::string_view bytes) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t room = (bytes.size() + page - 1) / page * page;
    size_ = room + page;
    map_ = static_cast<char*>(::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_NE(map_, MAP_FAILED);
    EXPECT_EQ(::mprotect(map_ + room, page, PROT_NONE), 0);
    end_ = map_ + room;
    std::memcpy(end_ - bytes.size(), bytes.data(), bytes.size());
  }
  Fenced(const Fenced&) = delete;
  Fenced& operator=(const Fenced&) = delete;
  ~Fenced() { ::munmap(map_, size_); }

  // The last `count` bytes.
  [[nodiscard]] std::string_view last(std::size_t count) const { return {end_ - count, count}; }

 private:
  char* map_ = nullptr;
  char* end_ = nullptr;
  std::size_t size_ = 0;
};

constexpr std::string_view everything =
    "\xEF\xBB\xBF<?xml version=\"1.0\" encoding='utf-8' standalone=\"no\" ?>\r\n"
    "<!-- a comment with \xC3\xA9 --><?target some data?>\n"
    "<www xmlns:x='urn:x'>\r\n"
    "  <server name=\"http\" ssl='no'>\r"
    "    <servlet type='dir' path=\"/\" root='/home/web'/>text &amp; &#x20AC;&#65;\n"
    "    <![CDATA[ <raw> & ]] ]]><?pi?>\n"
    "  </server ><\xE4\xB8\xAD/>\n"
    "</www>\n<!-- end -->\n";

Reading read(std::string_view document) {
  return readAs("d", document);
}

// What a document is read as must read back as the same; what is refused must name a place inside the document.
void checkSane(std::string_view document) {
  const auto root = read(document);
  if (root.node) {
    const std::string once = canonical::text(*root.node);
    if (once.size() > xml::limit::documentBytes) return;
    const auto again = read(once);
    ASSERT_TRUE(again.node.has_value()) << ::testing::PrintToString(document) << again.error.text();
    ASSERT_EQ(canonical::text(*again.node), once) << ::testing::PrintToString(document);
  } else {
    ASSERT_FALSE(root.error.expected.empty());
    ASSERT_LE(root.error.line, document.size() + 1);
    ASSERT_LE(root.error.column, document.size() + 1);
  }
}

TEST(Truncation, AtEveryByteIsAnError) {
  ASSERT_TRUE(read(everything).node.has_value());
  const std::size_t rootEnd = everything.find("</www>") + 6;
  for (std::size_t length = 0; length < rootEnd; ++length) {
    const Fenced copy(everything.substr(0, length));
    const auto root = read(copy.last(length));
    ASSERT_FALSE(root.node.has_value()) << length;
    ASSERT_FALSE(root.error.expected.empty());
  }
}

TEST(Truncation, BehindTheRootIsAnErrorInsideACommentAlone) {
  const std::size_t rootEnd = everything.find("</www>") + 6;
  const std::size_t commentStart = everything.find("<!-- end");
  const std::size_t commentEnd = everything.rfind("-->") + 3;
  for (std::size_t length = rootEnd; length <= everything.size(); ++length) {
    const Fenced copy(everything.substr(0, length));
    EXPECT_EQ(read(copy.last(length)).node.has_value(), length <= commentStart || length >= commentEnd) << length;
  }
}

TEST(Truncation, AtTheFrontIsSane) {
  const Fenced copy(everything);
  for (std::size_t length = 0; length <= everything.size(); ++length)
    checkSane(copy.last(length));
}

TEST(Mutation, OfEveryByteToTellingOnesIsSane) {
  constexpr std::string_view replacements = "<>&;\"'/?!-[]= \n\r\tx:#0\x01\x7F\x80\xBF\xC3\xE2\xF0\xFF";
  for (std::size_t at = 0; at < everything.size(); ++at) {
    for (const char replacement : replacements) {
      std::string mutated(everything);
      mutated[at] = replacement;
      checkSane(mutated);
    }
  }
}

TEST(Mutation, ByDroppingAndDoublingPiecesIsSane) {
  for (std::size_t at = 0; at < everything.size(); ++at) {
    for (const std::size_t length : {1U, 2U, 3U, 7U, 20U}) {
      std::string dropped(everything);
      dropped.erase(at, length);
      checkSane(dropped);
      std::string doubled(everything);
      doubled.insert(at, everything.substr(at, length));
      checkSane(doubled);
    }
  }
}

TEST(Mutation, ByChanceIsSane) {
  std::mt19937 random(20240229);  // the same each time
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  for (int round = 0; round < 20000; ++round) {
    std::string mutated(everything);
    for (std::size_t changes = 1 + below(6); changes != 0; --changes) {
      const std::size_t at = below(mutated.size());
      switch (below(3)) {
        case 0:
          mutated[at] = static_cast<char>(below(256));
          break;
        case 1:
          mutated.insert(at, everything.substr(below(everything.size()), below(16)));
          break;
        default:
          mutated.erase(at, 1 + below(4));
          break;
      }
      if (mutated.empty()) break;
    }
    checkSane(mutated);
  }
}

TEST(Corpus, OfTheFuzzerIsSane) {
  const std::string directory = "fuzz/corpus/xml/";
  for (const char* name : {"everything", "shipped", "utf8", "references", "bomb", "nested", "attributes", "ascii"}) {
    std::ifstream file(directory + name, std::ios::binary);
    ASSERT_TRUE(file.is_open()) << name;
    checkSane(std::string(std::istreambuf_iterator<char>(file), {}));
  }
}

std::string repeat(std::string_view piece, std::size_t count) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i)
    all += piece;
  return all;
}

void expectError(const std::string& document, unsigned line, unsigned column, std::string_view expected) {
  const auto root = read(document);
  ASSERT_FALSE(root.node.has_value());
  EXPECT_EQ(root.error.line, line);
  EXPECT_EQ(root.error.column, column);
  EXPECT_EQ(root.error.expected, expected);
}

TEST(EntityBombs, ExplodeNowhere) {
  const std::string laughs =
      "<?xml version='1.0'?>\n<!DOCTYPE l [<!ENTITY a 'ha'><!ENTITY b '&a;&a;&a;&a;'><!ENTITY c "
      "'&b;&b;&b;&b;'>]>\n<l>&c;</l>";
  expectError(laughs, 2, 1, "the root element, not a document type declaration");
  expectError("<l>&c;</l>", 1, 4, "one of the entities amp, lt, gt, apos, quot");
  expectError("<!DOCTYPE l [<!ENTITY % p SYSTEM 'file:///dev/zero'>%p;]><l/>", 1, 1,
              "the root element, not a document type declaration");
}

TEST(Limits, Nesting) {
  const std::size_t most = xml::limit::nesting;
  EXPECT_TRUE(read(repeat("<a>", most) + repeat("</a>", most)).node.has_value());
  EXPECT_TRUE(read(repeat("<a>", most - 1) + "<a/><a/>" + repeat("</a>", most - 1)).node.has_value());
  expectError(repeat("<a>", most) + "<a/>" + repeat("</a>", most), 1, 3 * most + 1, "at most 64 nested elements");
  expectError(repeat("<a>", 300000), 1, 3 * most + 1, "at most 64 nested elements");
}

TEST(Limits, Elements) {
  const std::size_t most = xml::limit::elements;
  const auto root = read(std::string("<a>") + repeat("<b/>", most - 1) + "</a>");
  ASSERT_TRUE(root.node.has_value());
  EXPECT_EQ(root.node->children().size(), most - 1);
  expectError(std::string("<a>") + repeat("<b/>", most) + "</a>", 1, static_cast<unsigned>(4 * most),
              "at most 65536 elements");
}

std::string attributesOf(std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i)
    text.append("\na").append(std::to_string(i)).append("=''");
  return text.insert(0, "<a").append("/>");
}

TEST(Limits, Attributes) {
  const std::size_t most = xml::limit::attributes;
  EXPECT_TRUE(read(attributesOf(most)).node.has_value());
  expectError(attributesOf(most + 1), most + 2, 1, "at most 64 attributes");
}

TEST(Limits, NameLength) {
  const std::string most(xml::limit::nameBytes, 'n');
  EXPECT_TRUE(read(std::string("<") + most + " " + most + "=''></" + most + ">").node.has_value());
  EXPECT_TRUE(read(std::string("<?") + most + "?><a/>").node.has_value());
  expectError(std::string("<n") + most + "/>", 1, 2, "a name of at most 256 bytes");
  expectError(std::string("<a n") + most + "=''/>", 1, 4, "a name of at most 256 bytes");
  expectError(std::string("<?n") + most + "?><a/>", 1, 3, "a name of at most 256 bytes");
  expectError(std::string("<a></") + most + "n>", 1, 6, "a name of at most 256 bytes");
  expectError(std::string("<") + most.substr(1) + "\xC3\xA9/>", 1, 2, "a name of at most 256 bytes");
}

TEST(Limits, ValueLength) {
  const std::string most(xml::limit::valueBytes, 'v');
  EXPECT_TRUE(read(std::string("<a b='") + most + "'/>").node.has_value());
  EXPECT_TRUE(read(std::string("<a b='") + repeat("&amp;", xml::limit::valueBytes) + "'/>").node.has_value());
  expectError(std::string("<a b='v") + most + "'/>", 1, 6, "a value of at most 32768 bytes");
  expectError(std::string("<a b='&#65;") + most + "'/>", 1, 6, "a value of at most 32768 bytes");
}

TEST(Limits, DocumentSize) {
  const std::size_t most = xml::limit::documentBytes;
  const std::string largest = "<a>" + std::string(most - 7, 't') + "</a>";
  ASSERT_EQ(largest.size(), most);
  const auto root = read(largest);
  ASSERT_TRUE(root.node.has_value());
  EXPECT_EQ(root.node->text().size(), most - 7);
  expectError(largest + "\n", 0, 0, "at most 1048576 bytes");
  EXPECT_EQ(read(largest + "\n").error.text(), "d: expected at most 1048576 bytes");
}

}  // namespace
