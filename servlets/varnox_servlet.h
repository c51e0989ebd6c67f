#pragma once

#include "platform/web/servlet.h"

// Holds the place of the listing of plug-in descriptions: every request is answered 404.
class VarnoxServlet : public Servlet {
 public:
  void doMethod(Request& request, Response& response) override;
};
