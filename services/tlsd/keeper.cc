#include "services/tlsd/keeper.h"

#include <utility>

#include "platform/log.h"
#include "services/tlsd/self_signed.h"

namespace tlsd {

Keeper::Keeper(PairStore store, std::string hostName, bool offload, tn::TimerQueue& timers, Clock clock)
    : store_(std::move(store)),
      hostName_(std::move(hostName)),
      offload_(offload),
      timers_(timers),
      clock_(std::move(clock)),
      looks_([this] { look(); }),
      cares_([this] { care(); }) {}

void Keeper::start() {
  store_.recover();
  seen_ = store_.look();
  if (store_.isEmpty()) {
    if (const auto refusal = installOwn()) {
      logLine("certificate: ", refusal->text);
      trouble_ = refusal->text;
    }
  } else if (const Failure failure = useFiles()) {
    logLine("certificate: ", *failure, "; the files are left as they are");
  }
  if (!context_) useTemporary();
  if (ownHasEnded()) care();
  looks_.start(timers_, lookMs);
  cares_.start(timers_, careMs);
}

std::optional<Keeper::Refusal> Keeper::install(const PemPair& pair) {
  const auto identity = Identity::parse(pair);
  if (!identity) return Refusal{Refusal::Kind::unusable, identity.error()};
  Facts facts = identity->describe();
  if (facts.notAfter < clock_()) return Refusal{Refusal::Kind::unusable, "the certificate has expired"};
  auto context = makeContext(*identity, offload_);
  if (!context) return Refusal{Refusal::Kind::unusable, context.error()};
  if (auto failure = store_.save(pair)) {
    return Refusal{Refusal::Kind::notStored, "cannot store the certificate: " + *failure};
  }
  used_ = seen_ = store_.look();
  trouble_.clear();
  adopt(std::move(*context), std::move(facts), Source::files);
  return std::nullopt;
}

std::optional<Keeper::Refusal> Keeper::installOwn() {
  const auto pair = makeSelfSigned(hostName_, clock_());
  if (!pair) return Refusal{Refusal::Kind::unusable, pair.error()};
  return install(*pair);
}

Keeper::Failure Keeper::reload() {
  seen_ = store_.look();
  Failure failure = useFiles();
  if (failure) logLine("certificate: ", *failure, "; the one in use stays");
  return failure;
}

// As reload(); what was told before is not told at each look.
void Keeper::tryAgain() {
  const std::string before = trouble_;
  const Failure failure = useFiles();
  if (failure && *failure != before) logLine("certificate: ", *failure, "; the one in use stays");
}

// Files that were changed a moment ago may be changed again: a pair is copied in two steps.
void Keeper::look() {
  const PairStore::Marks now = store_.look();
  if (now != used_ && now == seen_) tryAgain();
  seen_ = now;
  looks_.start(timers_, lookMs);
}

// A machine that did not know the time when it made its certificate finds it ended as soon as it does.
void Keeper::care() {
  if (ownHasEnded()) {
    logLine("certificate: this machine's own one is past its dates or nearly so, making another");
    if (const auto refusal = installOwn()) logLine("certificate: ", refusal->text);
  }
  if (context_) renewTicketKeys(*context_);
  cares_.start(timers_, careMs);
}

bool Keeper::ownHasEnded() const {
  if (source_ != Source::files || !facts_.ownMake) return false;
  const std::int64_t now = clock_();
  return now < facts_.notBefore || now > facts_.notAfter - renewSeconds;
}

// The marks are those of before the reading: what is written meanwhile is seen at the next look. So is what cannot be
// read now.
Keeper::Failure Keeper::useFiles() {
  used_ = seen_;
  const auto pair = store_.load();
  if (!pair) used_ = {};
  Failure failure = pair ? use(*pair, Source::files) : Failure(pair.error());
  trouble_ = failure.value_or(std::string());
  if (!failure) warn();
  return failure;
}

void Keeper::useTemporary() {
  const auto pair = makeSelfSigned(hostName_, clock_());
  const Failure failure = pair ? use(*pair, Source::temporary) : Failure(pair.error());
  if (failure) logLine("certificate: ", *failure);
}

Keeper::Failure Keeper::use(const PemPair& pair, Source source) {
  const auto identity = Identity::parse(pair);
  if (!identity) return identity.error();
  auto context = makeContext(*identity, offload_);
  if (!context) return context.error();
  adopt(std::move(*context), identity->describe(), source);
  return std::nullopt;
}

void Keeper::adopt(Owned<SSL_CTX> context, Facts facts, Source source) {
  context_ = std::move(context);
  facts_ = std::move(facts);
  source_ = source;
  logLine("certificate: using ", source == Source::temporary ? "a temporary one, " : "", facts_.subject, ", SHA-256 ",
          facts_.fingerprint);
}

void Keeper::warn() const {
  const std::int64_t now = clock_();
  if (now > facts_.notAfter) logLine("certificate: it has expired; browsers will not take it");
  if (now < facts_.notBefore) logLine("certificate: it is not valid yet, or the clock is wrong");
  if (store_.keyIsOpen()) logLine("certificate: the key's file can be read by others than its owner");
}

}  // namespace tlsd
