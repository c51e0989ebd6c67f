#include "services/userd/group_handler.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "platform/log.h"
#include "platform/policies.h"
#include "services/userd/fields.h"
#include "services/userd/permission.h"

namespace userd {
namespace {

constexpr std::array subjectKeys = {keyOf(field::name)};

Refusal notAllowed() {
  return {tn::error::notAllowed, "not allowed"};
}

Refusal bad(std::string_view why) {
  return {error::badRequest, std::string(why)};
}

}  // namespace

GroupHandler::Subject GroupHandler::subjectOf(const tn::message& msg) const {
  if (!may(msg, tn::policies::manageUsers, accounts_)) return std::unexpected(notAllowed());
  const auto number = msg.get(tn::field::objectNumber);
  const auto name = msg.get(field::name);
  if (!number && !name) {
    return std::unexpected(bad("a group's name (string 1) or number (u32 0xfe0001) is missing"));
  }
  const Group* const group = number ? accounts_.group(*number) : accounts_.groupNamed(*name);
  if (group == nullptr) return std::unexpected(Refusal{tn::error::noSuchService, "no such group"});
  return group;
}

tn::message GroupHandler::cmdGet(tn::message& msg) {
  if (const Problem problem = checkKnown(msg, subjectKeys)) return refuse(bad(*problem));
  const Subject subject = subjectOf(msg);
  return subject ? describe(**subject, accounts_) : refuse(subject.error());
}

tn::message GroupHandler::cmdGetAll(tn::message& msg) {
  if (!may(msg, tn::policies::manageUsers, accounts_)) return refuse(notAllowed());
  std::vector<const Group*> groups;
  for (const auto& [number, group] : accounts_.tables().groups)
    groups.push_back(&group);
  std::ranges::sort(groups, {}, &Group::name);
  std::vector<tn::message> described;
  described.reserve(groups.size());
  for (const Group* const group : groups)
    described.push_back(describe(*group, accounts_));
  tn::message answer;
  answer.insert_vector(field::all, described);
  return answer;
}

tn::message GroupHandler::cmdAddObj(tn::message& msg) {
  if (!may(msg, tn::policies::manageUsers, accounts_)) return refuse(notAllowed());
  if (!msg.has(field::name)) return refuse(bad("the name (string 1) is missing"));
  Group group;
  if (const Outcome refusal = applyGroupFields(group, msg)) return refuse(*refusal);
  const auto added = accounts_.addGroup(group);
  if (added) logLine("group ", group.name, ": added");
  return answerOf(added);
}

tn::message GroupHandler::cmdSetObj(tn::message& msg, std::uint32_t /*object*/) {
  const Subject subject = subjectOf(msg);
  if (!subject) return refuse(subject.error());
  Group changed = **subject;
  if (const Outcome refusal = applyGroupFields(changed, msg)) return refuse(*refusal);
  const Outcome outcome = accounts_.changeGroup(changed);
  if (!outcome) logLine("group ", changed.name, ": changed");
  return answerOf(outcome);
}

tn::message GroupHandler::cmdRemoveObj(tn::message& msg, std::uint32_t /*object*/) {
  if (const Problem problem = checkKnown(msg, subjectKeys)) return refuse(bad(*problem));
  const Subject subject = subjectOf(msg);
  if (!subject) return refuse(subject.error());
  const std::string name = (*subject)->name;
  const Outcome outcome = accounts_.removeGroup((*subject)->number);
  if (!outcome) logLine("group ", name, ": removed");
  return answerOf(outcome);
}

}  // namespace userd
