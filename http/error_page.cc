#include "http/error_page.h"

namespace {

std::string_view escaped(const char& character) {
  switch (character) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      return {&character, 1};
  }
}

}  // namespace

std::string errorPage(int status, std::string_view description) {
  std::string message = "Error ";
  message += std::to_string(status);
  message += ": ";
  for (const char& character : description)
    message += escaped(character);

  std::string page = "<html>\n<head><title>";
  page += message;
  page += "</title></head>\n<body>\n<h1>";
  page += message;
  page += "</h1>\n</body>\n</html>\n";
  return page;
}
