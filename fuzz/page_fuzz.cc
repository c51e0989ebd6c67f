#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/require.h"
#include "platform/web/forwarding.h"
#include "services/hotspotd/form.h"
#include "services/hotspotd/forwarded.h"
#include "services/hotspotd/pages.h"

namespace {

std::string_view takeLine(std::string_view& rest) {
  const std::string_view line = rest.substr(0, rest.find('\n'));
  rest.remove_prefix(std::min(line.size() + 1, rest.size()));
  return line;
}

// The bytes that HTML takes specially, in order.
std::string marksOf(std::string_view text) {
  std::string marks;
  std::copy_if(text.begin(), text.end(), std::back_inserter(marks),
               [](char c) { return c == '<' || c == '>' || c == '"' || c == '\''; });
  return marks;
}

// Of the page for a plain request.
std::string plainMarks(bool hasHost, bool hasNotice) {
  hotspot::ForwardedRequest plain;
  plain.base = "/";
  plain.host = hasHost ? "host" : "";
  return marksOf(hotspot::loginPage("x", plain, hasNotice ? "notice" : "").body);
}

const std::string& knownPlainMarks(bool hasHost, bool hasNotice) {
  static const std::string marks[] = {plainMarks(false, false), plainMarks(false, true), plainMarks(true, false),
                                      plainMarks(true, true)};
  return marks[(hasHost ? 2 : 0) + (hasNotice ? 1 : 0)];
}

}  // namespace

// The lines of an input are the target, the path below the servlet and two header lines; the rest is a form. Whatever
// they hold, the page has the marks of one for a plain request, and links stay on this host.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  tn::message msg;
  msg.insert(forwarding::target, takeLine(rest));
  msg.insert(forwarding::path, takeLine(rest));
  const std::vector<std::string> lines{std::string(takeLine(rest)), std::string(takeLine(rest))};
  msg.insert_vector(forwarding::headerLines, lines);
  const hotspot::ForwardedRequest request = hotspot::readForwarded(msg);
  require(request.base.starts_with('/') && request.base.ends_with('/') && !request.base.starts_with("//"));
  const std::string page = hotspot::loginPage("x", request, rest).body;
  require(marksOf(page) == knownPlainMarks(!request.host.empty(), !rest.empty()));
  const auto code = hotspot::formField(rest, "code");
  require(!code || code->size() <= rest.size());
  return 0;
}
