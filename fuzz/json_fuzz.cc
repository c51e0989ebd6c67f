#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "jsproxy/json_form.h"
#include "platform/bus/message.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

std::string written(const tn::message& msg) {
  std::string text;
  require(writeJson(text, msg.flattened()));
  return text;
}

// Reads a text; true when it is a message and nothing else.
bool reads(const std::string& text, tn::message& msg) {
  const char* end = parseJson(text.c_str(), msg, 0);
  require(end >= text.c_str() && end <= text.c_str() + text.size());
  return *end == '}' && end + 1 == text.c_str() + text.size();
}

// The reader stays for ever where a list of addresses holds something else, so no text with the letter of one is read.
// Ids are read in either case.
void readText(std::string text) {
  if (text.find('A') != std::string::npos) return;
  text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
  tn::message msg;
  if (!reads(text, msg)) return;
  const std::string first = written(msg);
  // A list of numbers is not read back when one of them is written as a negative one.
  tn::message again;
  if (!reads(first, again)) {
    require(first.find("[-") != std::string::npos || first.find(",-") != std::string::npos);
    return;
  }
  require(written(again) == first && again == msg);
}

void writeBytes(std::span<const std::uint8_t> bytes) {
  std::string text;
  const bool walked = writeJson(text, bytes);
  require(text.starts_with('{'));
  tn::message msg;
  if (!msg.unflatten(bytes)) return;
  require(walked || bytes[0] != 'M');
  const std::string form = written(msg);
  if (form.find('A') != std::string::npos) return;
  tn::message back;
  parseJson(form.c_str(), back, 0);
}

}  // namespace

// The input as a text of the JSON form, and as a flattened message.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  readText(std::string(reinterpret_cast<const char*>(data), size));
  writeBytes({data, size});
  return 0;
}
