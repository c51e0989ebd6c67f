#include "services/supervisor/enquiry.h"

#include <array>
#include <utility>

#include "platform/bus/frame.h"

namespace tnrun {
namespace {

// Longer than anybody's patience: who answers later than this was killed long before.
constexpr std::uint32_t answerMs = 30'000;

// Fields of a control message.
constexpr tn::u32_id operationField{1};
constexpr tn::u32_id idField{2};
constexpr tn::string_id nameField{3};
constexpr tn::message_array_id programsField{4};
constexpr tn::u64_id framesSent{5};
constexpr tn::u64_id bytesSent{6};
constexpr tn::u64_id bounced{7};
constexpr tn::u64_id bytesQueued{10};
constexpr tn::u64_id framesReceived{12};
constexpr tn::u64_id bytesReceived{13};

BusFigures figuresOf(const tn::message& member, std::uint32_t id) {
  const auto count = [&member](tn::u64_id field) { return member.get(field).value_or(0); };
  return {id,
          count(framesSent),
          count(bytesSent),
          count(bounced),
          count(bytesQueued),
          count(framesReceived),
          count(bytesReceived)};
}

// An error that the bus itself made up is no word of the program.
bool isAnswer(const tn::message& reply) {
  const auto code = reply.get(tn::field::errorCode);
  return code != tn::error::timeout && code != tn::error::unreachable;
}

}  // namespace

BusEnquiry::BusEnquiry(tn::Looper& looper, const std::vector<Program>& programs, std::size_t broker)
    : looper_(looper), programs_(programs), broker_(broker), questions_(programs.size()), figures_(programs.size()) {}

BusEnquiry::~BusEnquiry() {
  for (const Question& question : questions_)
    looper_.cancelPost(question.post);
}

void BusEnquiry::ask(const Answered& answered) {
  if (std::exchange(asked_, true)) return;
  tn::message request;
  request.insert(operationField, tn::control::statistics);
  const auto onReply = [this, answered](const tn::message& statistics) {
    asked_ = false;
    figures_.assign(programs_.size(), BusFigures());
    if (!tn::isError(statistics)) onStatistics(statistics, answered);
  };
  looper_.control(request, onReply, answerMs);
}

void BusEnquiry::onStatistics(const tn::message& statistics, const Answered& answered) {
  answered(broker_);
  for (const tn::message& member : statistics.get(programsField).value_or(std::vector<tn::message>())) {
    const auto id = member.get(idField);
    const auto name = member.get(nameField);
    if (!id || !name) continue;
    for (std::size_t i = 0; i < programs_.size(); ++i) {
      if (i == broker_ || programs_[i].name != *name) continue;
      figures_[i] = figuresOf(member, *id);
      put(i, *id, answered);
    }
  }
}

void BusEnquiry::put(std::size_t program, std::uint32_t id, const Answered& answered) {
  Question& question = questions_[program];
  if (question.post != 0) {
    if (question.id == id) return;
    looper_.cancelPost(std::exchange(question.post, 0));
  }
  tn::message message;
  message.insert_vector(tn::field::destination, std::array{id});
  message.insert(tn::field::command, tn::command::getPolicies);
  const auto onReply = [this, program, answered](const tn::message& reply) {
    questions_[program].post = 0;
    if (isAnswer(reply)) answered(program);
  };
  question.id = id;
  question.post = looper_.postMessage(std::move(message), onReply, answerMs);
}

}  // namespace tnrun
