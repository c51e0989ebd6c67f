#include "services/hotspotd/state_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/random.h>
#include <unistd.h>
#include <utility>

#include "platform/bus/text.h"
#include "platform/log.h"
#include "platform/unique_fd.h"
#include "services/common/file_text.h"

namespace hotspot {
namespace {

constexpr std::size_t maxFileBytes = 65536;
constexpr std::string_view settingsWord = "settings ";
constexpr std::string_view serverWord = "server ";
constexpr std::string_view heading =
    "# What hotspotd keeps. It is written anew at every change; to edit it by hand, stop hotspotd first.\n";

// Without those that are mistaken for each other.
constexpr std::string_view codeLetters = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";
constexpr std::size_t codeLength = 8;
static_assert(codeLetters.size() == 32, "a byte picks each letter equally often");

// Empty when there is nothing random: a code that can be guessed is none.
std::string newCode() {
  std::array<unsigned char, codeLength> bytes{};
  std::string code;
  // So few bytes come whole, or not at all.
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    logSystemError("getrandom");
    return code;
  }
  for (const unsigned char byte : bytes)
    code.push_back(codeLetters[byte % codeLetters.size()]);
  return code;
}

bool isControl(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

bool writeWhole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// A name in a folder is on the storage when the folder is.
bool syncFolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

Problem addServer(State& state, const tn::message& record) {
  if (Problem problem = checkRecord(record)) return problem;
  if (state.servers.size() == maxServers) return "too many servers";
  const auto sameName = [&record](const tn::message& other) { return nameOf(other) == nameOf(record); };
  if (std::ranges::any_of(state.servers, sameName)) return "there is a server of that name";
  state.servers.push_back(recordFrom({}, record));
  return std::nullopt;
}

struct Contents {
  State state;
  bool anySettings = false;
};

Problem takeLine(Contents& contents, std::string_view line) {
  const bool isSettings = line.starts_with(settingsWord);
  if (!isSettings && !line.starts_with(serverWord)) return "neither settings nor a server";
  tn::message msg;
  if (const auto error = tn::readText(line.substr(isSettings ? settingsWord.size() : serverWord.size()), msg)) {
    return "expected " + error->expected;
  }
  if (!isSettings) return addServer(contents.state, msg);
  contents.anySettings = true;
  return applySettings(contents.state.settings, msg);
}

std::string textOf(const State& state) {
  tn::message settings;
  writeSettings(state.settings, settings);
  std::string text(heading);
  text.append(settingsWord).append(tn::writeText(settings)).append("\n");
  for (const tn::message& server : state.servers)
    text.append(serverWord).append(tn::writeText(server)).append("\n");
  return text;
}

std::string errorText(std::string_view what) {
  return std::string(what) + ": " + strerror(errno);
}

}  // namespace

Problem applySettings(Settings& settings, const tn::message& given) {
  Settings changed = settings;
  changed.title = given.get(settings_field::title).value_or(settings.title);
  changed.code = given.get(settings_field::code).value_or(settings.code);
  changed.minutes = given.get(settings_field::minutes).value_or(settings.minutes);
  if (changed.title.size() > maxTitleBytes || std::ranges::any_of(changed.title, isControl)) {
    return "the title (string 1) has at most 64 bytes and no control characters";
  }
  if (changed.code.size() < minCodeBytes || changed.code.size() > maxCodeBytes ||
      std::ranges::any_of(changed.code, isControl)) {
    return "the code (string 2) has 6 to 64 bytes and no control characters";
  }
  if (changed.minutes == 0 || changed.minutes > maxMinutes) return "the minutes (u32 3) are 1 to 44640";
  settings = std::move(changed);
  return std::nullopt;
}

void writeSettings(const Settings& settings, tn::message& msg) {
  msg.insert(settings_field::title, settings.title);
  msg.insert(settings_field::code, settings.code);
  msg.insert(settings_field::minutes, settings.minutes);
}

State defaultState() {
  return {{"tarn hotspot", newCode(), 60}, {defaultRecord()}};
}

std::optional<State> StateFile::load() const {
  const std::optional<std::string> text = service::readFile(path_.c_str(), maxFileBytes);
  const bool missing = !text && errno == ENOENT;
  bool damaged = !text && (errno == EISDIR || errno == EFBIG);
  if (!text && !missing) logSystemError(path_);
  // What cannot be read now may be good.
  if (!text && !missing && !damaged) return std::nullopt;
  const State defaults = defaultState();
  Contents contents{{defaults.settings, {}}};
  std::string_view rest = text ? std::string_view(*text) : std::string_view();
  for (unsigned number = 1; !rest.empty(); ++number) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.empty() || line.starts_with('#')) continue;
    if (const Problem problem = takeLine(contents, line)) {
      logLine(path_, ":", NumberText(number), ": ", *problem);
      damaged = true;
    }
  }
  if (contents.state.settings.code.empty()) return std::nullopt;
  if (!text) contents.state.servers = defaults.servers;
  if (damaged && rename(path_.c_str(), (path_ + ".damaged").c_str()) != 0) {
    logSystemError(path_ + ".damaged");
    return std::nullopt;
  }
  if (damaged || !contents.anySettings) {
    if (const Problem problem = save(contents.state)) logLine(path_, ": ", *problem);
  }
  return std::move(contents.state);
}

Problem StateFile::save(const State& state) const {
  const std::string next = path_ + ".new";
  UniqueFd file(open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file) return errorText("open");
  if (!writeWhole(file.get(), textOf(state)) || fsync(file.get()) != 0) return errorText("write");
  file.reset();
  if (rename(next.c_str(), path_.c_str()) != 0) return errorText("rename");
  if (!syncFolderOf(path_)) return errorText("sync");
  return std::nullopt;
}

}  // namespace hotspot
