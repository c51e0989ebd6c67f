#include "services/tlsd/management.h"

#include <optional>
#include <string>
#include <vector>

#include "platform/bus/looper.h"
#include "platform/policies.h"
#include "services/tlsd/errors.h"

namespace tlsd {
namespace {

// Of the request to set:
constexpr tn::string_id newCertificate{1};
constexpr tn::string_id newKey{2};

// Of the answer to get:
constexpr tn::string_id subject{1};
constexpr tn::string_id fingerprint{2};
constexpr tn::u64_id notBefore{3};
constexpr tn::u64_id notAfter{4};
constexpr tn::string_array_id names{5};
constexpr tn::string_id issuer{6};
constexpr tn::string_id source{7};
constexpr tn::string_id trouble{8};
constexpr tn::string_id certificate{9};
constexpr tn::string_id way{0x10};
constexpr tn::u32_id handshaking{0x11};
constexpr tn::u32_id relayedNow{0x12};
constexpr tn::u32_id closingNow{0x13};
constexpr tn::u64_id handedOver{0x14};
constexpr tn::u64_id offloaded{0x15};
constexpr tn::u64_id relayed{0x16};
constexpr tn::u64_id resumed{0x17};
constexpr tn::u64_id fromPeers{0x18};
constexpr tn::u64_id toPeers{0x19};
constexpr tn::message_array_id failures{0x1a};

constexpr tn::string_id failureKind{1};
constexpr tn::u64_id failureCount{2};

tn::message notAllowed() {
  return tn::errorMsg(tn::error::notAllowed, "not allowed");
}

std::string_view sourceName(Keeper::Source from) {
  switch (from) {
    case Keeper::Source::none:
      return "none";
    case Keeper::Source::files:
      return "files";
    case Keeper::Source::temporary:
      return "temporary";
  }
  return "";
}

void describeCertificate(const Keeper& keeper, tn::message& msg) {
  const Facts& facts = keeper.facts();
  msg.insert(source, sourceName(keeper.source()));
  if (!keeper.trouble().empty()) msg.insert(trouble, keeper.trouble());
  if (keeper.source() == Keeper::Source::none) return;
  msg.insert(subject, facts.subject);
  msg.insert(issuer, facts.issuer);
  msg.insert(fingerprint, facts.fingerprint);
  msg.insert(notBefore, static_cast<std::uint64_t>(facts.notBefore));
  msg.insert(notAfter, static_cast<std::uint64_t>(facts.notAfter));
  msg.insert_vector(names, facts.names);
  msg.insert(certificate, facts.pem);
}

void describeConnections(const Sessions& sessions, tn::message& msg) {
  const Counters& counters = sessions.counters();
  msg.insert(handshaking, static_cast<std::uint32_t>(sessions.handshakes()));
  msg.insert(relayedNow, static_cast<std::uint32_t>(sessions.relays()));
  msg.insert(closingNow, static_cast<std::uint32_t>(sessions.closing()));
  msg.insert(handedOver, counters.handedOver);
  msg.insert(offloaded, counters.offloaded);
  msg.insert(relayed, counters.relayed);
  msg.insert(resumed, counters.resumed);
  msg.insert(fromPeers, counters.fromPeers);
  msg.insert(toPeers, counters.toPeers);
  std::vector<tn::message> kinds;
  for (const Failure failure : allFailures) {
    tn::message& kind = kinds.emplace_back();
    kind.insert(failureKind, failureName(failure));
    kind.insert(failureCount, counters.of(failure));
  }
  msg.insert_vector(failures, kinds);
}

tn::message answerTo(const std::optional<Keeper::Refusal>& refusal) {
  if (!refusal) return {};
  const bool stored = refusal->kind == Keeper::Refusal::Kind::unusable;
  return tn::errorMsg(stored ? error::badRequest : error::notStored, refusal->text);
}

}  // namespace

tn::message Management::cmdGet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read)) return notAllowed();
  tn::message answer;
  describeCertificate(keeper_, answer);
  answer.insert(way, offload_ ? "kernel where it can, else relay" : "relay");
  describeConnections(sessions_, answer);
  return answer;
}

tn::message Management::cmdSet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings)) return notAllowed();
  const auto certificateText = msg.get(newCertificate);
  const auto keyText = msg.get(newKey);
  if (!certificateText) return tn::errorMsg(error::badRequest, "s1 has to be a certificate in PEM form");
  if (!keyText) return tn::errorMsg(error::badRequest, "s2 has to be a private key in PEM form");
  return answerTo(keeper_.install(PemPair(std::string(*certificateText), std::string(*keyText))));
}

tn::message Management::cmdReset(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings)) return notAllowed();
  return answerTo(keeper_.installOwn());
}

tn::message Management::cmdUnknown(tn::message& msg, std::uint32_t command) {
  if (command != reloadCommand) return Handler::cmdUnknown(msg, command);
  if (!tn::policies::holds(msg, tn::policies::changeSettings)) return notAllowed();
  if (const auto failure = keeper_.reload()) return tn::errorMsg(error::badRequest, *failure);
  return {};
}

}  // namespace tlsd
