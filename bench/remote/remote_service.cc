// The service of the benchmark of forwarded requests: answers each with a short page.
//
//   remote_service    (inside the image, where the broker is)

#include "platform/bus/looper.h"
#include "platform/web/forwarding.h"

namespace {

constexpr std::uint32_t busId = 200;
constexpr std::uint32_t handlerId = 7;

class Page : public tn::Handler {
 public:
  tn::message cmdUnknown(tn::message& /*msg*/, std::uint32_t /*command*/) override {
    tn::message answer;
    answer.insert(forwarding::status, 200);
    answer.insert_vector(forwarding::headerLines, headings_);
    answer.insert(forwarding::body, "<!doctype html><title>ok</title>\n");
    return answer;
  }

 private:
  std::vector<std::string> headings_{"Content-Type: text/html; charset=utf-8"};
};

}  // namespace

int main() {
  tn::Looper::Tuning tuning{};
  tuning.id = busId;
  tn::Looper looper(tuning);
  Page page;
  looper.addHandler(handlerId, page);
  looper.run();
  return 0;
}
