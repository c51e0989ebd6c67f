#include "services/supervisor/program_handler.h"

#include "platform/bus/looper.h"
#include "platform/policies.h"

namespace tnrun {
namespace {

constexpr tn::message_array_id programsField{1};

// Of each program:
constexpr tn::string_id nameField{1};
constexpr tn::u32_id idField{2};
constexpr tn::u32_id pidField{3};
constexpr tn::u32_id startedAgainField{4};
constexpr tn::u64_id runningField{5};
constexpr tn::bool_id answersField{6};
// There while the program is on the bus:
constexpr tn::u64_id framesSentField{7};
constexpr tn::u64_id bytesSentField{8};
constexpr tn::u64_id bouncedField{9};
constexpr tn::u64_id bytesQueuedField{0xa};
constexpr tn::u64_id framesReceivedField{0xb};
constexpr tn::u64_id bytesReceivedField{0xc};

tn::message describe(const Program& program, const Supervisor::Condition& condition, const BusFigures& figures) {
  tn::message entry;
  entry.insert(nameField, program.name);
  entry.insert(idField, figures.id);
  entry.insert(pidField, static_cast<std::uint32_t>(condition.pid));
  entry.insert(startedAgainField, condition.startedAgain);
  entry.insert(runningField, condition.runningMs);
  entry.insert(answersField, condition.answers);
  if (figures.id == 0) return entry;
  entry.insert(framesSentField, figures.framesSent);
  entry.insert(bytesSentField, figures.bytesSent);
  entry.insert(bouncedField, figures.bounced);
  entry.insert(bytesQueuedField, figures.bytesQueued);
  entry.insert(framesReceivedField, figures.framesReceived);
  entry.insert(bytesReceivedField, figures.bytesReceived);
  return entry;
}

}  // namespace

tn::message ProgramHandler::cmdGet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
  std::vector<tn::message> entries;
  for (std::size_t i = 0; i < programs_.size(); ++i)
    entries.push_back(describe(programs_[i], supervisor_.condition(i), enquiry_.figures(i)));
  tn::message answer;
  answer.insert_vector(programsField, entries);
  return answer;
}

}  // namespace tnrun
