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
  for (const KnownMethod& known : knownMethods) {
    if (known.name == name) return known.method;
  }
  return Method::unknown;
}

struct Pieces {
  std::string_view method;
  std::string_view target;
  std::string_view version;  // empty: the line has none
};

// Spaces are not visible, so a fourth piece shows as one within the version.
constexpr ascii::CharSet visibleChars{ascii::isVisible};

// The pieces between the spaces; nothing when there are not two or three, one is empty, the method is no token, or a
// byte of the target is not visible.
std::optional<Pieces> split(std::string_view line) {
  const std::size_t methodLength = ascii::tokenChars.lengthIn(line);
  if (methodLength == 0 || methodLength == line.size() || line[methodLength] != ' ') return std::nullopt;
  const std::string_view rest = line.substr(methodLength + 1);
  const std::size_t targetLength = visibleChars.lengthIn(rest);
  if (targetLength == 0) return std::nullopt;
  Pieces pieces{line.substr(0, methodLength), rest.substr(0, targetLength), {}};
  if (targetLength == rest.size()) return pieces;
  pieces.version = rest.substr(targetLength + 1);
  if (rest[targetLength] != ' ' || pieces.version.empty()) return std::nullopt;
  return pieces;
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
  const std::optional<Pieces> pieces = split(line);
  if (!pieces) return false;
  const std::optional<std::uint32_t> number = versionNumber(pieces->version);
  if (!number) {
    if (visibleChars.hasAll(pieces->version)) protocol = Protocol::unknown;
    return false;
  }
  version = *number;
  const Method named = methodOf(pieces->method);
  if (named == Method::unknown) {
    method = Method::unknown;
    return false;
  }
  // A fragment never leaves the client (RFC 9112, 3.2.1); a target that holds one is read differently by others.
  if (pieces->target.find('#') != std::string_view::npos || !isTargetFor(named, pieces->target)) return false;
  method = named;
  uri.assign(pieces->target);
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
