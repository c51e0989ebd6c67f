#pragma once

#include <functional>
#include <string>
#include <string_view>

// What a page template can ask for, between percent signs: %version%, %host%, %port%, %user%, %varnox%.
enum class Placeholder { version, host, port, user, varnox };

// The template with its placeholders replaced by what `value` gives, which is called for each of them in order. Two
// percent signs stand for one; a percent sign that begins neither is dropped, and what follows it is plain text.
[[nodiscard]] std::string fillTemplate(std::string_view text, const std::function<std::string(Placeholder)>& value);
