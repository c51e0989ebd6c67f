#include "platform/web/servlet.h"

bool Servlet::isDirectory() {
  return false;
}

void Servlet::doGet(Request&, Response& response) {
  refuseMethod(response);
}

void Servlet::doHead(Request& request, Response& response) {
  doGet(request, response);
}

void Servlet::doPost(Request&, Response& response) {
  refuseMethod(response);
}

void Servlet::doMethod(Request& request, Response& response) {
  switch (request.method) {
    case Method::get:
      doGet(request, response);
      return;
    case Method::head:
      doHead(request, response);
      return;
    case Method::post:
      doPost(request, response);
      return;
    case Method::unknown:
    case Method::options:
    case Method::put:
    case Method::del:
    case Method::trace:
    case Method::connect:
      refuseMethod(response);
      return;
  }
}

void Servlet::refuseMethod(Response& response) const {
  response.headers.addHeader("Allow", allow_, false);
  response.sendError(405, {});
}
