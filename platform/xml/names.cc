#include "platform/xml/names.h"

#include <array>

namespace xml {
namespace {

struct NameId {
  std::string_view name;
  Id id;
};

constexpr std::array<NameId, 10> knownNames = {{
    {"name", 2},
    {"path", 7},
    {"root", 28},
    {"type", 38},
    {"internal", 40},
    {"target", 42},
    {"servlet", 154},
    {"server", 169},
    {"ssl", 190},
    {"cacheable", 283},
}};

}  // namespace

Id idOf(std::string_view name) {
  for (const NameId& known : knownNames) {
    if (known.name == name) return known.id;
  }
  return 0;
}

}  // namespace xml
