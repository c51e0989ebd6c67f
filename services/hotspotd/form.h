#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hotspot {

// The value of a field of a form as browsers send it ("application/x-www-form-urlencoded"): the first of that name,
// decoded; empty when there is none. Nothing when the form is malformed: a percent sign without two hexadecimal digits.
[[nodiscard]] std::optional<std::string> formField(std::string_view form, std::string_view name);

}  // namespace hotspot
