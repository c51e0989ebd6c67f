#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "jsproxy/upload.h"
#include "platform/unique_fd.h"

// Files of the user's store, as far as a session's policies let it have them.

// The bits of a session's policies word that files ask for.
namespace policy {
inline constexpr std::uint32_t read = 0x10 | 0x40;
inline constexpr std::uint32_t write = 0x80 | 0x10;
inline constexpr std::uint32_t sensitive = 0x4000;

[[nodiscard]] constexpr bool allow(std::uint32_t policies, std::uint32_t wanted) {
  return (policies & wanted) == wanted;
}
}  // namespace policy

// Names of skins lie in the flash store of a box that has one.
[[nodiscard]] std::string mapUserPath(std::string_view name);

// Where a name lies in the file system; empty when the store does not take it.
[[nodiscard]] std::string userFile(std::string_view mappedName);

// A file that a browser writes. Its bytes are gathered before they go to the system, which writes many at once much
// faster; what is gathered when this object ends without `close` is lost.
class OutputFile {
 public:
  static constexpr std::size_t gatheredBytes = 65536;

  // Opens, or makes, a regular file, emptied. False: it cannot be; errno says why. Never waits, whatever lies there.
  [[nodiscard]] bool open(const std::string& path);
  // Both are false when not all could be written: told as "write", with errno.
  [[nodiscard]] bool write(std::string_view bytes);
  [[nodiscard]] bool close();

 private:
  [[nodiscard]] bool flush();

  UniqueFd fd_;
  std::string gathered_;
};

// The file of a form upload.
class UploadedFile : public UploadTarget {
 public:
  explicit UploadedFile(std::uint32_t policies) : policies_(policies) {}

  // Logs them.
  void onHeaders(const Headers& headers) override;
  bool open(std::string_view name) override;
  bool write(std::string_view bytes) override;
  bool close() override { return file_.close(); }

 private:
  const std::uint32_t policies_;
  OutputFile file_;
};
