#pragma once

#include <string>
#include <string_view>

#include "platform/xml/document.h"

// Text of an element as a document of its own that reads back to the same element: what two readings are compared by.
// Character data stands before the child elements, as the reader joins it.
namespace canonical {

inline void appendText(std::string& out, std::string_view text) {
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\t':
        out += "&#9;";
        break;
      case '\n':
        out += "&#10;";
        break;
      case '\r':
        out += "&#13;";
        break;
      default:
        out += c;
    }
  }
}

inline void appendNode(std::string& out, const xml::Node& node) {
  out += '<';
  out += node.name();
  for (const xml::Attribute& attribute : node.attributes()) {
    out += ' ';
    out += attribute.name();
    out += "=\"";
    appendText(out, attribute.text());
    out += '"';
  }
  out += '>';
  appendText(out, node.text());
  for (const xml::Node& child : node.children())
    appendNode(out, child);
  out += "</";
  out += node.name();
  out += '>';
}

inline std::string text(const xml::Node& node) {
  std::string out;
  appendNode(out, node);
  return out;
}

}  // namespace canonical
