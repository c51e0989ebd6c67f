#include "services/sysd/subscriber_list.h"

#include <algorithm>
#include <utility>

namespace sysd {
namespace {

std::span<const std::uint32_t> sessionOf(const SubscriberList::Path& path) {
  return std::span(path).first(std::min(path.size(), SubscriberList::sessionElements));
}

}  // namespace

SubscriberList::Taken SubscriberList::put(Subscriber subscriber) {
  const auto same = std::ranges::find(subscribers_, subscriber.path, &Subscriber::path);
  if (same != subscribers_.end()) {
    *same = std::move(subscriber);
    return Taken::taken;
  }
  if (subscribers_.size() == most) return Taken::tooMany;
  const auto ofSession = std::ranges::count_if(subscribers_, [&subscriber](const Subscriber& other) {
    return std::ranges::equal(sessionOf(other.path), sessionOf(subscriber.path));
  });
  if (static_cast<std::size_t>(ofSession) >= mostOfSession) return Taken::tooManyOfSession;
  subscribers_.push_back(std::move(subscriber));
  return Taken::taken;
}

void SubscriberList::remove(std::span<const std::uint32_t> path) {
  std::erase_if(subscribers_, [path](const Subscriber& other) { return std::ranges::equal(other.path, path); });
}

}  // namespace sysd
