#pragma once

#include <string>

#include "platform/web/servlet.h"

// Serves the start page: a template of the file system with its placeholders filled in (servlets/page_template.h).
class IndexServlet : public Servlet {
 public:
  IndexServlet() : Servlet("GET, HEAD") {}
  // A template with %user% holds up the whole loop until the user service has answered, 6 seconds at the most.
  void doGet(Request& request, Response& response) override;
};

// Answers with the template at `path`, or what a package has under that path; 404 when it cannot be mapped, as one
// without a byte cannot.
void sendStartPage(const std::string& path, const Request& request, Response& response);
