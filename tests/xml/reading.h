#pragma once

#include <optional>
#include <string_view>

#include "platform/xml/parser.h"

// What came of reading a document: its root, or the error.
struct Reading {
  std::optional<xml::Node> node;
  xml::ParseError error;
};

inline Reading readAs(std::string_view file, std::string_view document) {
  xml::Parser parser(file, document);
  std::optional<xml::Node> node = parser.parse();
  return {std::move(node), parser.error()};
}
