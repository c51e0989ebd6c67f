#pragma once

#include <string_view>

// Whether `text` is a host with or without a port (RFC 3986, 3.2.2 and 3.2.3), as a Host field and the authority of a
// target hold it. User information is no part of it: RFC 9110 (4.2.4) has it refused, since it serves to deceive.
[[nodiscard]] bool isAuthority(std::string_view text);

// As isAuthority, but the port must be there: the target of a CONNECT (RFC 9112, 3.2.3).
[[nodiscard]] bool isAuthorityWithPort(std::string_view text);
