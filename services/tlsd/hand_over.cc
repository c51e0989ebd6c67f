#include "services/tlsd/hand_over.h"

#include <utility>

#include "platform/bus/looper.h"
#include "services/common/return_address.h"
#include "services/tlsd/errors.h"

namespace tlsd {
namespace {

// Fields of the request. The reference in u32 2 names a certificate; there is one, which serves for all.
constexpr tn::bool_id asServer{1};

}  // namespace

void HandOver::handleCmd(tn::message& msg) {
  if (msg.get(tn::field::command) == command) return take(msg);
  Handler::handleCmd(msg);
}

void HandOver::take(tn::message& msg) {
  UniqueFd socket = takeDescriptor(msg);
  if (!socket) return replyError(msg, error::badRequest, "no descriptor came with the request");
  if (!msg.get(asServer).value_or(false)) return replyError(msg, error::badRequest, "b1 has to be true");
  sessions_.add(
      keeper_.context(), std::move(socket),
      [this, address = service::returnAddress(msg)](Session::Outcome outcome) { answer(address, std::move(outcome)); });
}

void HandOver::answer(const tn::message& address, Session::Outcome outcome) {
  if (!outcome.plain) return replyError(address, error::handshakeFailed, outcome.error);
  tn::message answer;
  answer.insert(tn::field::descriptor, static_cast<std::uint32_t>(outcome.plain.release()));
  reply(address, std::move(answer));
}

}  // namespace tlsd
