#include "servlets/varnox_servlet.h"

#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace {

constexpr char pluginFolder[] = "/home/web/varnox/";
constexpr std::string_view suffix = ".info";
constexpr std::size_t maxLineBytes = 255;

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

bool isDescription(std::string_view name) {
  return !name.starts_with('.') && name.size() > 4 && name.ends_with(suffix);
}

// Its line end included when it fits. A pipe among the files must not hold up the server until somebody writes to it.
void appendFirstLine(std::string& body, const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) return;
  std::array<char, maxLineBytes> held{};
  const ssize_t count = read(file.get(), held.data(), held.size());
  if (count <= 0) return;
  std::string_view line(held.data(), static_cast<std::size_t>(count));
  if (const std::size_t end = line.find('\n'); end != std::string_view::npos) line = line.substr(0, end + 1);
  body.append(line);
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
