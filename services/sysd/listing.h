#pragma once

#include <cstddef>
#include <cstdint>
#include <dirent.h>
#include <expected>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/message.h"
#include "platform/unique_fd.h"

namespace sysd {

// One page of a directory, read a piece at a time: however many entries there are, only those of the page are kept.
class Listing {
 public:
  static constexpr std::size_t mostEntries = 500;
  // Of the entries of a page, flattened. The tunnel's binary answers hold 65535 bytes, the header of the bus and paths
  // included.
  static constexpr std::size_t mostBytes = 60'000;

  struct Query {
    std::string after;                  // names up to this one are not for this page
    std::size_t entries = mostEntries;  // 1 to mostEntries
    bool sensitiveToo = false;
  };
  enum class Progress : std::uint8_t { more, done };

  // Of a directory that was opened as a place to work in; the error is errno.
  [[nodiscard]] static std::expected<Listing, int> open(const UniqueFd& directory, Query query);

  // Reads up to `count` further entries; the error is errno.
  [[nodiscard]] std::expected<Progress, int> read(std::size_t count);
  // Once everything is read: the answer to whoever asked.
  [[nodiscard]] tn::message answer();

 private:
  struct Close {
    void operator()(DIR* stream) const { ::closedir(stream); }
  };
  using Stream = std::unique_ptr<DIR, Close>;

  Listing(Stream stream, Query query) : stream_(std::move(stream)), query_(std::move(query)) {}
  void take(std::string_view name);
  [[nodiscard]] tn::message describe(const std::string& name, bool& isGone) const;

  Stream stream_;
  Query query_;
  std::vector<std::string> page_;  // a heap, the greatest name in front, until it is answered
  bool hasMore_ = false;
  std::uint32_t shown_ = 0;
  std::uint32_t unnamed_ = 0;
};

}  // namespace sysd
