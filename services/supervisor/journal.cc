#include "services/supervisor/journal.h"

#include <algorithm>

#include "platform/bus/text.h"
#include "services/common/beginning.h"

namespace tnrun {
namespace {

bool fits(const Journal::Line& line, const Journal::Query& query) {
  if (!query.program.empty() && line.program != query.program) return false;
  return line.text.find(query.containing) != std::string::npos;
}

}  // namespace

void Journal::add(std::string_view program, Stream stream, std::string_view line, std::uint64_t time) {
  const bool cut = line.size() > maxTextBytes;
  std::string text = tn::printableText(service::beginningOf(line, maxTextBytes));
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
