#include "services/supervisor/log_handler.h"

#include "platform/bus/looper.h"
#include "platform/policies.h"

namespace tnrun {
namespace {

constexpr std::uint32_t badRequest = 0xfe0010;

// Of the request, besides what asks for the newest of anything:
constexpr tn::string_id containingField{3};
constexpr tn::string_id wantedProgramField{4};

// Of each line:
constexpr tn::u64_id numberField{1};
constexpr tn::u64_id timeField{2};
constexpr tn::string_id programField{3};
constexpr tn::string_id textField{4};
constexpr tn::bool_id errorsField{5};

tn::message describe(const Journal::Line& line) {
  tn::message entry;
  entry.insert(numberField, line.number);
  entry.insert(timeField, line.time);
  entry.insert(programField, line.program);
  entry.insert(textField, line.text);
  entry.insert(errorsField, line.stream == Stream::errors);
  return entry;
}

}  // namespace

tn::message LogHandler::cmdGetAll(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings)) {
    return tn::errorMsg(tn::error::notAllowed, "not allowed");
  }
  const std::uint32_t most = msg.get(service::mostField).value_or(usualLines);
  if (most < 1 || most > mostLines) return tn::errorMsg(badRequest, "an answer (u32 2) has 1 to 500 lines");
  Journal::Query query;
  query.after = msg.get(service::afterField).value_or(0);
  query.most = most;
  query.mostBytes = mostBytes;
  query.containing = msg.get(containingField).value_or(std::string_view());
  query.program = msg.get(wantedProgramField).value_or(std::string_view());
  return service::newestMessage(journal_.find(query), describe);
}

}  // namespace tnrun
