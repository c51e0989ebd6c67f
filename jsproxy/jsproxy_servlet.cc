#include "jsproxy/jsproxy_servlet.h"

void JsProxyServlet::doMethod(Request& /*request*/, Response& response) {
  response.sendError(404, "");
}
