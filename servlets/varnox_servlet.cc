#include "servlets/varnox_servlet.h"

void VarnoxServlet::doMethod(Request& /*request*/, Response& response) {
  response.sendError(404, "");
}
