#include "services/hotspotd/pages.h"

#include "platform/log.h"
#include "platform/web/ip_addr6.h"

namespace hotspot {
namespace {

constexpr std::string_view style =
    "body{font:1rem/1.5 system-ui,sans-serif;max-width:26rem;margin:12vh auto;padding:0 1rem;background:#f4f6f5;"
    "color:#17231f}form{margin:1.5rem 0}input,button{font:inherit;padding:.6rem .8rem;width:100%;box-sizing:border-box;"
    "border:1px solid #8aa39a;border-radius:.4rem}button{margin-top:.6rem;background:#1d5c48;color:#fff;border:0}"
    "dl{display:grid;grid-template-columns:auto 1fr;gap:.2rem 1rem;font-size:.85rem;color:#4a5c55}dd{margin:0}"
    ".notice{color:#a3261b;font-weight:600}"
    "@media(prefers-color-scheme:dark){body{background:#101715;color:#e3ece8}dl{color:#9db3aa}.notice{color:#ff9a8d}"
    "input{background:#1a2421;color:inherit}}";

// Browsers are told to run and load nothing at all: what the page shows came from its visitor.
constexpr std::string_view policy =
    "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; form-action 'self'; base-uri 'none'; "
    "frame-ancestors 'none'";

std::string endpointText(const Endpoint& end) {
  const IPAddr6 address(end.address);
  const std::string text = address.str(true);
  std::string out = address.isIPv4() ? text : "[" + text + "]";
  return out.append(":").append(NumberText(end.port));
}

void addFact(std::string& body, std::string_view id, std::string_view name, std::string_view value) {
  body.append("<dt>").append(name).append("</dt><dd id=\"").append(id).append("\">").append(escapeHtml(value));
  body.append("</dd>\n");
}

std::string facts(const ForwardedRequest& request) {
  std::string body = "<dl>\n";
  addFact(body, "client", "You", endpointText(request.client));
  addFact(body, "local", "Reached", endpointText(request.local));
  if (request.original) addFact(body, "original", "Wanted", endpointText(*request.original));
  if (!request.host.empty()) addFact(body, "host", "Site", request.host);
  addFact(body, "tag", "Network", NumberText(request.tag));
  return body.append("</dl>\n");
}

std::string form(const ForwardedRequest& request, std::string_view action, std::string_view content) {
  std::string text = "<form method=\"post\" action=\"";
  return text.append(escapeHtml(request.base)).append(action).append("\">\n").append(content).append("</form>\n");
}

Page pageOf(std::string_view title, std::string_view content) {
  const std::string name = escapeHtml(title);
  Page page;
  page.headings = {"Content-Type: text/html; charset=utf-8", "X-Content-Type-Options: nosniff",
                   "Referrer-Policy: same-origin", std::string(policy)};
  page.body.append("<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n")
      .append("<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>")
      .append(name)
      .append("</title>\n<style>")
      .append(style)
      .append("</style>\n</head>\n<body>\n<h1>")
      .append(name)
      .append("</h1>\n")
      .append(content)
      .append("</body>\n</html>\n");
  return page;
}

std::string leftText(std::chrono::seconds left) {
  const auto minutes = std::chrono::ceil<std::chrono::minutes>(left).count();
  if (minutes == 1) return "1 minute";
  return std::string(NumberText(static_cast<std::uint64_t>(minutes))).append(" minutes");
}

}  // namespace

std::string escapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        out.append("&amp;");
        break;
      case '<':
        out.append("&lt;");
        break;
      case '>':
        out.append("&gt;");
        break;
      case '"':
        out.append("&quot;");
        break;
      case '\'':
        out.append("&#39;");
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

Page loginPage(std::string_view title, const ForwardedRequest& request, std::string_view notice) {
  std::string content = "<p>Enter the access code that you were given.</p>\n";
  if (!notice.empty())
    content.append("<p class=\"notice\" role=\"alert\">").append(escapeHtml(notice)).append("</p>\n");
  content.append(form(request, "login",
                      "<label for=\"code\">Access code</label>\n"
                      "<input id=\"code\" name=\"code\" autocomplete=\"off\" autocapitalize=\"characters\" "
                      "spellcheck=\"false\" maxlength=\"64\" required autofocus>\n<button>Log in</button>\n"));
  return pageOf(title, content.append(facts(request)));
}

Page welcomePage(std::string_view title, const ForwardedRequest& request, std::chrono::seconds left) {
  std::string content = "<p id=\"left\">You are logged in for another " + leftText(left) + ".</p>\n";
  content.append(form(request, "logout", "<button>Log out</button>\n"));
  return pageOf(title, content.append(facts(request)));
}

}  // namespace hotspot
