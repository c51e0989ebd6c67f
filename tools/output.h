#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/bus/text.h"
#include "tools/arguments.h"
#include "tools/verb.h"

namespace tool {

// What the program prints for the one who reads it, a person at a terminal or another program.
class Output {
 public:
  struct Look {
    Form form = Form::readable;
    std::size_t width = 0;  // columns of the terminal; 0: no terminal, lines are as long as they need to be
    bool colours = false;
    bool quiet = false;
  };

  // The stream is not owned.
  Output(std::FILE* stream, const Look& look) : stream_(stream), look_(look) {}

  [[nodiscard]] Form form() const { return look_.form; }
  [[nodiscard]] bool isReadable() const { return look_.form == Form::readable; }
  [[nodiscard]] std::size_t width() const { return look_.width; }
  [[nodiscard]] bool colours() const { return look_.colours; }

  // Prints a text at once, unless the program is to be quiet. False: it could not be written, nor can anything else.
  bool print(std::string_view text);
  // Prints a message in the form that was asked for; the readable one is the tree.
  bool show(const tn::message& msg, const tn::FieldNames* names);

  [[nodiscard]] bool isBroken() const { return error_ != 0; }
  // Tells what went wrong with the output, if anything did: the status that the program ends with. A reader who has
  // read enough and closed the pipe is nothing to tell about.
  [[nodiscard]] ExitStatus finish(ExitStatus status) const;

 private:
  std::FILE* stream_;
  Look look_;
  int error_ = 0;  // errno of the first failure
};

// How standard output looks: a terminal has a width, and colours unless its user does not want any.
[[nodiscard]] Output::Look lookOf(int fd, const Arguments& arguments);

// Writes "tn: ", the error and a line end on standard error.
void printError(std::string_view error);

}  // namespace tool
