#include "servlets/index_servlet.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/bus/files.h"
#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/web/functions.h"
#include "servlets/page_template.h"

namespace {

constexpr char templatePath[] = "/home/web/index2.html";
// Where the desktop client is to be had.
constexpr std::string_view desktopClientLink = "/varnox/";

// The question for the name that the start page greets with, put to the user service.
constexpr std::array<std::uint32_t, 2> userServicePath{13, 1};
constexpr std::uint32_t firstUser = 1;
constexpr std::uint32_t userTimeoutMs = 6000;
constexpr tn::string_id userName{1};
constexpr tn::bool_id userHidden{0x1c};

struct Mapping {
  int fd;
  void* bytes;
  std::size_t size;
};

// A mapping that fails leaves the descriptor open. That is known, and is to stay.
std::optional<Mapping> mapFile(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  const auto size = static_cast<std::size_t>(status.st_size);
  void* const bytes = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (bytes == MAP_FAILED) return std::nullopt;
  return Mapping{fd, bytes, size};
}

void unmap(const Mapping& mapping) {
  if (munmap(mapping.bytes, mapping.size) != 0) logLine("ERROR: munmap failed:", strerror(errno));
  close(mapping.fd);
}

// As it stands in an address: IPv6 in brackets.
std::string hostText(const IPAddr6& address) {
  const std::string text = address.str(true);
  return address.isIPv4() ? text : "[" + text + "]";
}

std::string askUserName() {
  tn::Looper* const looper = tn::getLooper();
  tn::message question;
  question.insert_vector(tn::field::destination, userServicePath);
  question.insert(tn::field::command, tn::command::getObj);
  question.insert(tn::field::objectNumber, firstUser);
  const tn::message answer = looper->exchangeMessage(std::move(question), userTimeoutMs);
  if (answer.get(userHidden).value_or(false) || answer.get(tn::field::disabled).value_or(false)) return {};
  return std::string(answer.get(userName).value_or(std::string_view()));
}

std::string valueOf(Placeholder placeholder, const Request& request) {
  switch (placeholder) {
    case Placeholder::version:
      return getOSVersion();
    case Placeholder::host:
      return hostText(request.localAddress);
    case Placeholder::port:
      return std::string(NumberText(request.localPort));
    case Placeholder::user:
      return askUserName();
    case Placeholder::varnox:
      return std::string(desktopClientLink);
  }
  return {};
}

}  // namespace

void IndexServlet::doGet(Request& request, Response& response) {
  sendStartPage(templatePath, request, response);
}

void sendStartPage(const std::string& path, const Request& request, Response& response) {
  const std::optional<Mapping> mapping = mapFile(tn::findFile(path, true));
  if (!mapping) {
    response.sendError(404, "");
    return;
  }
  response.headers.addHeader("Content-Type", "text/html", false);
  // A copy: while a placeholder waits for its answer somebody may cut the file short, and reading the mapping then ends
  // the process.
  const std::string text(static_cast<const char*>(mapping->bytes), mapping->size);
  std::string page = fillTemplate(text, [&request](Placeholder placeholder) { return valueOf(placeholder, request); });
  unmap(*mapping);
  response.send(std::move(page));
}
