#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>

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

// Whether a file is there. A relative path is taken from "/". `mode` is an access(2) mode: 0 asks for existence alone.
[[nodiscard]] bool fileExists(std::string_view path, int mode);

// Two hexadecimal digits a byte, separated by single spaces.
[[nodiscard]] std::string hexdump(std::span<const std::uint8_t> bytes);

}  // namespace tn
