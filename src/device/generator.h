// The C library's srand/rand generator, computed in the tool itself.
//
// Records written by any earlier run, on any glibc system, must verify, so
// every value is the one glibc's srand and rand give: its additive-feedback
// generator on a 31-word state (x[i] = x[i-3] + x[i-31] mod 2^32, value
// x >> 1), seeded by the 16807 multiplicative generator and 310 discarded
// values. Owning it saves the library's lock and call per value, and lets a
// seeding that is never drawn from cost nothing.
#pragma once

#include <cstdint>

// The running sequence of the data commands (random sectors, random-read
// lengths, the one draw around each record pattern).

// Seeds the running sequence as srand(seed) would.
void seed_running_sequence(uint32_t seed);

// The next value of the running sequence: what rand() would return.
int32_t next_running_value();

// Low 8 bits of the first kSeededBytes values after srand(seed), in order:
// the record pattern. Leaves the running sequence alone.
inline constexpr int32_t kSeededBytes = 252;
void seeded_low_bytes(uint32_t seed, uint8_t* bytes);
