#include "http/workspace.h"

#include <utility>
#include <vector>

namespace {

std::vector<Workspace>& spares() {
  static std::vector<Workspace> instance;
  return instance;
}

}  // namespace

Workspace takeWorkspace() {
  if (spares().empty()) return {};
  Workspace workspace = std::move(spares().back());
  spares().pop_back();
  return workspace;
}

void giveWorkspace(Workspace workspace) {
  if (spares().size() == Workspace::maxSpare || workspace.buffer.capacity() > Workspace::maxKeptBuffer) return;
  spares().push_back(std::move(workspace));
}
