#include "services/sysd/board.h"

#include <utility>

namespace sysd {

const Board::Entry& Board::get(Object object, tn::Clock::time_point now, tn::Clock::duration age) {
  Entry& entry = entries_[static_cast<std::size_t>(object) - 1];
  if (entry.revision != 0 && now - entry.readAt <= age) return entry;
  tn::message fresh = source_.read(object);
  fresh.insert(tn::field::objectNumber, static_cast<std::uint32_t>(object));
  entry.readAt = now;
  if (entry.revision != 0 && fresh == entry.object) return entry;
  entry.object = std::move(fresh);
  ++entry.revision;
  return entry;
}

}  // namespace sysd
