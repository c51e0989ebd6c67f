#include "servlets/page_template.h"

#include <algorithm>
#include <array>

namespace {

struct Name {
  std::string_view text;  // with the percent sign that ends it
  Placeholder placeholder;
};

constexpr std::array<Name, 5> names{{
    {"version%", Placeholder::version},
    {"host%", Placeholder::host},
    {"port%", Placeholder::port},
    {"user%", Placeholder::user},
    {"varnox%", Placeholder::varnox},
}};

}  // namespace

std::string fillTemplate(std::string_view text, const std::function<std::string(Placeholder)>& value) {
  std::string page;
  page.reserve(text.size());
  while (true) {
    const std::size_t mark = text.find('%');
    page.append(text.substr(0, mark));
    if (mark == std::string_view::npos) return page;
    text.remove_prefix(mark + 1);
    if (text.starts_with('%')) {
      page.push_back('%');
      text.remove_prefix(1);
      continue;
    }
    const auto* const name =
        std::find_if(names.begin(), names.end(), [text](const Name& known) { return text.starts_with(known.text); });
    if (name == names.end()) continue;
    page.append(value(name->placeholder));
    text.remove_prefix(name->text.size());
  }
}
