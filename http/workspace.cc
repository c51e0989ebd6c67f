#include "http/workspace.h"

#include <array>

namespace {

// The first `count` are spare, the others empty.
struct Spares {
  std::array<Workspace, Workspace::maxSpare> all;
  std::size_t count = 0;
};

Spares spares;

void exchange(Workspace& spare, std::string& buffer, Headers& requestHeaders, Headers& responseHeaders) {
  spare.buffer.swap(buffer);
  spare.requestHeaders.swap(requestHeaders);
  spare.responseHeaders.swap(responseHeaders);
}

}  // namespace

void takeWorkspace(std::string& buffer, Headers& requestHeaders, Headers& responseHeaders) {
  if (spares.count != 0) exchange(spares.all[--spares.count], buffer, requestHeaders, responseHeaders);
}

void giveWorkspace(std::string& buffer, Headers& requestHeaders, Headers& responseHeaders) {
  if (spares.count != Workspace::maxSpare && buffer.capacity() <= Workspace::maxKeptBuffer) {
    exchange(spares.all[spares.count++], buffer, requestHeaders, responseHeaders);
  } else {
    Workspace dropped;
    exchange(dropped, buffer, requestHeaders, responseHeaders);
  }
}
