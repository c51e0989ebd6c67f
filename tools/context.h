#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tools/bus.h"
#include "tools/names.h"
#include "tools/output.h"
#include "tools/verb.h"

namespace tool {

// What a verb has: its arguments, the output, and the bus once it asks for it.
class Context {
 public:
  // All outlive the context. Without a looper the context makes one of its own when the bus is wanted.
  Context(const Arguments& arguments, Output& output, tn::Looper* looper = nullptr);
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  [[nodiscard]] const Arguments& arguments() const { return arguments_; }
  [[nodiscard]] std::string_view operand(std::size_t index) const { return arguments_.operands[index]; }
  [[nodiscard]] std::size_t operandCount() const { return arguments_.operands.size(); }
  [[nodiscard]] Output& output() { return output_; }

  // The bus, joined; null: it cannot be reached, and that has been told. With `catchesSignals` a signal ends a wait
  // instead of the program.
  [[nodiscard]] Bus* bus(bool catchesSignals = false);

  // The answer of a known handler; of one whose program has no fixed id, of the first program of that name.
  [[nodiscard]] tn::message ask(const HandlerShape& handler, std::uint32_t command, tn::message fields = {});
  // Puts the id of a program that was given by a name which is not fixed into the path. False: `error` says why not.
  [[nodiscard]] bool resolve(PathText& path, tn::message& error);

  // Each tells what is wrong, and returns the status to end with.
  ExitStatus fail(ExitStatus status, std::string_view error);
  ExitStatus failUsage(std::string_view error) { return fail(ExitStatus::usage, error); }
  ExitStatus fail(const tn::message& answer);

 private:
  const Arguments& arguments_;
  Output& output_;
  tn::Looper* looper_;
  std::unique_ptr<tn::Looper> ownLooper_;
  std::unique_ptr<Bus> bus_;
};

// "error 0xfe0006: no such service".
[[nodiscard]] std::string errorText(const tn::message& answer);

}  // namespace tool
