#include <csignal>

#include "core/counter_handler.h"
#include "core/web_server.h"
#include "http/connection.h"
#include "platform/bus/looper.h"

namespace {

constexpr char configDirectory[] = "/tarn/etc/www";
constexpr std::uint32_t controlHandlerId = 1;

}  // namespace

int main() {
  tn::Looper looper(tn::Looper::Tuning{});
  WebServer server;
  looper.addHandler(controlHandlerId, server);
  CounterHandler counters(server.servers);
  looper.addHandler(CounterHandler::busHandlerId, counters);
  // A peer that has gone shows itself as a failed write, and so does a file that may not grow.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  server.start(configDirectory);
  looper.run();
  endAllConnections();
  return looper.exitStatus();
}
