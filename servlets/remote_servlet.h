#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/web/servlet.h"

// Forwards each request, whole, to a handler on the bus, whose reply becomes the response (docs/forwarded-requests.md).
// It keeps nothing of its own between requests.
class RemoteServlet : public Servlet {
 public:
  // A POST whose body is not below this, or that does not say its length, is refused with 500.
  static constexpr std::uint32_t bodyLimit = 65536;
  static constexpr std::uint32_t answerMs = 6000;
  static constexpr std::uint32_t command = 0x50001;

  explicit RemoteServlet(std::vector<std::uint32_t> target);

  // Everything below its path is for the service, which knows its own pages.
  bool isDirectory() override;
  void doMethod(Request& request, Response& response) override;

  [[nodiscard]] const std::vector<std::uint32_t>& target() const { return target_; }

 private:
  void takeBody(Request& request, Response& response) const;
  void forward(Request& request, Response& response, std::string_view body) const;

  std::vector<std::uint32_t> target_;
};
