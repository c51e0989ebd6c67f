#pragma once

#include <string>
#include <string_view>

#include "platform/web/request.h"
#include "platform/web/response.h"

// What serves one path of a server. Servlets live as long as the process; the engine calls doMethod once per request,
// and the servlet answers at once through the response, or later by calling response.onComplete exactly once.
class Servlet {
 public:
  // `allow` is what a 405 answer tells in its Allow field: the methods this servlet implements.
  explicit Servlet(std::string_view allow = "") : allow_(allow) {}
  Servlet(const Servlet&) = delete;
  Servlet& operator=(const Servlet&) = delete;
  virtual ~Servlet() = default;

  // Whether the servlet serves everything below its path (true) or the path alone. Asked afresh for every request.
  virtual bool isDirectory();
  // The request is the engine's; a servlet may set its body and end callables.
  virtual void doGet(Request& request, Response& response);
  virtual void doHead(Request& request, Response& response);  // as doGet
  virtual void doPost(Request& request, Response& response);
  // Calls doGet, doHead or doPost by method; any other method is 405.
  virtual void doMethod(Request& request, Response& response);

  [[nodiscard]] const std::string& getPath() const { return path_; }
  void setPath(std::string path) { path_ = std::move(path); }
  // Whether the servlet is for the outside: false for those marked internal in the configuration.
  [[nodiscard]] bool baseFlag() const { return baseFlag_; }
  void setBaseFlag(bool value) { baseFlag_ = value; }

 protected:
  // 405 with the Allow field.
  void refuseMethod(Response& response) const;

 private:
  std::string path_;
  bool baseFlag_ = false;
  std::string_view allow_;
};
