#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/xml/document.h"

namespace tool {

// Something in a configuration document that is not as it should be.
struct Finding {
  enum class Gravity : unsigned char {
    error,    // the server leaves it out, or takes it for something else than it says
    warning,  // has an effect, though hardly the one that was meant
  };
  Gravity gravity;
  std::string file;
  unsigned line;  // 0: the file as a whole
  unsigned column;
  std::string found;     // may be empty
  std::string expected;  // may be empty

  // "a.xml:3:5: error: attribute "rot"; expected one of ...".
  [[nodiscard]] std::string text() const;
};

// Checks documents one after the other, by the tables that the server builds its servers by; what stands in one may
// speak of a server of an earlier one.
class Checker {
 public:
  void checkFile(const std::string& path);
  void checkDirectory(const std::string& path);

  [[nodiscard]] const std::vector<Finding>& findings() const { return findings_; }
  [[nodiscard]] std::size_t errors() const;
  [[nodiscard]] std::size_t documents() const { return documents_; }
  [[nodiscard]] std::size_t servers() const { return servers_.size(); }

 private:
  struct Server {
    std::string name;
    bool ssl;
    std::vector<std::string> places;  // the type and path of each servlet
  };

  void report(Finding::Gravity gravity, const xml::Position& at, std::string found, std::string expected = {});
  void reportAttribute(Finding::Gravity gravity, const xml::Attribute& attribute, std::string expected);
  void checkRoot(const xml::Node& root);
  void checkServer(const xml::Node& node);
  void checkServlet(const xml::Node& node, Server& server);
  void checkServletKind(const xml::Node& node, const xml::Attribute& type);
  void checkPlace(const xml::Node& node, Server& server);
  // Reports attributes that an element does not have, booleans and numbers that are none.
  void checkAttributes(const xml::Node& node);
  Server& serverOf(const xml::Node& node, const std::string& name);

  std::vector<Finding> findings_;
  std::vector<Server> servers_;
  std::string file_;
  std::size_t documents_ = 0;
};

}  // namespace tool
