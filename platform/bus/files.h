#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace tn {

// The path under which a file of the system is to be opened, packages included.
//
// With `packages` true: the path itself when it exists; else the first "/rw/pckg/<package>" + path that exists,
// packages in byte order; else the path itself. A path under "/rw/pckg/" is looked for in the system first: "/rw/pckg/"
// + name is
// "/home/web/" + name when that exists. With `packages` false: the path itself.
[[nodiscard]] std::string findFile(std::string_view path, bool packages);

// As findFile(path, true), with what stat(2) said of the result, so that it need not be asked again.
struct FoundFile {
  std::string path;
  std::optional<struct stat> status;  // nothing: it does not exist
};
[[nodiscard]] FoundFile lookupFile(std::string_view path);

// What a lookup asks of the file system. This one asks the kernel; others may look into another tree, or note down what
// was asked.
class FileView {
 public:
  FileView() = default;
  FileView(const FileView&) = delete;
  FileView& operator=(const FileView&) = delete;
  virtual ~FileView() = default;

  // What stat(2) says; nothing when it fails.
  [[nodiscard]] virtual std::optional<struct stat> status(const std::string& path);
  // The names in a folder but for "." and "..", in byte order; none when it cannot be read.
  [[nodiscard]] virtual std::vector<std::string> names(const std::string& folder);
};
// lookupFile through a view.
[[nodiscard]] FoundFile lookupFile(std::string_view path, FileView& view);

// Whether a file is there. A relative path is taken from "/". `mode` is an access(2) mode: 0 asks for existence alone.
[[nodiscard]] bool fileExists(std::string_view path, int mode);

// Two hexadecimal digits a byte, separated by single spaces.
[[nodiscard]] std::string hexdump(std::span<const std::uint8_t> bytes);

}  // namespace tn
