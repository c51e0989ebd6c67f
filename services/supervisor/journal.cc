#include "services/supervisor/journal.h"

#include <algorithm>

#include "platform/bus/text.h"

namespace tnrun {
namespace {

// The first bytes of a line that is too long; a character is not cut in its middle.
std::string_view beginning(std::string_view line) {
  constexpr std::size_t longestCharacter = 4;
  const auto isWithin = [line](std::size_t at) { return (static_cast<unsigned char>(line[at]) & 0xc0U) == 0x80; };
  std::size_t end = Journal::maxTextBytes;
  for (std::size_t back = 1; back < longestCharacter && isWithin(end); ++back)
    --end;
  return line.substr(0, end);
}

bool fits(const Journal::Line& line, const Journal::Query& query) {
  if (!query.program.empty() && line.program != query.program) return false;
  return line.text.find(query.containing) != std::string::npos;
}

}  // namespace

void Journal::add(std::string_view program, Stream stream, std::string_view line, std::uint64_t time) {
  const bool cut = line.size() > maxTextBytes;
  std::string text = tn::printableText(cut ? beginning(line) : line);
  if (cut) text += cutMark;
  lines_.push_back({++newest_, time, std::string(program), std::move(text), stream});
  bytes_ += cost(lines_.back());
  while (lines_.size() > maxLines || bytes_ > maxBytes) {
    bytes_ -= cost(lines_.front());
    lines_.pop_front();
  }
}

Journal::Found Journal::find(const Query& query) const {
  const std::uint64_t after = query.after > newest_ ? 0 : query.after;
  const std::uint64_t gone = newest_ - lines_.size();
  Found found;
  found.newest = newest_;
  found.lost = gone > after ? gone - after : 0;
  std::size_t bytes = 0;
  for (auto line = lines_.rbegin(); line != lines_.rend() && line->number > after; ++line) {
    if (found.lines.size() == query.most) break;
    if (!fits(*line, query)) continue;
    bytes += line->text.size() + line->program.size() + bytesPerLine;
    if (bytes > query.mostBytes) break;
    found.lines.push_back(&*line);
  }
  std::reverse(found.lines.begin(), found.lines.end());
  return found;
}

}  // namespace tnrun
