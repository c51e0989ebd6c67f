#pragma once

#include <cctype>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

// A response as a client sees it.
struct Answer {
  int status = 0;                             // 0: there is no whole head
  std::string statusLine;                     // without its line end
  std::vector<std::string> names;             // of the fields, in order, as written
  std::map<std::string, std::string> fields;  // by name in lower case; the last of equal ones
  std::string body;                           // everything behind the head

  [[nodiscard]] std::string field(const std::string& name) const {
    const auto found = fields.find(name);
    return found == fields.end() ? "(none)" : found->second;
  }
};

inline std::string lowerCase(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

inline Answer parseAnswer(const std::string& text) {
  Answer answer;
  const std::size_t end = text.find("\r\n\r\n");
  if (end == std::string::npos) return answer;
  std::size_t at = text.find("\r\n");
  answer.statusLine = text.substr(0, at);
  answer.status = std::atoi(answer.statusLine.c_str() + answer.statusLine.find(' '));
  while (at != end) {
    const std::size_t next = text.find("\r\n", at + 2);
    const std::string line = text.substr(at + 2, next - at - 2);
    const std::size_t colon = line.find(": ");
    answer.names.push_back(line.substr(0, colon));
    answer.fields[lowerCase(line.substr(0, colon))] = line.substr(colon + 2);
    at = next;
  }
  answer.body = text.substr(end + 4);
  return answer;
}
