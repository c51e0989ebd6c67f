#pragma once

#include <cstdint>

#include "platform/bus/handler.h"
#include "platform/web/servlet.h"

// Holds the place of the enciphered tunnel between browsers and the bus: every request is answered 404, and every bus
// message as any handler answers what it does not know. One for the whole process, listed by each server that wants it.
class JsProxyServlet : public Servlet, public tn::Handler {
 public:
  // Its id on the process's loop.
  static constexpr std::uint32_t busHandlerId = 100;

  void doMethod(Request& request, Response& response) override;
};
