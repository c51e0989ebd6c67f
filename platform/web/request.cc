#include "platform/web/request.h"

#include <algorithm>
#include <array>
#include <optional>

#include "platform/web/ascii.h"
#include "platform/web/authority.h"
#include "platform/web/reuse.h"

namespace {

struct KnownMethod {
  std::string_view name;
  Method method;
};

constexpr std::array<KnownMethod, 8> knownMethods{{
    {"GET", Method::get},
    {"HEAD", Method::head},
    {"POST", Method::post},
    {"OPTIONS", Method::options},
    {"PUT", Method::put},
    {"DELETE", Method::del},
    {"TRACE", Method::trace},
    {"CONNECT", Method::connect},
}};

Method methodOf(std::string_view name) {
  if (name == "GET") return Method::get;  // nearly all are
  for (const KnownMethod& known : knownMethods) {
    if (known.name == name) return known.method;
  }
  return Method::unknown;
}

struct Pieces {
  std::string_view method;
  std::string_view target;
  std::string_view version;  // empty: the line has none
  bool fragment = false;     // there is a "#" in the target
};

// Spaces are not visible, so a fourth piece shows as one within the version.
constexpr ascii::CharSet visibleChars{ascii::isVisible};
constexpr ascii::CharSet targetChars{[](char c) { return ascii::isVisible(c) && c != '#'; }};

// The pieces between the spaces. False: there are not two or three, one is empty, the method is no token, or a byte of
// the target is not visible.
bool split(std::string_view line, Pieces& pieces) {
  const std::size_t methodLength = ascii::tokenChars.lengthIn(line);
  if (methodLength == 0 || methodLength == line.size() || line[methodLength] != ' ') return false;
  pieces.method = line.substr(0, methodLength);
  const std::string_view rest = line.substr(methodLength + 1);
  std::size_t targetLength = targetChars.lengthIn(rest, ascii::lengthOfEights<'!', '#'>(rest));
  pieces.fragment = targetLength < rest.size() && rest[targetLength] == '#';
  if (pieces.fragment) targetLength = visibleChars.lengthIn(rest, targetLength);
  if (targetLength == 0) return false;
  pieces.target = rest.substr(0, targetLength);
  if (targetLength == rest.size()) return true;
  pieces.version = rest.substr(targetLength + 1);
  return rest[targetLength] == ' ' && !pieces.version.empty();
}

// The version's number for "HTTP/1.x", and for a line without one; nothing for all else.
std::optional<std::uint32_t> versionNumber(std::string_view text) {
  constexpr std::string_view start = "HTTP/1.";
  if (text.empty()) return version09;
  if (text.size() != start.size() + 1 || !text.starts_with(start) || !ascii::isDigit(text.back())) return std::nullopt;
  return version10 + static_cast<std::uint32_t>(text.back() - '0');
}

// A whole "http" or "https" address (RFC 9112, 3.2.2), as clients send it to proxies and a server must take it too.
bool isAbsoluteForm(std::string_view target) {
  const std::size_t colon = target.find(':');
  const std::string_view scheme = target.substr(0, colon);
  if (!ascii::equalsIgnoreCase(scheme, "http") && !ascii::equalsIgnoreCase(scheme, "https")) return false;
  std::string_view rest = target.substr(scheme.size());
  if (!rest.starts_with("://")) return false;
  rest.remove_prefix(3);
  return isAuthority(rest.substr(0, rest.find_first_of("/?")));
}

// The forms of a target and the methods they are for (RFC 9112, 3.2).
bool isTargetFor(Method method, std::string_view target) {
  if (method == Method::connect) return isAuthorityWithPort(target);
  if (target.front() == '/') return true;
  if (target == "*") return method == Method::options;
  return isAbsoluteForm(target);
}

}  // namespace

bool Request::parseStatusLine(std::string_view line) {
  uri.clear();
  protocol = Protocol::http;
  method = Method::get;
  version = version11;
  Pieces pieces;
  if (!split(line, pieces)) return false;
  const std::optional<std::uint32_t> number = versionNumber(pieces.version);
  if (!number) {
    if (visibleChars.hasAll(pieces.version)) protocol = Protocol::unknown;
    return false;
  }
  version = *number;
  const Method named = methodOf(pieces.method);
  if (named == Method::unknown) {
    method = Method::unknown;
    return false;
  }
  // A fragment never leaves the client (RFC 9112, 3.2.1); a target that holds one is read differently by others.
  if (pieces.fragment || !isTargetFor(named, pieces.target)) return false;
  method = named;
  assignForReuse(uri, pieces.target);
  return true;
}

void Request::reset() {
  headers.clear();
  clearForReuse(uri);
  clearForReuse(pathInfo);
  clearForReuse(query);
  pathInfoSet = false;
  method = Method::get;
  protocol = Protocol::http;
  version = version11;
  bodyChunk = -1;
  bodyConsumer = nullptr;
}
