// The C library's srand/rand generator, computed in the tool itself.
//
// Written out as one sequence, srand(s) sets x[0] = s (1 for 0) and
// x[i] = 16807^i * s mod (2^31 - 1) for i = 1..30, repeats x[0..2] as
// x[31..33], and goes on with x[i] = x[i-3] + x[i-31] mod 2^32; the n-th
// rand() after it (n from 0) is x[344 + n] >> 1, the first 310 values
// being discarded by srand itself.
#include "device/generator.h"

#include <array>
#include <cstring>

namespace {

constexpr uint64_t kModulus = 2147483647;  // 2^31 - 1
constexpr int32_t kDegree = 31;
constexpr int32_t kSeparation = 3;
constexpr int32_t kFirstValue = 344;  // x index of the first value after seeding

// 16807^i mod (2^31 - 1), i = 0..30.
constexpr std::array<uint64_t, kDegree> kPowers = [] {
    std::array<uint64_t, kDegree> powers{};
    powers[0] = 1;
    for (int32_t i = 1; i < kDegree; ++i) powers[i] = powers[i - 1] * 16807 % kModulus;
    return powers;
}();

// x[344] as a sum of the seed words x[0..30] times these, mod 2^32: the
// first value after seeding without running the 310 discards.
constexpr std::array<uint32_t, kDegree> kFirstValueWeights = [] {
    std::array<std::array<uint32_t, kDegree>, kFirstValue + 1> x{};
    for (int32_t i = 0; i < kDegree; ++i) x[i][i] = 1;
    for (int32_t i = kDegree; i < kDegree + kSeparation; ++i) x[i] = x[i - kDegree];
    for (int32_t i = kDegree + kSeparation; i <= kFirstValue; ++i) {
        for (int32_t j = 0; j < kDegree; ++j) x[i][j] = x[i - kSeparation][j] + x[i - kDegree][j];
    }
    return x[kFirstValue];
}();

// srand's seed words. glibc runs the 16807 generator step by step on the
// seed read as a signed 32-bit value; each step here is taken straight from
// that value, reduced mod 2^31 - 1 (2^32 is 2 there), which gives the same
// words for every seed, multiples of the modulus included.
void seed_words(uint32_t seed, uint32_t* x) {
    if (seed == 0) seed = 1;
    x[0] = seed;
    const uint64_t s = seed > kModulus ? seed - 2 : seed;
    for (int32_t i = 1; i < kDegree; ++i) {
        uint64_t p = s * kPowers[i];  // below 2^63
        p = (p & kModulus) + (p >> 31);
        p = (p & kModulus) + (p >> 31);
        x[i] = static_cast<uint32_t>(p >= kModulus ? p - kModulus : p);
    }
}

uint32_t first_value(uint32_t seed) {
    uint32_t x[kDegree];
    seed_words(seed, x);
    uint32_t sum = 0;
    for (int32_t j = 0; j < kDegree; ++j) sum += kFirstValueWeights[j] * x[j];
    return sum >> 1;
}

// The generator's state as glibc keeps it: a ring of 31 words, the front
// word 3 places ahead of the rear.
struct Ring {
    uint32_t word[kDegree];
    int32_t front;
    int32_t rear;

    void seed(uint32_t s) {
        seed_words(s, word);
        front = kSeparation;
        rear = 0;
        for (int32_t i = 0; i < kFirstValue - kDegree - kSeparation; ++i) step();
    }
    int32_t step() {
        word[front] += word[rear];
        const uint32_t value = word[front] >> 1;
        if (++front == kDegree) front = 0;
        if (++rear == kDegree) rear = 0;
        return static_cast<int32_t>(value);
    }
};

// A seeding is only remembered; the ring is built when a second value is
// wanted, and the usual single draw comes from the seed words directly.
enum class Stage { seeded, drawn_once, running };

struct RunningSequence {
    Stage stage = Stage::seeded;
    uint32_t seed = 1;  // the C library starts as if seeded with 1
    Ring ring{};
} running;

}  // namespace

void seed_running_sequence(uint32_t seed) {
    running.stage = Stage::seeded;
    running.seed = seed;
}

int32_t next_running_value() {
    switch (running.stage) {
        case Stage::seeded:
            running.stage = Stage::drawn_once;
            return static_cast<int32_t>(first_value(running.seed));
        case Stage::drawn_once:
            running.ring.seed(running.seed);
            running.ring.step();
            running.stage = Stage::running;
            break;
        case Stage::running:
            break;
    }
    return running.ring.step();
}

void seeded_low_bytes(uint32_t seed, uint8_t* bytes) {
    // x[i], x[i+1] and x[i+2] add to the values three places back: three
    // independent chains, each kept in a register. Read back from memory,
    // or added in vector lanes that overlap the last stores, every step
    // would wait on a store. The last step writes two values past kEnd.
    constexpr int32_t kEnd = kFirstValue + kSeededBytes;
    uint32_t x[kEnd + 2];
    seed_words(seed, x);
    std::memcpy(x + kDegree, x, kSeparation * sizeof x[0]);
    uint32_t a = x[kDegree];
    uint32_t b = x[kDegree + 1];
    uint32_t c = x[kDegree + 2];
    for (int32_t i = kDegree + kSeparation; i < kEnd; i += kSeparation) {
        a += x[i - kDegree];
        x[i] = a;
        b += x[i + 1 - kDegree];
        x[i + 1] = b;
        c += x[i + 2 - kDegree];
        x[i + 2] = c;
    }
    for (int32_t k = 0; k < kSeededBytes; ++k) bytes[k] = static_cast<uint8_t>(x[kFirstValue + k] >> 1);
}
