#pragma once

#include "platform/web/servlet.h"

// Greets whoever the query names, with the words of the greeting service: GET /greeting?neighbour.
class GreetingServlet : public Servlet {
 public:
  static constexpr std::uint32_t answerMs = 5000;

  GreetingServlet() : Servlet("GET, HEAD") {}
  // 400 without a name; 504 when the service takes too long, 502 when it is not there or refuses.
  void doGet(Request& request, Response& response) override;
};
