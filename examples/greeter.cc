// A service of the bus: it keeps a greeting, and greets whoever asks.

#include <csignal>
#include <string>

#include "platform/bus/looper.h"
#include "platform/policies.h"

namespace {

constexpr tn::string_id greetingField{1};  // of get and set
constexpr tn::u32_id greetedField{2};      // of get: how often somebody was greeted
constexpr tn::string_id nameField{1};      // of greet, and the text of its answer
constexpr std::uint32_t greetCommand = 0x20001;
constexpr std::size_t maxTextBytes = 200;

class Greeter : public tn::Handler {
 public:
  tn::message cmdGet(tn::message& msg) override {
    if (!tn::policies::holds(msg, tn::policies::read)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
    tn::message answer;
    answer.insert(greetingField, greeting_);
    answer.insert(greetedField, greeted_);
    return answer;
  }
  tn::message cmdSet(tn::message& msg) override {
    if (!tn::policies::holds(msg, tn::policies::changeSettings))
      return tn::errorMsg(tn::error::notAllowed, "not allowed");
    const auto greeting = msg.get(greetingField);
    if (!greeting || greeting->size() > maxTextBytes)
      return tn::errorMsg(1, "s1 is the greeting, 200 bytes at the most");
    greeting_ = *greeting;
    return {};
  }
  // Every command without a slot of its own comes here.
  tn::message cmdUnknown(tn::message& msg, std::uint32_t command) override {
    if (command != greetCommand) return Handler::cmdUnknown(msg, command);
    const auto name = msg.get(nameField).value_or("world");
    if (name.size() > maxTextBytes) return tn::errorMsg(2, "s1 is a name, 200 bytes at the most");
    ++greeted_;
    tn::message answer;
    answer.insert(nameField, greeting_ + ", " + std::string(name));
    return answer;
  }

 private:
  std::string greeting_ = "Hello";
  std::uint32_t greeted_ = 0;
};

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);  // a log whose reader is gone must not end the service
  tn::Looper::Tuning tuning{};
  tuning.id = 100;  // where others find it: its place on the bus
  tn::Looper looper(tuning);
  Greeter greeter;
  looper.addHandler(1, greeter);
  looper.run();  // joins the bus, and again whenever the broker was away
  return 0;
}
