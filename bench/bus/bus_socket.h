#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/unique_fd.h"

// What the relay and the clients of the bus benchmark share: blocking unix stream sockets. A failure ends the process
// with a line on standard error, since a benchmark that goes on after one measures something else.

[[noreturn]] void fail(const char* what);

[[nodiscard]] UniqueFd listenOn(const char* path);
// Waits up to two seconds for somebody to listen.
[[nodiscard]] UniqueFd connectTo(const char* path);

void writeAll(int socket, std::span<const std::uint8_t> bytes);
// 0 at the end.
[[nodiscard]] std::size_t readSome(int socket, std::span<std::uint8_t> space);
void readAll(int socket, std::span<std::uint8_t> bytes);

// A whole decimal argument above 0.
[[nodiscard]] std::uint32_t numberArgument(const char* text);

// As large a piece as the broker reads at once.
inline constexpr std::size_t readBytes = 128U << 10;
