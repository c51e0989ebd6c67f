// The services of the tunnel's benchmark: one that lets everybody in, and one that sends back what it is sent.
//
//   tunnel_service 13|24    (inside the image, where the broker is)

#include <string_view>

#include "platform/bus/looper.h"

namespace {

constexpr std::uint32_t loginProgram = 13;
constexpr std::uint32_t loginHandler = 4;
constexpr std::uint32_t echoHandler = 1;

class Login : public tn::Handler {
 public:
  tn::message cmdUnknown(tn::message& /*msg*/, std::uint32_t /*command*/) override {
    tn::message answer;
    answer.insert(tn::u32_id(0xfe0001), 1);
    answer.insert(tn::u32_id(11), 0xFFFF);
    answer.insert(tn::string_id(24), "admin");
    return answer;
  }
};

class Echo : public tn::Handler {
 public:
  tn::message cmdUnknown(tn::message& msg, std::uint32_t /*command*/) override {
    tn::message answer;
    answer.insert(tn::string_id(1), msg.get(tn::string_id(1)).value_or(""));
    return answer;
  }
};

}  // namespace

int main(int argc, char** argv) {
  const bool isLogin = argc == 2 && std::string_view(argv[1]) == "13";
  tn::Looper::Tuning tuning{};
  tuning.id = isLogin ? loginProgram : 24;
  tn::Looper looper(tuning);
  Login login;
  Echo echo;
  if (isLogin) {
    looper.addHandler(loginHandler, login);
  } else {
    looper.addHandler(echoHandler, echo);
  }
  looper.run();
  return 0;
}
