#pragma once

// The whole service over a recorded bus, with a hasher that the test turns.

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/text.h"
#include "services/userd/fields.h"
#include "services/userd/service.h"
#include "tests/fakes/recording_bus.h"
#include "tests/services/userd/fake_hasher.h"
#include "tests/services/userd/scratch.h"

namespace userd {

inline constexpr std::uint32_t program = 1500;  // whoever asks
inline constexpr std::uint32_t server = 1700;   // whoever carries sessions

inline tn::message text(std::string_view typed) {
  tn::message read;
  EXPECT_FALSE(tn::readText(typed, read).has_value()) << typed;
  return read;
}

// An answer as it would be typed, without what carried it; "code text" of an error.
inline std::string shown(const tn::message& answer) {
  if (tn::isError(answer)) {
    const auto code = answer.get(tn::field::errorCode).value_or(0);
    return std::string(NumberText(code, 16)) + ' ' + tn::getError(answer);
  }
  tn::message plain = answer;
  plain.remove(tn::field::sender);
  plain.remove(tn::field::destination);
  plain.remove(tn::field::requestNumber);
  plain.remove(tn::field::isReply);
  return tn::writeText(plain);
}

class ServiceTest : public ScratchTest {
 protected:
  ServiceTest() { begin(); }
  ~ServiceTest() override { end(); }

  void begin() {
    loop_ = std::make_unique<tn::fakes::TestLooper>();
    hasher_ = std::make_unique<FakeHasher>();
    service_ = std::make_unique<Service>(
        loop_->looper, *hasher_,
        Service::Settings{path("rw/store/users.db"), path("rw/store/first-login"), {1, 2}, 41, fakeHash("dummy")});
    service_->start();
  }
  void end() {
    service_.reset();
    hasher_.reset();
    loop_.reset();
  }

  // The password that the service made for its first user.
  std::string firstPassword() const {
    const auto password = FirstLogin(path("rw/store/first-login")).readPassword();
    return password ? std::string(password->text()) : "none";
  }
  bool hasNote() const { return std::filesystem::exists(path("rw/store/first-login")); }

  // Asks as a program of the system; the number to look for the answer with.
  std::uint32_t send(std::uint32_t handler, std::uint32_t command, tn::message fields) {
    return loop_->bus.request(program, handler, command, std::move(fields));
  }
  std::string answerTo(std::uint32_t number) const {
    const auto* const reply = loop_->bus.replyTo(number);
    return reply == nullptr ? "none" : shown(reply->content);
  }
  std::string ask(std::uint32_t handler, std::uint32_t command, std::string_view typed = "{}") {
    const std::uint32_t number = send(handler, command, text(typed));
    hasher_->finishAll();
    return answerTo(number);
  }
  // Asks as a session of a user would.
  std::string askAs(std::string_view user, std::uint32_t policies, std::uint32_t handler, std::uint32_t command,
                    std::string_view typed = "{}") {
    tn::message fields = text(typed);
    fields.insert(tn::field::user, user);
    fields.insert(tn::field::policies, policies);
    fields.insert_vector(tn::field::sender, std::array<std::uint32_t, 2>{100, 7});
    const std::uint32_t number = loop_->bus.request(server, handler, command, std::move(fields));
    hasher_->finishAll();
    return answerTo(number);
  }
  std::string logIn(std::string_view name, std::string_view password) {
    tn::message fields;
    fields.insert(field::name, name);
    fields.insert(field::password, password);
    const std::uint32_t number = send(loginHandlerId, command::logIn, fields);
    hasher_->finishAll();
    return answerTo(number);
  }
  void addBob() {
    EXPECT_EQ(ask(userHandlerId, tn::command::addObj, "{s1:'bob',s3:'bobs password',s11:'Bob B.'}"), "{ufe0001:2}");
  }

  std::unique_ptr<tn::fakes::TestLooper> loop_;
  std::unique_ptr<FakeHasher> hasher_;
  std::unique_ptr<Service> service_;
};

}  // namespace userd
