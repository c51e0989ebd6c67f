#pragma once

// How often the program has taken memory from the heap so far. Linking allocations.cc replaces the operators of the
// whole program.
[[nodiscard]] unsigned long allocations();
