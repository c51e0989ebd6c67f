#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// MIME type by the suffix of a file name, case not significant; without a known one, the given default or
// "application/octet-stream" when that is null. The view lives for ever or as long as the default.
[[nodiscard]] std::string_view getContentType(std::string_view name, const char* fallback);

// The non-empty pieces of `text` between the separators.
[[nodiscard]] std::vector<std::string> tokenize(std::string_view text, char separator);

// A decimal number of digits alone, below 2^32. False, and `value` unchanged, for anything else.
bool parseNumber(std::string_view text, unsigned* value);

// HTTP date (RFC 9110, 5.6.7) of a time in seconds since the epoch, the year with as many digits
// as it has; "0" when it has more than six.
[[nodiscard]] std::string httpDate(std::int64_t seconds);
// Appends the same.
void appendHttpDate(std::string& out, std::int64_t seconds);

// Where a name of the user's store lies in the file system: under "/rw/disk", or under "/flash" for names that begin
// with "/flash/". One "/" at the front of a name means nothing. The file need not exist. Links within the store are
// followed: what is returned is the path of what the name stands for, which is what isSensitiveFile has to be asked of.
//
// Nothing for a name with an empty, "." or ".." piece, a NUL or a control character, or one of whose existing pieces,
// the last included, is a symbolic link that leads out of the store or to nothing.
[[nodiscard]] std::optional<std::string> lookupUserFile(std::string_view name);

// Makes the folders above a name of the user's store, as far as they are missing. False: the name is none that
// lookupUserFile takes (errno is EINVAL), or a folder could not be made (errno says why).
bool makeUserPathFor(std::string_view name);

// Whether a name or path of the user's store holds secrets: "*.backup", "*.key", "*.pem", "*.p12", "*.db", and
// everything in a folder named "private". Case is not significant, since the store may lie on a file system that
// ignores it.
[[nodiscard]] bool isSensitiveFile(std::string_view name);

// Version of the system, as in /tarn/etc/version; the program's own when there is no such file.
[[nodiscard]] std::string getOSVersion();
