#pragma once

#include <string_view>

// The whole status line, line end included, of a status that RFC 9110 or one of its companions defines; empty for
// others.
[[nodiscard]] std::string_view statusLine(int status);

// Its reason phrase; empty for others.
[[nodiscard]] std::string_view reasonPhrase(int status);
