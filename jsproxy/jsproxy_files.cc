// Files of the user's store: read by GET, written by "put" and by form uploads.
#include <cerrno>
#include <memory>
#include <sys/stat.h>
#include <utility>

#include "jsproxy/answers.h"
#include "jsproxy/jsproxy_servlet.h"
#include "jsproxy/text_code.h"
#include "jsproxy/upload.h"
#include "jsproxy/user_files.h"
#include "platform/bus/files.h"
#include "platform/byte_order.h"
#include "platform/log.h"
#include "platform/web/functions.h"

namespace {

constexpr std::string_view packages = "/rw/pckg";
// Folders above a file that is put; the bits to search them are not given, as ever.
constexpr mode_t putFolderMode = 0666;

constexpr std::string_view formType = "multipart/form-data; boundary=";

bool isRegularFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Of a file that could not be written to its end.
void refuseUnwritten(Response& response) {
  const bool isFull = errno == ENOSPC || errno == EDQUOT || errno == EFBIG;
  response.sendError(isFull ? 507 : 500, isFull ? "Insufficient Storage" : "");
}

void makeFoldersAbove(const std::string& file) {
  const std::vector<std::string> parts = tokenize(file, '/');
  std::string folder;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    folder.append("/").append(parts[i]);
    ::mkdir(folder.c_str(), putFolderMode);
  }
}

// A form upload under way: kept by the request's body callable.
struct FormUpload {
  UploadedFile file;
  Upload upload;

  FormUpload(std::string_view boundary, std::uint32_t policies) : file(policies), upload(boundary, file) {}

  void take(std::string_view piece, bool last, Response& response) {
    const Upload::Result result = upload.take(piece);
    // A body that ends before its file does is no upload. Nobody hears of it when the connection has ended with it.
    if (last && upload.phase() != Upload::Phase::ended) {
      (void)file.close();
      response.sendError(400, {});
    }
    respond(result, response);
  }

  void respond(Upload::Result result, Response& response) const;
};

void FormUpload::respond(Upload::Result result, Response& response) const {
  switch (result) {
    case Upload::Result::more:
      return;
    case Upload::Result::complete:
      response.headers.addHeader("Location", "/lorvan/uploader.html", false);
      response.headers.addHeader("Content-Type", "text/html", false);
      response.sendError(303, "Use Instead");
      return;
    case Upload::Result::badBoundary:
      logLine("bad boundary line");
      response.sendError(400, {});
      return;
    case Upload::Result::malformed:
      response.sendError(400, {});
      return;
    case Upload::Result::refused:
      response.sendError(403, {});
      return;
    case Upload::Result::failed:
      refuseUnwritten(response);
      return;
  }
}

void finishPut(OutputFile& file, Response& response) {
  if (!file.close()) return refuseUnwritten(response);
  response.headers.addHeader("Content-Type", "text/plain", false);
  response.send("stored");
}

}  // namespace

// Like every other frame it uses up its part of the keystream, whatever becomes of the request.
JsSession* JsProxyServlet::openQuery(const Request& request, int tooShortStatus, std::string& payload,
                                     Response& response) {
  std::string bytes;
  textToBytes(urlDecode(request.query), bytes);
  if (bytes.size() < frame::least) {
    refuse(response, tooShortStatus);
    return nullptr;
  }
  JsSession* const session = findSession(loadBe32(asBytes(bytes).data() + frame::sessionAt));
  if (session != nullptr && decryptFrame(*session, asBytes(bytes), payload)) return session;
  refuse(response, 403);
  return nullptr;
}

void JsProxyServlet::doGet(Request& request, Response& response) {
  std::string name;
  const JsSession* const session = openQuery(request, 404, name, response);
  if (session == nullptr) return;
  std::string file = userFile(mapUserPath(name));
  if (name == "/skins/" + session->loginText + ".json") {
    // One's own skin needs no policy, and one that came with the system wins.
    std::string found = tn::findFile(std::string(packages).append("/").append(name), true);
    if (!found.starts_with(packages)) file = std::move(found);
  } else if (!policy::allow(session->policies, policy::read) ||
             (!policy::allow(session->policies, policy::sensitive) && isSensitiveFile(file))) {
    return refuse(response, 403);
  }
  if (file.empty() || !isRegularFile(file)) return refuse(response, 404);
  response.sendFile(std::move(file), {}, false);
}

// The session of a request that may write files; null: it has been refused.
JsSession* JsProxyServlet::writingSession(const Request& request, std::string& payload, Response& response) {
  JsSession* const session = openQuery(request, 403, payload, response);
  if (session == nullptr || policy::allow(session->policies, policy::write)) return session;
  refuse(response, 403);
  return nullptr;
}

void JsProxyServlet::beginUpload(Request& request, Response& response) {
  std::string payload;
  const JsSession* const session = writingSession(request, payload, response);
  if (session == nullptr) return;
  const std::string_view type = request.headers.getHeader("content-type").value_or(std::string_view());
  if (!type.starts_with(formType)) return refuse(response, 400);
  request.bodyConsumer = [form = std::make_shared<FormUpload>(type.substr(formType.size()), session->policies),
                          &response](std::string_view piece, bool last) { form->take(piece, last, response); };
  request.bodyChunk = 0;
}

void JsProxyServlet::beginPut(Request& request, Response& response) {
  std::string payload;
  const JsSession* const session = writingSession(request, payload, response);
  if (session == nullptr) return;
  const std::string name = mapUserPath(payload);
  makeUserPathFor(name);
  const std::string path = userFile(name);
  if (path.empty()) return refuse(response, 403);
  if (!policy::allow(session->policies, policy::sensitive) && isSensitiveFile(path)) return refuse(response, 403);
  makeFoldersAbove(path);
  auto file = std::make_shared<OutputFile>();
  if (!file->open(path)) return refuse(response, 403);
  std::uint32_t length = 0;
  // Of an empty body the connection would never tell.
  if (request.headers.getHeader("content-length", &length) && length == 0) return finishPut(*file, response);
  request.bodyConsumer = [file = std::move(file), &response](std::string_view piece, bool last) {
    if (!file->write(piece)) return refuseUnwritten(response);
    if (last) finishPut(*file, response);
  };
  request.bodyChunk = 0;
}
