#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// MIME type by the suffix of a file name; without a known one, the given default or "application/octet-stream". The view lives for ever or as long as the default.
[[nodiscard]] std::string_view getContentType(std::string_view name, const char* fallback);

// The non-empty pieces of `text` between the separators.
[[nodiscard]] std::vector<std::string> tokenize(std::string_view text, char separator);

// A decimal number of digits alone, below 2^32. False, and `value` unchanged, for anything else.
bool parseNumber(std::string_view text, unsigned* value);

// HTTP date (RFC 9110, 5.6.7) of a time in seconds since the epoch; "0" when it cannot be told.
[[nodiscard]] std::string httpDate(std::int64_t seconds);

// Where a name of the user's store lies in the file system: under "/rw/disk", or under "/flash" for names that begin with "/flash/".
// Nothing for a name with an empty, "." or ".." piece, a NUL or a control character, or one whose existing parents lead out of the store
// through a symbolic link.
[[nodiscard]] std::optional<std::string> lookupUserFile(std::string_view name);

// Whether a name of the user's store holds secrets: "*.backup", "*.key", "*.pem", "*.p12", "*.db", and everything in a folder named "private".
[[nodiscard]] bool isSensitiveFile(std::string_view name);

// Makes the folders above a path that lookupUserFile returned. False: one could not be made (errno says why).
bool makeUserPathFor(std::string_view path);

// Version of the system, as in /tarn/etc/version; the program's own when there is no such file.
[[nodiscard]] std::string getOSVersion();
