#include "services/supervisor/log_keeper.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

#include "services/common/clock.h"

namespace tnrun {
namespace {

constexpr std::size_t readBytes = 64U << 10U;
// What is read of a pipe in a row at the most: somebody who writes without end holds nobody else up.
constexpr int maxReads = 32;

}  // namespace

LogKeeper::LogKeeper(tn::ThinRunner& runner, const std::vector<Program>& programs, Journal& journal, Outlet& output,
                     Outlet& errors)
    : runner_(runner),
      programs_(programs),
      journal_(journal),
      output_(output),
      errors_(errors),
      buffer_(readBytes),
      seats_(programs.size()) {
  for (std::size_t i = 0; i < seats_.size(); ++i) {
    for (const Stream stream : {Stream::output, Stream::errors})
      pipeOf(i, stream).rest.setCallback([this, i, stream] { listen(i, stream); });
  }
}

LogKeeper::~LogKeeper() {
  for (const Seat& seat : seats_) {
    runner_.removeSocket(seat.output.fd.get());
    runner_.removeSocket(seat.errors.fd.get());
  }
}

void LogKeeper::began(std::size_t program, UniqueFd output, UniqueFd errors) {
  Seat& seat = seats_[program];
  seat.output.fd = std::move(output);
  seat.errors.fd = std::move(errors);
  listen(program, Stream::output);
  listen(program, Stream::errors);
}

void LogKeeper::listen(std::size_t program, Stream stream) {
  Pipe& pipe = pipeOf(program, stream);
  if (pipe.watched ? !runner_.changeSocket(pipe.fd.get(), tn::readable) : !watch(program, stream)) {
    pipe.rest.start(runner_.timers(), restMs);
  }
}

bool LogKeeper::watch(std::size_t program, Stream stream) {
  const auto onEvent = [this, program, stream](int, unsigned) {
    return stream == Stream::output ? onOutput(program) : onErrors(program);
  };
  Pipe& pipe = pipeOf(program, stream);
  pipe.watched = runner_.addSocket(pipe.fd.get(), tn::readable, onEvent);
  return pipe.watched;
}

void LogKeeper::onOutput(std::size_t program) {
  if (take(program, Stream::output) != Got::all) return;
  Seat& seat = seats_[program];
  runner_.changeSocket(seat.output.fd.get(), 0);
  seat.output.rest.start(runner_.timers(), restMs);
}

void LogKeeper::onErrors(std::size_t program) {
  takeAll(program, Stream::output);
  take(program, Stream::errors);
}

// What the program left behind may hold the other ends of its pipes, but has been killed.
void LogKeeper::ended(std::size_t program) {
  for (const Stream stream : {Stream::output, Stream::errors}) {
    const Pipe& pipe = pipeOf(program, stream);
    if (pipe.fd && !pipe.watched) listen(program, stream);
    takeAll(program, stream);
    if (pipe.fd) close(program, stream);
  }
}

void LogKeeper::takeAll(std::size_t program, Stream stream) {
  for (int reads = 0; reads < maxReads && take(program, stream) == Got::some; ++reads) {
  }
}

// One read. All: the pipe is empty now; some: there may be more; end: it is closed.
LogKeeper::Got LogKeeper::take(std::size_t program, Stream stream) {
  Pipe& pipe = pipeOf(program, stream);
  if (!pipe.fd || !pipe.watched) return Got::end;
  const ssize_t count = read(pipe.fd.get(), buffer_.data(), buffer_.size());
  if (count < 0 && errno == EINTR) return Got::some;
  if (count < 0 && errno == EAGAIN) return Got::all;
  if (count <= 0) {
    close(program, stream);
    return Got::end;
  }
  std::string passed;
  const std::string_view bytes(buffer_.data(), static_cast<std::size_t>(count));
  pipe.cutter.feed(bytes, [&](const LineCutter::Piece& piece) { note(program, stream, piece, passed); });
  if (!passed.empty()) output_.write(passed);
  return bytes.size() < buffer_.size() ? Got::all : Got::some;
}

void LogKeeper::close(std::size_t program, Stream stream) {
  Pipe& pipe = pipeOf(program, stream);
  std::string passed;
  pipe.cutter.finish([&](const LineCutter::Piece& piece) { note(program, stream, piece, passed); });
  if (!passed.empty()) output_.write(passed);
  pipe.rest.cancel();
  runner_.removeSocket(pipe.fd.get());
  pipe.watched = false;
  pipe.fd.reset();
}

void LogKeeper::note(std::size_t program, Stream stream, const LineCutter::Piece& piece, std::string& passed) {
  passed += piece.text;
  if (piece.ends) passed += '\n';
  if (piece.begins) journal_.add(programs_[program].name, stream, piece.text, service::calendarMs());
}

void LogKeeper::say(Stream stream, std::string_view line) {
  journal_.add(ownName, stream, line, service::calendarMs());
  (stream == Stream::output ? output_ : errors_).write(std::string(line) + '\n');
}

LogKeeper::Pipe& LogKeeper::pipeOf(std::size_t program, Stream stream) {
  Seat& seat = seats_[program];
  return stream == Stream::output ? seat.output : seat.errors;
}

}  // namespace tnrun
