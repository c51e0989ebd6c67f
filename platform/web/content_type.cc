#include <algorithm>
#include <array>

#include "platform/web/ascii.h"
#include "platform/web/functions.h"

namespace {

struct Type {
  std::string_view suffix;
  std::string_view name;
};

// In the order of the suffixes. The system's texts are UTF-8; browsers are told so where they would guess otherwise.
constexpr std::array types{
    Type{"7z", "application/x-7z-compressed"},
    Type{"aac", "audio/aac"},
    Type{"apng", "image/apng"},
    Type{"avif", "image/avif"},
    Type{"bmp", "image/bmp"},
    Type{"bz2", "application/x-bzip2"},
    Type{"css", "text/css; charset=utf-8"},
    Type{"csv", "text/csv"},
    Type{"flac", "audio/flac"},
    Type{"gif", "image/gif"},
    Type{"gz", "application/gzip"},
    Type{"htm", "text/html; charset=utf-8"},
    Type{"html", "text/html; charset=utf-8"},
    Type{"ico", "image/x-icon"},
    Type{"ics", "text/calendar"},
    Type{"jpeg", "image/jpeg"},
    Type{"jpg", "image/jpeg"},
    Type{"js", "text/javascript; charset=utf-8"},
    Type{"json", "application/json"},
    Type{"jsonld", "application/ld+json"},
    Type{"log", "text/plain"},
    Type{"m4a", "audio/mp4"},
    Type{"map", "application/json"},
    Type{"md", "text/markdown"},
    Type{"mjs", "text/javascript; charset=utf-8"},
    Type{"mp3", "audio/mpeg"},
    Type{"mp4", "video/mp4"},
    Type{"oga", "audio/ogg"},
    Type{"ogg", "audio/ogg"},
    Type{"ogv", "video/ogg"},
    Type{"opus", "audio/ogg"},
    Type{"otf", "font/otf"},
    Type{"pdf", "application/pdf"},
    Type{"png", "image/png"},
    Type{"svg", "image/svg+xml"},
    Type{"tar", "application/x-tar"},
    Type{"tif", "image/tiff"},
    Type{"tiff", "image/tiff"},
    Type{"ttf", "font/ttf"},
    Type{"txt", "text/plain"},
    Type{"wasm", "application/wasm"},
    Type{"wav", "audio/wav"},
    Type{"webm", "video/webm"},
    Type{"webmanifest", "application/manifest+json"},
    Type{"webp", "image/webp"},
    Type{"woff", "font/woff"},
    Type{"woff2", "font/woff2"},
    Type{"xhtml", "application/xhtml+xml"},
    Type{"xml", "application/xml"},
    Type{"xsd", "application/xml"},
    Type{"xz", "application/x-xz"},
    Type{"zip", "application/zip"},
    Type{"zst", "application/zstd"},
};

constexpr bool before(const Type& type, std::string_view suffix) {
  return type.suffix < suffix;
}

static_assert(std::is_sorted(types.begin(), types.end(),
                             [](const Type& a, const Type& b) { return a.suffix < b.suffix; }));

constexpr std::size_t longestSuffix = std::max_element(types.begin(), types.end(), [](const Type& a, const Type& b) {
                                        return a.suffix.size() < b.suffix.size();
                                      })->suffix.size();

// Empty when the suffix is not known.
std::string_view typeOf(std::string_view suffix) {
  if (suffix.size() > longestSuffix) return {};
  std::array<char, longestSuffix> text{};
  std::transform(suffix.begin(), suffix.end(), text.begin(), ascii::lower);
  const std::string_view wanted(text.data(), suffix.size());
  const auto* const type = std::lower_bound(types.begin(), types.end(), wanted, before);
  return type != types.end() && type->suffix == wanted ? type->name : std::string_view();
}

}  // namespace

std::string_view getContentType(std::string_view name, const char* fallback) {
  const std::size_t dot = name.find_last_of("./");
  if (dot != std::string_view::npos && name[dot] == '.') {
    const std::string_view type = typeOf(name.substr(dot + 1));
    if (!type.empty()) return type;
  }
  return fallback != nullptr ? fallback : "application/octet-stream";
}
