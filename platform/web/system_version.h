#pragma once

#include <string>

// The first line of a file that names a version, without blanks around it; the program's own version when there is no
// such file or the line is empty or holds other than visible characters and spaces. At the most 63 bytes.
[[nodiscard]] std::string readVersion(const char* path);
