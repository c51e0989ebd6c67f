// The measurement of bus_round on the buses of Linux desktops: two clients made with sd-bus, one of which calls a
// method that the other answers with the bytes it was given.
//
//   sdbus_round SOCKET BROKER-PID PAYLOAD OUTSTANDING ROUNDTRIPS

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

#include "bench/bus/bus_clock.h"
#include "bench/bus/bus_socket.h"

namespace {

constexpr const char* serviceName = "bench.Echo";
constexpr const char* objectPath = "/bench/echo";
constexpr const char* memberName = "Echo";
constexpr std::uint32_t warmUpTrips = 2000;

int sure(int result, const char* what) {
  if (result < 0) {
    errno = -result;
    fail(what);
  }
  return result;
}

sd_bus* join(const char* socket) {
  sd_bus* bus = nullptr;
  sure(sd_bus_new(&bus), "sd_bus_new");
  sure(sd_bus_set_address(bus, ("unix:path=" + std::string(socket)).c_str()), "sd_bus_set_address");
  sure(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
  sure(sd_bus_start(bus), "sd_bus_start");
  return bus;
}

// Handles what has come, and waits when there was nothing.
void turn(sd_bus* bus) {
  if (sure(sd_bus_process(bus, nullptr), "sd_bus_process") > 0) return;
  const int waited = sd_bus_wait(bus, UINT64_MAX);
  if (waited < 0 && waited != -EINTR) sure(waited, "sd_bus_wait");
}

int onCall(sd_bus_message* call, void* /*unused*/, sd_bus_error* /*unused*/) {
  if (sd_bus_message_is_method_call(call, serviceName, memberName) == 0) return 0;
  const void* bytes = nullptr;
  std::size_t size = 0;
  sd_bus_message* reply = nullptr;
  sure(sd_bus_message_read_array(call, 'y', &bytes, &size), "read");
  sure(sd_bus_message_new_method_return(call, &reply), "reply");
  sure(sd_bus_message_append_array(reply, 'y', bytes, size), "append");
  sure(sd_bus_send(nullptr, reply, nullptr), "send");
  sd_bus_message_unref(reply);
  return 1;
}

// Tells by a byte in the pipe that it can be called.
[[noreturn]] void echo(const char* socket, int ready) {
  sd_bus* bus = join(socket);
  sure(sd_bus_add_object(bus, nullptr, objectPath, onCall, nullptr), "sd_bus_add_object");
  sure(sd_bus_request_name(bus, serviceName, 0), "sd_bus_request_name");
  const std::uint8_t byte = 1;
  writeAll(ready, std::span(&byte, 1));
  for (;;)
    turn(bus);
}

class Requester {
 public:
  Requester(sd_bus* bus, std::uint32_t payload, std::uint32_t outstanding)
      : bus_(bus), outstanding_(outstanding), bytes_(payload, 'x') {}

  void run(std::uint32_t roundTrips) {
    unsent_ = roundTrips;
    unanswered_ = roundTrips;
    for (std::uint32_t i = std::min(outstanding_, roundTrips); i > 0; --i)
      call();
    while (unanswered_ > 0)
      turn(bus_);
  }

 private:
  void call() {
    sd_bus_message* message = nullptr;
    sure(sd_bus_message_new_method_call(bus_, &message, serviceName, objectPath, serviceName, memberName), "call");
    sure(sd_bus_message_append_array(message, 'y', bytes_.data(), bytes_.size()), "append");
    sure(sd_bus_call_async(bus_, nullptr, message, onReply, this, 0), "sd_bus_call_async");
    sd_bus_message_unref(message);
    --unsent_;
  }

  static int onReply(sd_bus_message* reply, void* self, sd_bus_error* /*unused*/) {
    if (sd_bus_message_is_method_error(reply, nullptr) != 0) fail("an error for an answer");
    auto* requester = static_cast<Requester*>(self);
    --requester->unanswered_;
    if (requester->unsent_ > 0) requester->call();
    return 1;
  }

  sd_bus* bus_;
  std::uint32_t outstanding_;
  std::uint32_t unsent_ = 0;
  std::uint32_t unanswered_ = 0;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) fail("usage: sdbus_round SOCKET BROKER-PID PAYLOAD OUTSTANDING ROUNDTRIPS");
  const std::uint32_t roundTrips = numberArgument(argv[5]);
  int ready[2];
  if (pipe(ready) != 0) fail("pipe");
  const pid_t echoer = fork();
  if (echoer < 0) fail("fork");
  if (echoer == 0) echo(argv[1], ready[1]);
  close(ready[1]);
  std::uint8_t byte = 0;
  readAll(ready[0], std::span(&byte, 1));
  sd_bus* bus = join(argv[1]);
  Requester requester(bus, numberArgument(argv[3]), numberArgument(argv[4]));
  requester.run(warmUpTrips);
  const Spending spending(static_cast<pid_t>(numberArgument(argv[2])), echoer);
  requester.run(roundTrips);
  spending.print(roundTrips);
  sd_bus_unref(bus);
  kill(echoer, SIGTERM);
  waitpid(echoer, nullptr, 0);
  return 0;
}
