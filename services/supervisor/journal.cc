#include "services/supervisor/journal.h"

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
  const auto fitting = [&query](const Line& line) { return fits(line, query); };
  const auto toTell = [](const Line& line) { return cost(line) + line.program.size(); };
  return service::findNewest(query, lines_, newest_, fitting, toTell);
}

}  // namespace tnrun
