#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/unique_fd.h"
#include "services/sysd/source.h"

namespace sysd {

// Reads the status from the kernel: the texts under /proc, statvfs, getifaddrs. Nothing here waits for a disk or for
// the network; file systems that would are left out.
class KernelSource : public Source {
 public:
  static constexpr std::size_t maxProcesses = 512;
  static constexpr std::size_t maxFileSystems = 64;

  // `proc` is where /proc is mounted.
  explicit KernelSource(std::string proc = "/proc");

  [[nodiscard]] tn::message read(Object object) override;

 private:
  [[nodiscard]] tn::message readSystem();
  [[nodiscard]] tn::message readMemoryObject();
  [[nodiscard]] tn::message readStorage();
  [[nodiscard]] tn::message readInterfaces();
  [[nodiscard]] tn::message readProcesses();

  // The text of a file below `proc_`; nothing, and errno set, when it cannot be read or is too long.
  [[nodiscard]] std::optional<std::string> readText(const std::string& name);

  std::string proc_;
  UniqueFd socket_;  // what interfaces are asked through
};

}  // namespace sysd
