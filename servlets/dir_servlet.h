#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "http/file_answers.h"
#include "platform/bus/files.h"
#include "platform/web/servlet.h"

// Serves files: all of a directory tree, or one file.
class DirServlet : public Servlet {
 public:
  // `root` is a directory or a file. With `isPublic`, only what lies below a directory that holds a ".public" file is
  // served. With `cacheable`, files are sent with a year of caching.
  DirServlet(std::string root, bool isPublic, bool cacheable);

  // Whether `root` is a directory now. The answer also serves the doGet that follows in the same request.
  bool isDirectory() override;
  void doGet(Request& request, Response& response) override;

 private:
  // What isDirectory says when it is not known.
  [[nodiscard]] bool lookAtRoot();
  [[nodiscard]] bool rootIsDirectory(tn::FileView& view) const;
  // The file for a path below the servlet; 0, or the status of the error that answers it.
  [[nodiscard]] int look(std::string_view wanted, bool directory, tn::FileView& view, FileAnswer& answer) const;
  // A file that was not known before; `directory` is what isDirectory has said in this request.
  void answerNew(std::string_view wanted, std::optional<bool> directory, const Request& request, Response& response);
  void answer(const FileAnswer& found, const Request& request, Response& response) const;
  void answerKept(const FileAnswer& kept, const Request& request, Response& response) const;

  std::string root_;
  bool isPublic_;
  bool cacheable_;
  std::optional<bool> knownDirectory_;  // the last answer of isDirectory, until a doGet has used it
  FileAnswers::Place rootPlace_;
};
