#include "http/workspace.h"

#include <array>
#include <utility>

namespace {

// The first `count` are spare, the others null.
struct Spares {
  std::array<std::unique_ptr<Workspace>, Workspace::maxSpare> all;
  std::size_t count = 0;
};

Spares spares;

}  // namespace

std::unique_ptr<Workspace> takeWorkspace() {
  return spares.count != 0 ? std::move(spares.all[--spares.count]) : std::make_unique<Workspace>();
}

void giveWorkspace(std::unique_ptr<Workspace> workspace) {
  if (spares.count == Workspace::maxSpare || workspace->buffer.capacity() > Workspace::maxKeptBuffer) return;
  spares.all[spares.count++] = std::move(workspace);
}
