#include "platform/xml/characters.h"

#include <algorithm>
#include <array>
#include <span>

namespace xml {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

constexpr std::array<Range, 5> characterRanges = {{
    {0x9, 0xA},
    {0xD, 0xD},
    {0x20, 0xD7FF},
    {0xE000, 0xFFFD},
    {0x10000, 0x10FFFF},
}};

constexpr std::array<Range, 16> nameStartRanges = {{
    {U':', U':'},
    {U'A', U'Z'},
    {U'_', U'_'},
    {U'a', U'z'},
    {0xC0, 0xD6},
    {0xD8, 0xF6},
    {0xF8, 0x2FF},
    {0x370, 0x37D},
    {0x37F, 0x1FFF},
    {0x200C, 0x200D},
    {0x2070, 0x218F},
    {0x2C00, 0x2FEF},
    {0x3001, 0xD7FF},
    {0xF900, 0xFDCF},
    {0xFDF0, 0xFFFD},
    {0x10000, 0xEFFFF},
}};

// What a name may hold after its first character, besides what it may begin with.
constexpr std::array<Range, 5> nameRestRanges = {{
    {U'-', U'.'},
    {U'0', U'9'},
    {0xB7, 0xB7},
    {0x300, 0x36F},
    {0x203F, 0x2040},
}};

bool isIn(std::span<const Range> ranges, char32_t code) {
  return std::any_of(ranges.begin(), ranges.end(),
                     [code](const Range& range) { return range.first <= code && code <= range.last; });
}

// What the first byte of a sequence says: its length, its own bits of the code, and the smallest code that needs so
// many bytes. Smaller ones are overlong: another spelling of a character that a check for that character would miss.
struct Lead {
  unsigned length;
  char32_t bits;
  char32_t smallest;
};

constexpr Lead readLead(unsigned byte) {
  if (byte < 0x80) return {1, byte, 0};
  if (byte >= 0xC0 && byte < 0xE0) return {2, byte & 0x1F, 0x80};
  if (byte >= 0xE0 && byte < 0xF0) return {3, byte & 0x0F, 0x800};
  if (byte >= 0xF0 && byte < 0xF8) return {4, byte & 0x07, 0x10000};
  return {0, 0, 0};
}

constexpr char continuation(char32_t code, unsigned shift) {
  return static_cast<char>(0x80 | ((code >> shift) & 0x3F));
}

}  // namespace

Character decodeUtf8(std::string_view text) {
  constexpr Character invalid{0, 0};
  if (text.empty()) return invalid;
  const Lead lead = readLead(static_cast<unsigned char>(text.front()));
  if (lead.length == 0 || text.size() < lead.length) return invalid;
  char32_t code = lead.bits;
  for (unsigned i = 1; i < lead.length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return invalid;
    code = (code << 6) | (byte & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < lead.smallest || code > 0x10FFFF || surrogate) return invalid;
  return {code, lead.length};
}

void appendUtf8(std::string& text, char32_t code) {
  if (code < 0x80) {
    text += static_cast<char>(code);
  } else if (code < 0x800) {
    text += {static_cast<char>(0xC0 | (code >> 6)), continuation(code, 0)};
  } else if (code < 0x10000) {
    text += {static_cast<char>(0xE0 | (code >> 12)), continuation(code, 6), continuation(code, 0)};
  } else {
    text +=
        {static_cast<char>(0xF0 | (code >> 18)), continuation(code, 12), continuation(code, 6), continuation(code, 0)};
  }
}

bool isXmlCharacter(char32_t code) {
  return isIn(characterRanges, code);
}

bool isNameStart(char32_t code) {
  return isIn(nameStartRanges, code);
}

bool isNameCharacter(char32_t code) {
  return isIn(nameStartRanges, code) || isIn(nameRestRanges, code);
}

}  // namespace xml
