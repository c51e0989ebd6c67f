#pragma once

#include <cstdint>
#include <string_view>

#include "platform/xml/document.h"

// What the configuration documents are made of (docs/configuration.md): the server builds its servers by these names,
// and the command line checks documents by them.
namespace xml::www {

inline constexpr char directory[] = "/tarn/etc/www";

namespace element {
inline constexpr Id server = 169;
inline constexpr Id servlet = 154;
}  // namespace element

namespace attribute {
inline constexpr Id name = 2;
inline constexpr Id path = 7;
inline constexpr Id root = 28;
inline constexpr Id type = 38;
inline constexpr Id internal = 40;
inline constexpr Id target = 42;
inline constexpr Id ssl = 190;
inline constexpr Id cacheable = 283;
}  // namespace attribute

enum class ServletKind : std::uint8_t { unknown, dir, pubdir, index, varnox, jsproxy, remote };

struct ServletKeyword {
  std::string_view keyword;
  ServletKind kind;
};

inline constexpr ServletKeyword servletKeywords[] = {
    {"dir", ServletKind::dir},       {"pubdir", ServletKind::pubdir},   {"index", ServletKind::index},
    {"varnox", ServletKind::varnox}, {"jsproxy", ServletKind::jsproxy}, {"remote", ServletKind::remote},
};

[[nodiscard]] constexpr ServletKind servletKind(std::string_view keyword) {
  for (const ServletKeyword& known : servletKeywords) {
    if (known.keyword == keyword) return known.kind;
  }
  return ServletKind::unknown;
}

}  // namespace xml::www
