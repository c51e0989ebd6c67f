#include "tools/context.h"

#include <array>

#include "platform/log.h"
#include "tools/reach.h"

namespace tool {

namespace {

std::string absent(std::string_view program) {
  return std::string(program) + " is not on the bus";
}

}  // namespace

Context::Context(const Arguments& arguments, Output& output, tn::Looper* looper)
    : arguments_(arguments), output_(output), looper_(looper) {}

Context::~Context() = default;

Bus* Context::bus(bool catchesSignals) {
  if (bus_) return bus_.get();
  if (looper_ == nullptr) {
    if (const auto reason = whyUnreachable(tn::busSocketPath)) {
      fail(ExitStatus::unreachable, *reason);
      return nullptr;
    }
    tn::Looper::Tuning tuning{};
    tuning.stopSignals = catchesSignals ? 0 : 1;
    ownLooper_ = std::make_unique<tn::Looper>(tuning);
    looper_ = ownLooper_.get();
    looper_->setName("tn");
  }
  bus_ = std::make_unique<Bus>(*looper_, arguments_.timeoutMs);
  if (bus_->join()) return bus_.get();
  fail(ExitStatus::unreachable, std::string("cannot reach the bus at ") + tn::busSocketPath + ": no answer");
  bus_.reset();
  return nullptr;
}

bool Context::resolve(PathText& path, tn::message& error) {
  if (path.path[0] != 0 || path.program.empty()) return true;
  path.path[0] = bus_->find(path.program, error);
  return path.path[0] != 0;
}

tn::message Context::ask(const HandlerShape& handler, std::uint32_t command, tn::message fields) {
  std::array<std::uint32_t, 2> path{handler.programId, handler.handler};
  if (path[0] == 0) {
    tn::message error;
    path[0] = bus_->find(handler.program, error);
    if (path[0] == 0) return error;
  }
  tn::message answer = bus_->ask(path, command, std::move(fields));
  const bool isAbsent = answer.get(tn::field::errorCode) == tn::error::unreachable;
  if (isAbsent && !bus_->isLost()) return tn::errorMsg(tn::error::unreachable, absent(handler.program));
  return answer;
}

ExitStatus Context::fail(ExitStatus status, std::string_view error) {
  printError(error);
  return status;
}

ExitStatus Context::fail(const tn::message& answer) {
  return fail(statusOf(answer), errorText(answer));
}

std::string errorText(const tn::message& answer) {
  std::string out = "error 0x";
  out += NumberText(answer.get(tn::field::errorCode).value_or(0), 16);
  const std::string_view text = answer.get(tn::field::errorText).value_or(std::string_view());
  if (!text.empty()) out.append(": ").append(tn::printableText(text));
  return out;
}

}  // namespace tool
