#include "servlets/remote_servlet.h"

#include <utility>

RemoteServlet::RemoteServlet(std::vector<std::uint32_t> target) : target_(std::move(target)) {}

void RemoteServlet::doMethod(Request& /*request*/, Response& response) {
  response.sendError(404, "");
}
