#include "servlets/varnox_servlet.h"

#include <array>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>

#include "platform/unique_fd.h"

namespace {

constexpr char pluginFolder[] = "/home/web/varnox/";
constexpr std::string_view suffix = ".info";
constexpr std::size_t lineRoom = 256;  // with the NUL behind it

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};
struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

bool isDescription(std::string_view name) {
  return !name.starts_with('.') && name.size() > 4 && name.ends_with(suffix);
}

// A pipe among the files must not hold up the server until somebody writes to it.
std::unique_ptr<std::FILE, CloseFile> openFile(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::unique_ptr<std::FILE, CloseFile> file(fd ? fdopen(fd.get(), "r") : nullptr);
  if (file) static_cast<void>(fd.release());
  return file;
}

void appendFirstLine(std::string& body, const std::string& path) {
  const auto file = openFile(path);
  std::array<char, lineRoom> line{};
  if (file && std::fgets(line.data(), line.size(), file.get()) != nullptr) body.append(line.data());
}

}  // namespace

void VarnoxServlet::doGet(Request& /*request*/, Response& response) {
  sendDescriptions(pluginFolder, response);
}

void sendDescriptions(const std::string& folder, Response& response) {
  const std::unique_ptr<DIR, CloseFolder> entries(opendir(folder.c_str()));
  if (!entries) {
    response.sendError(404, "");
    return;
  }
  response.headers.addHeader("Content-Type", "text/plain", false);
  std::string body;
  while (const dirent* entry = readdir(entries.get())) {
    if (isDescription(entry->d_name)) appendFirstLine(body, folder + entry->d_name);
  }
  response.send(std::move(body));
}
