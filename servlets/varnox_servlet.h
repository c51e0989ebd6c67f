#pragma once

#include <string>

#include "platform/web/servlet.h"

// Lists what is offered for the desktop client: the first line of every description (".info") in the folder of
// plug-ins.
class VarnoxServlet : public Servlet {
 public:
  VarnoxServlet() : Servlet("GET, HEAD") {}
  void doGet(Request& request, Response& response) override;
};

// Answers with the first lines of the descriptions in a folder, in the order in which the file system gives them, each
// cut after 255 bytes; 404 when the folder cannot be opened. `folder` ends with a "/".
void sendDescriptions(const std::string& folder, Response& response);
