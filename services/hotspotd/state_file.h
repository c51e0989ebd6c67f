#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/bus/message.h"
#include "services/hotspotd/record.h"

namespace hotspot {

// What the login page says and asks for.
struct Settings {
  std::string title;
  std::string code;           // as it is given to guests
  std::uint32_t minutes = 0;  // how long a login lasts

  friend bool operator==(const Settings&, const Settings&) = default;
};

inline constexpr std::size_t maxTitleBytes = 64;
inline constexpr std::size_t minCodeBytes = 6;
inline constexpr std::size_t maxCodeBytes = 64;
inline constexpr std::uint32_t maxMinutes = 31 * 24 * 60;

// Fields of the settings' message.
namespace settings_field {
inline constexpr tn::string_id title{1};
inline constexpr tn::string_id code{2};
inline constexpr tn::u32_id minutes{3};
}  // namespace settings_field

// Lays the fields of a message over settings. When there is a problem they are unchanged.
[[nodiscard]] Problem applySettings(Settings& settings, const tn::message& given);
void writeSettings(const Settings& settings, tn::message& msg);

// All that outlives the process.
struct State {
  Settings settings;
  std::vector<tn::message> servers;  // records, by name
};

// What a machine that was never configured starts with; the code is a new one each time, and
// empty when the kernel gives nothing random.
[[nodiscard]] State defaultState();

// The state as a small text file (docs/hotspot.md). It is replaced as a whole, so that a machine that loses
// its power has the old or the new one.
class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  // What the file holds; a part that it does not hold gets its default. Lines that cannot be taken are told in the log,
  // and the file is then moved to PATH.damaged. What was read is written back when it differs from what stood there.
  // Nothing, and the reason in the log, when the file is there but cannot be read now or cannot be moved, or when there
  // is no code: it stands as it was.
  [[nodiscard]] std::optional<State> load() const;
  // Nothing when the state is on the storage, else what failed.
  [[nodiscard]] Problem save(const State& state) const;

 private:
  std::string path_;
};

}  // namespace hotspot
