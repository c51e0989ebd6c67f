#pragma once

#include <vector>

#include "http/counters.h"
#include "platform/web/servlet.h"

// What a connection needs to know of the server it was accepted on. The server is one, and outlives all its
// connections.
struct Site {
  // In configuration order. Not owned; servlets live as long as the process.
  std::vector<Servlet*> servlets;
  SiteCounters counters;
};
