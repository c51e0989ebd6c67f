#include "services/userd/fields.h"

#include <array>
#include <utility>

#include "platform/bus/looper.h"
#include "services/userd/password.h"

namespace userd {
namespace {

// The policies of a user may stand in a command, so that one that was listed can be given back as it is.
constexpr std::array userKeys = {keyOf(field::name),   keyOf(field::fullName), keyOf(field::groupName),
                                 keyOf(field::hidden), keyOf(field::policies), keyOf(field::password)};
constexpr std::array groupKeys = {keyOf(field::name), keyOf(field::policies), keyOf(field::skin),
                                  keyOf(field::userCount)};

Refusal bad(std::string why) {
  return {error::badRequest, std::move(why)};
}

// Takes a text of a command where it is given; what is wrong with it otherwise.
Problem take(const tn::message& command, tn::string_id id, std::string& value, Problem (*check)(std::string_view)) {
  const auto given = command.get(id);
  if (!given) return std::nullopt;
  Problem problem = check(*given);
  if (!problem) value = *given;
  return problem;
}

}  // namespace

std::optional<Secret> takePassword(tn::message& msg, tn::string_id id) {
  const auto text = msg.get(id);
  if (!text) return std::nullopt;
  Secret password = acceptedPassword(*text).value_or(Secret());
  // A value of the same length is put where the old one stands.
  const std::string nothing(text->size(), '\0');
  msg.insert(id, nothing);
  return password;
}

Outcome applyUserFields(User& user, const tn::message& command, const Accounts& accounts) {
  if (Problem problem = checkKnown(command, userKeys)) return bad(std::move(*problem));
  User changed = user;
  Problem problem = take(command, field::name, changed.name, checkName);
  if (!problem) problem = take(command, field::fullName, changed.fullName, checkFullName);
  if (problem) return bad(std::move(*problem));
  if (const auto name = command.get(field::groupName)) {
    const Group* const group = accounts.groupNamed(*name);
    if (group == nullptr) return Refusal{tn::error::noSuchService, "no such group"};
    changed.group = group->number;
  }
  changed.hidden = command.get(field::hidden).value_or(changed.hidden);
  changed.disabled = command.get(tn::field::disabled).value_or(changed.disabled);
  user = std::move(changed);
  return std::nullopt;
}

Outcome applyGroupFields(Group& group, const tn::message& command) {
  if (Problem problem = checkKnown(command, groupKeys)) return bad(std::move(*problem));
  Group changed = group;
  Problem problem = take(command, field::name, changed.name, checkName);
  if (!problem) problem = take(command, field::skin, changed.skin, checkSkin);
  if (problem) return bad(std::move(*problem));
  changed.policies = command.get(field::policies).value_or(changed.policies);
  group = std::move(changed);
  return std::nullopt;
}

tn::message describe(const User& user, const Accounts& accounts) {
  const Group& group = accounts.groupOf(user);
  tn::message msg;
  msg.insert(tn::field::objectNumber, user.number);
  msg.insert(field::name, user.name);
  msg.insert(field::fullName, user.fullName);
  msg.insert(field::groupName, group.name);
  msg.insert(field::hidden, user.hidden);
  msg.insert(tn::field::disabled, user.disabled);
  msg.insert(field::policies, group.policies);
  return msg;
}

tn::message describe(const Group& group, const Accounts& accounts) {
  tn::message msg;
  msg.insert(tn::field::objectNumber, group.number);
  msg.insert(field::name, group.name);
  msg.insert(field::policies, group.policies);
  msg.insert(field::skin, group.skin);
  msg.insert(field::userCount, static_cast<std::uint32_t>(accounts.usersIn(group.number)));
  return msg;
}

tn::message refuse(const Refusal& refusal) {
  return tn::errorMsg(refusal.code, refusal.text);
}

tn::message answerOf(const Outcome& outcome) {
  return outcome ? refuse(*outcome) : tn::message();
}

tn::message answerOf(const std::expected<std::uint32_t, Refusal>& added) {
  if (!added) return refuse(added.error());
  tn::message answer;
  answer.insert(tn::field::objectNumber, *added);
  return answer;
}

}  // namespace userd
