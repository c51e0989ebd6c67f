#include "services/sermgr/delivery.h"

#include <array>
#include <memory>
#include <utility>

#include "platform/bus/frame.h"
#include "platform/bus/looper.h"

namespace sermgr {
namespace {

constexpr std::string_view serverProgram = "www";

// Of the broker's control messages; docs/bus-protocol.md.
constexpr tn::u32_id controlOperation{1};
constexpr tn::message_array_id listedPrograms{4};
constexpr tn::u32_id programId{2};
constexpr tn::string_id programName{3};

std::vector<std::uint32_t> serversAmong(const std::vector<tn::message>& programs) {
  std::vector<std::uint32_t> servers;
  for (const tn::message& program : programs) {
    const auto id = program.get(programId);
    if (id && program.get(programName) == serverProgram) servers.push_back(*id);
  }
  return servers;
}

// Two codes are those of an answer that never came.
ServerError errorOf(const tn::message& answer) {
  const std::uint32_t code = answer.get(tn::field::errorCode).value_or(0);
  return {code, tn::getError(answer), code == tn::error::timeout || code == tn::error::unreachable};
}

// One command on its way to several servers, kept alive by the callbacks of their answers.
struct Round {
  std::size_t awaited = 0;
  Outcome outcome;
  std::function<void(const Outcome&)> callback;

  void onAnswer(const tn::message& answer) {
    if (tn::isError(answer)) take(errorOf(answer));
    if (--awaited == 0) callback(outcome);
  }
  void take(ServerError failed) {
    if (outcome) {
      outcome->unheard = outcome->unheard || failed.unheard;
    } else {
      outcome = std::move(failed);
    }
  }
};

}  // namespace

void Delivery::findServers(std::function<void(const Found&)> callback) {
  tn::message request;
  request.insert(controlOperation, tn::control::list);
  tn::getLooper()->control(
      request,
      [callback = std::move(callback)](const tn::message& answer) {
        Found found;
        if (tn::isError(answer)) {
          found.failure = errorOf(answer);
          found.failure->unheard = true;
          found.failure->text.insert(0, "the bus does not answer: ");
        } else if (const auto programs = answer.get(listedPrograms)) {
          found.servers = serversAmong(*programs);
        }
        callback(found);
      },
      findMs);
}

void Delivery::deliver(std::span<const std::uint32_t> servers, const tn::message& command,
                       std::function<void(const Outcome&)> callback) {
  if (servers.empty()) {
    callback(ServerError{tn::error::noSuchService, "no server is running"});
    return;
  }
  const auto round = std::make_shared<Round>();
  round->awaited = servers.size();
  round->callback = std::move(callback);
  for (const std::uint32_t server : servers) {
    tn::message copy = command;
    copy.insert_vector(tn::field::destination, std::array{server, serverHandler});
    from_.postMessage(
        std::move(copy), [round](const tn::message& answer) { round->onAnswer(answer); }, answerMs);
  }
}

}  // namespace sermgr
