#pragma once

#include <cstddef>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/thin_runner.h"
#include "services/supervisor/journal.h"
#include "services/supervisor/line_cutter.h"
#include "services/supervisor/listener.h"
#include "services/supervisor/outlet.h"
#include "services/supervisor/program_list.h"

namespace tnrun {

// Reads what programs write, always and at once, passes it on as it is, whole lines together, and keeps the last of it
// in the journal. Both streams of a program go to standard output, where its log is looked for; what the supervisor has
// to say goes to the stream that it names.
//
// The lines of each stream stay in order. Of the two streams of a program, standard output is read first: a line of
// standard error comes behind all that was written before it, and perhaps behind a line that was written right after.
class LogKeeper : public Listener {
 public:
  // A pipe that was read empty is let be for so long, so that a program that writes line by line does not wake this one
  // for each. Its pipe holds much more than is written meanwhile. One that cannot be watched is tried again after as
  // long.
  static constexpr std::uint32_t restMs = 20;
  static constexpr std::string_view ownName = "tnrun";

  // All outlive this.
  LogKeeper(tn::ThinRunner& runner, const std::vector<Program>& programs, Journal& journal, Outlet& output,
            Outlet& errors);
  ~LogKeeper() override;

  void began(std::size_t program, UniqueFd output, UniqueFd errors) override;
  void ended(std::size_t program) override;
  void say(Stream stream, std::string_view line) override;

 private:
  enum class Got : std::uint8_t { all, some, end };
  struct Pipe {
    UniqueFd fd;  // none: it has ended
    LineCutter cutter;
    bool watched = false;  // and so never waits to be read
    tn::Timer rest;
  };
  struct Seat {
    Pipe output;
    Pipe errors;
  };

  void listen(std::size_t program, Stream stream);
  [[nodiscard]] bool watch(std::size_t program, Stream stream);
  void onOutput(std::size_t program);
  void onErrors(std::size_t program);
  Got take(std::size_t program, Stream stream);
  void takeAll(std::size_t program, Stream stream);
  void close(std::size_t program, Stream stream);
  void note(std::size_t program, Stream stream, const LineCutter::Piece& piece, std::string& passed);
  [[nodiscard]] Pipe& pipeOf(std::size_t program, Stream stream);

  tn::ThinRunner& runner_;
  const std::vector<Program>& programs_;
  Journal& journal_;
  Outlet& output_;
  Outlet& errors_;
  std::vector<char> buffer_;
  std::deque<Seat> seats_;  // by index of the program; timers do not move
};

}  // namespace tnrun
