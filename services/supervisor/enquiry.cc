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
constexpr tn::message_array_id listField{4};

// An error that the bus itself made up is no word of the program.
bool isAnswer(const tn::message& reply) {
  const auto code = reply.get(tn::field::errorCode);
  return code != tn::error::timeout && code != tn::error::unreachable;
}

}  // namespace

BusEnquiry::BusEnquiry(tn::Looper& looper, const std::vector<Program>& programs, std::size_t broker)
    : looper_(looper), programs_(programs), broker_(broker), questions_(programs.size()) {}

BusEnquiry::~BusEnquiry() {
  for (const Question& question : questions_)
    looper_.cancelPost(question.post);
}

void BusEnquiry::ask(const Answered& answered) {
  if (std::exchange(listAsked_, true)) return;
  tn::message request;
  request.insert(operationField, tn::control::list);
  const auto onReply = [this, answered](const tn::message& list) {
    listAsked_ = false;
    if (!tn::isError(list)) onList(list, answered);
  };
  looper_.control(request, onReply, answerMs);
}

void BusEnquiry::onList(const tn::message& list, const Answered& answered) {
  answered(broker_);
  for (const tn::message& member : list.get(listField).value_or(std::vector<tn::message>())) {
    const auto id = member.get(idField);
    const auto name = member.get(nameField);
    if (!id || !name) continue;
    for (std::size_t i = 0; i < programs_.size(); ++i) {
      if (i != broker_ && programs_[i].name == *name) put(i, *id, answered);
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
