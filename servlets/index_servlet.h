#pragma once

#include "platform/web/servlet.h"

// Holds the place of the generated start page: every request is answered 404.
class IndexServlet : public Servlet {
 public:
  void doMethod(Request& request, Response& response) override;
};
