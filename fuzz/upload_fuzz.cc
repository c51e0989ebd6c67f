#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "jsproxy/upload.h"

namespace {

using Result = Upload::Result;

// What became of a body.
struct Outcome {
  Result result = Result::more;
  bool opened = false;
  bool closed = false;
  std::string name;
  std::string content;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

// Keeps what it is given; names that begin with "!" are refused, and so is what comes behind some thousand bytes.
class Target : public UploadTarget {
 public:
  static constexpr std::size_t room = 2000;

  explicit Target(Outcome& outcome) : outcome_(outcome) {}
  void onHeaders(const Headers& headers) override { headers_ = headers.size(); }
  bool open(std::string_view name) override {
    require(!outcome_.opened && !name.empty() && name.find('\\') == std::string_view::npos);
    outcome_.opened = true;
    outcome_.name = name;
    return !name.starts_with('!');
  }
  bool write(std::string_view bytes) override {
    require(outcome_.opened && !outcome_.closed && !bytes.empty());
    outcome_.content += bytes;
    return outcome_.content.size() <= room;
  }
  bool close() override {
    require(outcome_.opened && !outcome_.closed);
    outcome_.closed = true;
    return true;
  }

 private:
  Outcome& outcome_;
  std::size_t headers_ = 0;
};

Outcome take(std::string_view boundary, std::string_view body, std::size_t pieceBytes) {
  Outcome outcome;
  Target target(outcome);
  Upload upload(boundary, target);
  while (!body.empty() && outcome.result == Result::more) {
    outcome.result = upload.take(body.substr(0, pieceBytes));
    body.remove_prefix(std::min(pieceBytes, body.size()));
  }
  require((upload.phase() == Upload::Phase::ended) == (outcome.result != Result::more));
  require(outcome.closed == (outcome.result == Result::complete));
  return outcome;
}

// The file that the bytes behind the head give, looked at one by one.
std::string fileByBytes(std::string_view data, std::string_view delimiter, bool& complete) {
  std::string file;
  std::size_t matched = 0;
  complete = false;
  for (const char c : data) {
    if (c == delimiter[matched]) {
      complete = ++matched == delimiter.size();
      if (complete) break;
      continue;
    }
    file += delimiter.substr(0, matched);
    matched = 0;
    file += c;
  }
  return file;
}

std::size_t headEnd(std::string_view body) {
  std::size_t begin = body.find('\n') + 1;
  while (true) {
    const std::size_t end = body.find('\n', begin);
    const std::string_view line = body.substr(begin, end - begin);
    begin = end + 1;
    if (line.empty() || line == "\r") return begin;
  }
}

void requireRight(const Outcome& outcome, std::string_view boundary, std::string_view body) {
  if (!outcome.opened || outcome.result == Result::refused) return;
  bool complete = false;
  const std::string file = fileByBytes(body.substr(headEnd(body)), "\r\n--" + std::string(boundary), complete);
  if (outcome.result == Result::failed) {
    require(file.size() > Target::room);
  } else {
    require(outcome.content == file && (outcome.result == Result::complete) == complete);
  }
}

}  // namespace

// A body behind a first byte that says in pieces of which length it arrives and one that says how long its boundary is:
// however it is cut, it gives the same file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t pieceBytes = std::max<std::size_t>(data[0], 1);
  std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
  const std::string_view boundary = rest.substr(0, data[1]);
  rest.remove_prefix(boundary.size());
  const Outcome whole = take(boundary, rest, SIZE_MAX);
  requireRight(whole, boundary, rest);
  Outcome inPieces = take(boundary, rest, pieceBytes);
  // How much of a file was written when the room ended depends on the pieces.
  if (whole.result == Result::failed || inPieces.result == Result::failed) {
    require(inPieces.opened && whole.name == inPieces.name);
    return 0;
  }
  require(inPieces == whole);
  return 0;
}
