#include "services/hotspotd/portal.h"

#include <chrono>
#include <string>
#include <string_view>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"
#include "platform/web/ascii.h"
#include "platform/web/ip_addr6.h"
#include "services/hotspotd/error_codes.h"
#include "services/hotspotd/form.h"
#include "services/hotspotd/pages.h"

namespace hotspot {
namespace {

constexpr std::string_view formType = "application/x-www-form-urlencoded";
constexpr tn::u32_id loggedInField{4};

Page refusal(std::uint32_t status, std::string_view text = {}) {
  return {status, std::string(text), {}, {}};
}

Page wrongMethod(std::string_view allowed) {
  Page page = refusal(405);
  page.headings.push_back("Allow: " + std::string(allowed));
  return page;
}

// To the front page, by GET.
Page toFront(const ForwardedRequest& request) {
  Page page = refusal(303);
  page.headings.push_back("Location: " + request.base);
  return page;
}

bool isAction(std::string_view path) {
  return path == "login" || path == "logout";
}

Visitor visitorOf(const ForwardedRequest& request) {
  return {request.client.address, request.tag};
}

// A page of another site must not log its readers in or out. Programs that are no browsers send no Origin.
bool isOfThisSite(const ForwardedRequest& request) {
  const std::string own = (request.tls ? "https://" : "http://") + request.host;
  return request.origin.empty() || ascii::equalsIgnoreCase(request.origin, own);
}

bool isForm(std::string_view contentType) {
  return ascii::equalsIgnoreCase(ascii::trimBlanks(contentType.substr(0, contentType.find(';'))), formType);
}

// A code as it counts: people write it with spaces and hyphens, and in small letters.
std::string plainCode(std::string_view code) {
  std::string plain;
  for (const char c : code) {
    if (c != ' ' && c != '-') plain.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
  }
  return plain;
}

// Takes as long whatever the first difference is.
bool sameCode(std::string_view typed, std::string_view code) {
  const std::string a = plainCode(typed);
  const std::string b = plainCode(code);
  unsigned difference = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
    difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
  return difference == 0;
}

void logVisitor(const Visitor& visitor, std::string_view what) {
  logLine("client ", IPAddr6(visitor.address).str(true), " tag ", NumberText(visitor.tag), ": ", what);
}

}  // namespace

tn::message Portal::cmdGet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings))
    return tn::errorMsg(tn::error::notAllowed, "not allowed");
  tn::message answer;
  writeSettings(keeper_.state().settings, answer);
  answer.insert(loggedInField, static_cast<std::uint32_t>(visitors_.loggedIn(clock_.now())));
  return answer;
}

tn::message Portal::cmdSet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings))
    return tn::errorMsg(tn::error::notAllowed, "not allowed");
  State next = keeper_.state();
  if (const Problem problem = applySettings(next.settings, msg)) return tn::errorMsg(error::badRequest, *problem);
  if (const Problem problem = keeper_.change(std::move(next))) return tn::errorMsg(error::notStored, *problem);
  return {};
}

// Requests come from the server itself. One that a browser sends through the tunnel could say anything of its address.
tn::message Portal::cmdUnknown(tn::message& msg, std::uint32_t command) {
  if (command != forwardedRequest) return Handler::cmdUnknown(msg, command);
  if (!tn::policies::isOfSystem(msg)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
  return answerOf(answer(readForwarded(msg)));
}

Page Portal::answer(const ForwardedRequest& request) {
  switch (request.method) {
    case Method::get:
    case Method::head:
      return front(request);
    case Method::post:
      return act(request);
    case Method::other:
      break;
  }
  return wrongMethod(isAction(request.path) ? "GET, HEAD, POST" : "GET, HEAD");
}

Page Portal::front(const ForwardedRequest& request) const {
  const auto left = visitors_.remaining(visitorOf(request), clock_.now());
  if (isAction(request.path)) return toFront(request);
  // What a client wanted elsewhere is not here, but it is to see where it is.
  if (!request.path.empty()) return request.redirected() && !left ? toFront(request) : refusal(404);
  const std::string& title = keeper_.state().settings.title;
  return left ? welcomePage(title, request, *left) : loginPage(title, request, {});
}

Page Portal::act(const ForwardedRequest& request) {
  if (request.path.empty()) return wrongMethod("GET, HEAD");
  if (!isAction(request.path)) return refusal(404);
  if (!isOfThisSite(request)) return refusal(403, "This form is of another site");
  return request.path == "login" ? logIn(request) : logOut(request);
}

Page Portal::logIn(const ForwardedRequest& request) {
  if (!isForm(request.contentType)) return refusal(415);
  const auto code = formField(request.body, "code");
  if (!code) return refusal(400);
  const Settings& settings = keeper_.state().settings;
  const Visitor visitor = visitorOf(request);
  const bool right = sameCode(*code, settings.code);
  switch (visitors_.logIn(visitor, right, std::chrono::minutes(settings.minutes), clock_.now())) {
    case Visitors::Verdict::admitted:
      logVisitor(visitor, "logged in");
      return toFront(request);
    case Visitors::Verdict::wrongCode:
      logVisitor(visitor, "wrong code");
      return loginPage(settings.title, request, "That is not the code.");
    case Visitors::Verdict::tooManyTries: {
      Page page = refusal(429, "Too many wrong codes, try again in a minute");
      page.headings.push_back("Retry-After: " + std::to_string(Visitors::triesFor.count()));
      return page;
    }
    case Visitors::Verdict::full:
      logVisitor(visitor, "no room");
      break;
  }
  return refusal(503, "Too many guests");
}

Page Portal::logOut(const ForwardedRequest& request) {
  if (visitors_.logOut(visitorOf(request))) logVisitor(visitorOf(request), "logged out");
  return toFront(request);
}

}  // namespace hotspot
