#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/bus/looper.h"
#include "services/supervisor/program_list.h"

namespace tnrun {

// How the supervisor learns which programs still turn. Tests answer by hand.
class Enquiry {
 public:
  // Called with the index of a program that answered.
  using Answered = std::function<void(std::size_t program)>;

  Enquiry() = default;
  Enquiry(const Enquiry&) = delete;
  Enquiry& operator=(const Enquiry&) = delete;
  virtual ~Enquiry() = default;

  // Asks everybody; `answered` runs from the loop, for each program at the most once, also after the next call when the
  // answer comes late.
  virtual void ask(const Answered& answered) = 0;
};

// What the broker has counted of a program (docs/bus-protocol.md).
struct BusFigures {
  std::uint32_t id = 0;  // 0: it is not on the bus
  std::uint64_t framesSent = 0;
  std::uint64_t bytesSent = 0;
  std::uint64_t bounced = 0;
  std::uint64_t bytesQueued = 0;
  std::uint64_t framesReceived = 0;
  std::uint64_t bytesReceived = 0;
};

// Asks over the bus. The broker is asked for its statistics; then every program that they name is sent a message to its
// looper (handler 0), and whatever it answers, an error included, proves that its loop turns. Whoever has not answered
// yet is not asked again.
//
// The looper connects and joins anew whenever it has lost the broker, and there are no statistics before that: so a
// broker that does not take programs any more counts as silent too.
class BusEnquiry : public Enquiry {
 public:
  // `programs`, with the broker at index `broker`, and the looper must outlive this.
  BusEnquiry(tn::Looper& looper, const std::vector<Program>& programs, std::size_t broker);
  ~BusEnquiry() override;

  void ask(const Answered& answered) override;

  // As the broker told it last.
  [[nodiscard]] const BusFigures& figures(std::size_t program) const { return figures_[program]; }

 private:
  struct Question {
    tn::PostId post = 0;   // 0: none on its way
    std::uint32_t id = 0;  // whom it went to
  };

  void onStatistics(const tn::message& statistics, const Answered& answered);
  void put(std::size_t program, std::uint32_t id, const Answered& answered);

  tn::Looper& looper_;
  const std::vector<Program>& programs_;
  std::size_t broker_;
  bool asked_ = false;               // the broker was asked and has not answered
  std::vector<Question> questions_;  // both by index of the program
  std::vector<BusFigures> figures_;
};

}  // namespace tnrun
