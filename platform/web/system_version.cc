#include "platform/web/system_version.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "platform/unique_fd.h"
#include "platform/web/ascii.h"
#include "platform/web/functions.h"

namespace {

constexpr const char* versionPath = "/tarn/etc/version";
constexpr std::string_view ownVersion = TARN_VERSION;

bool isPrintable(char c) {
  return c == ' ' || ascii::isVisible(c);
}

}  // namespace

std::string readVersion(const char* path) {
  std::array<char, 63> buffer{};
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  const ssize_t count = file ? ::read(file.get(), buffer.data(), buffer.size()) : 0;
  std::string_view line(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
  line = line.substr(0, line.find_first_of("\r\n"));
  line = ascii::trimBlanks(line);
  if (line.empty() || !std::all_of(line.begin(), line.end(), isPrintable)) line = ownVersion;
  return std::string(line);
}

std::string getOSVersion() {
  return readVersion(versionPath);
}
