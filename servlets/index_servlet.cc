#include "servlets/index_servlet.h"

void IndexServlet::doMethod(Request& /*request*/, Response& response) {
  response.sendError(404, "");
}
