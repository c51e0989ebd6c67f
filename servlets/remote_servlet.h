#pragma once

#include <cstdint>
#include <vector>

#include "platform/web/servlet.h"

// Holds the place of requests forwarded to the bus handler `target`: every request is answered 404.
class RemoteServlet : public Servlet {
 public:
  explicit RemoteServlet(std::vector<std::uint32_t> target);
  void doMethod(Request& request, Response& response) override;

  [[nodiscard]] const std::vector<std::uint32_t>& target() const { return target_; }

 private:
  std::vector<std::uint32_t> target_;
};
