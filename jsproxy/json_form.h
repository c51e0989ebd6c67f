#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/bus/message.h"

// The JSON form of bus messages, which browsers write and read without a codec of their own: an object literal with
// bare keys (the type's letter and the id in hexadecimal), strings in single quotes, booleans as digits and no white
// space, as in {u1:5,b2:1,s3:'it\'s',Uff0002:[1,2]}. docs/json-form.md describes it.
//
// Both directions are pure functions over bytes. Browsers in the field depend on every oddity of either one, so none is
// to be mended: the writer's dangling commas and unclosed braces after broken input, the reader's odd acceptances.

// Appends the JSON form of a flattened message. The bytes need not be valid: a field that cannot be read is left out,
// but for its comma. False: there was no message (fewer than two bytes give "{}", a wrong magic "{"), or an array ran
// past the end and the text stops there.
bool writeJson(std::string& out, std::span<const std::uint8_t> flattened);

// Nested messages that the reader follows below the outermost one.
inline constexpr unsigned maxJsonDepth = 11;

// Reads the NUL-terminated text at `p` into `msg`, which is normally empty; the outermost call has depth 0. Returns the
// position of the message's closing brace when all was well, and otherwise the position where it was not; `msg` then
// holds the fields up to there. A stray character inside an array of addresses is never passed: the call does not
// return.
const char* parseJson(const char* p, tn::message& msg, unsigned depth);

// The body of a quoted string, from behind its opening quote: appended to `out`. Returns the position of the quote that
// ended it, or of the NUL.
const char* parseQuoted(const char* p, std::string& out);

// A list of byte values from its opening bracket on: appended to `out`. Returns the position behind the closing
// bracket, or where it stopped.
const char* parseByteList(const char* p, std::vector<std::uint8_t>& out);
