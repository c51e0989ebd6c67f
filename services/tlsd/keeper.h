#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/bus/timer.h"
#include "services/tlsd/context.h"
#include "services/tlsd/identity.h"
#include "services/tlsd/pair_store.h"

namespace tlsd {

// Keeps the certificate that connections are made with, and the files that it comes from.
//
// At the start the files are read. Where there are none, a certificate is made and stored; where they cannot be used
// they are left alone and one is made that lives in memory only, so that the machine can be reached to mend them. From
// then on the files are looked at every second: when they have changed and stay as they are for one look more,
// they are read. A pair that cannot be used is refused with a line in the log, and what was in use stays in use.
//
// Connections that were made with an earlier certificate are not touched.
class Keeper {
 public:
  static constexpr std::uint32_t lookMs = 1000;
  static constexpr std::uint32_t careMs = 3'600'000;  // between new ticket keys, and looks at the dates
  // A certificate of one's own is replaced that long before it ends.
  static constexpr std::int64_t renewSeconds = 30 * std::int64_t{86'400};

  enum class Source : std::uint8_t {
    none,       // there is no certificate: not even one of one's own could be made
    files,      // what is in use is what the files hold
    temporary,  // a certificate in memory, since the files cannot be used or written
  };
  // What failed, in words; nothing on success.
  using Failure = std::optional<std::string>;
  struct Refusal {
    enum class Kind : std::uint8_t { unusable, notStored } kind;
    std::string text;
  };
  using Clock = std::function<std::int64_t()>;  // seconds since 1970

  // `offload`: whether the kernel's TLS is asked for. The queue must outlive the keeper.
  Keeper(PairStore store, std::string hostName, bool offload, tn::TimerQueue& timers, Clock clock);

  void start();
  // What new connections are made with; null without a certificate.
  [[nodiscard]] SSL_CTX* context() const { return context_.get(); }
  [[nodiscard]] const Facts& facts() const { return facts_; }
  [[nodiscard]] Source source() const { return source_; }
  // Why the files as they are now are not in use; empty when they are.
  [[nodiscard]] const std::string& trouble() const { return trouble_; }

  // Checks a pair, stores it, and uses it from now on. After a refusal nothing has changed.
  [[nodiscard]] std::optional<Refusal> install(const PemPair& pair);
  // The same with a new certificate of one's own.
  [[nodiscard]] std::optional<Refusal> installOwn();
  // Reads the files now.
  [[nodiscard]] Failure reload();

 private:
  void look();
  void tryAgain();
  void care();
  Failure useFiles();
  void useTemporary();
  Failure use(const PemPair& pair, Source source);
  void adopt(Owned<SSL_CTX> context, Facts facts, Source source);
  [[nodiscard]] bool ownHasEnded() const;
  void warn() const;

  const PairStore store_;
  const std::string hostName_;
  const bool offload_;
  tn::TimerQueue& timers_;
  const Clock clock_;
  tn::Timer looks_;
  tn::Timer cares_;
  Owned<SSL_CTX> context_;
  Facts facts_;
  Source source_ = Source::none;
  std::string trouble_;
  PairStore::Marks used_{};  // of the files that were read last, or found unusable
  PairStore::Marks seen_{};  // at the last look
};

}  // namespace tlsd
