#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/xml/parser.h"
#include "tests/xml/canonical.h"

// The reader of the configuration documents on any bytes. What it accepts must, written out, read back as the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  xml::Parser parser("fuzz", bytes);
  const auto root = parser.parse();
  if (!root) {
    if (parser.error().expected.empty()) std::abort();
    return 0;
  }
  for (const xml::Attribute& attribute : root->attributes()) {
    const bool number = attribute.get<std::vector<std::uint32_t>>().has_value();
    if (number && attribute.text().empty()) std::abort();
  }
  const std::string once = canonical::text(*root);
  if (once.size() > xml::limit::documentBytes) return 0;
  const auto again = xml::Parser("fuzz", once).parse();
  if (!again || canonical::text(*again) != once) std::abort();
  return 0;
}
