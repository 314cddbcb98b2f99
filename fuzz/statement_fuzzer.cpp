// libFuzzer target over the statement path: one statement line through
// process(), as a batch line or a menu selection would reach it, against a
// scratch file standing in for the device.
//
// Statements that would leave the sandbox or stall are filtered out before
// they run: `system` (shell commands), `pause` (waits for standard input),
// `delay` (sleeps), `set buffer` (hands an arbitrary address to the next
// transfer), and data commands whose record count is above kMaxRecords or
// "*" (long loops that only slow the search down).
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "context/context.h"
#include "script/script.h"

namespace {

constexpr int32_t kMaxRecords = 16;
FILE* scratch = nullptr;
int device = -1;

bool is_separator(char c) { return static_cast<signed char>(c) <= 32; }

// The value the command executor would read for a record count.
int32_t record_count(std::string_view token) {
    uint32_t value = 0;
    std::size_t i = 0;
    bool negative = !token.empty() && token[0] == '-';
    if (negative) i = 1;
    for (; i < token.size(); ++i) value = value * 10 + static_cast<uint32_t>(token[i] - '0');
    return static_cast<int32_t>(negative ? 0U - value : value);
}

bool acceptable(std::string_view line) {
    for (std::string_view banned : {"system", "pause", "delay", "buffer"}) {
        if (line.find(banned) != std::string_view::npos) return false;
    }
    std::string_view tokens[kMaxTokens + 1];
    int count = 0;
    for (std::size_t i = 0; i < line.size() && count <= kMaxTokens;) {
        while (i < line.size() && is_separator(line[i])) ++i;
        std::size_t start = i;
        while (i < line.size() && !is_separator(line[i])) ++i;
        if (i > start) tokens[count++] = line.substr(start, i - start);
    }
    // The count of every data command sits three tokens after its name.
    for (int i = 0; i + 4 < count; ++i) {
        if (tokens[i] != "command") continue;
        std::string_view value = tokens[i + 4];
        if (value == "*" || record_count(value) > kMaxRecords) return false;
    }
    return true;
}

void open_device() {
    if (device >= 0 && fcntl(device, F_GETFD) != -1) return;
    char name[] = "/tmp/tarnwick-fuzz-device.XXXXXX";
    device = mkstemp(name);
    if (device < 0) {
        perror("mkstemp");
        abort();
    }
    unlink(name);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // `type` and the error lines print on standard output; keep it quiet.
    if (freopen("/dev/null", "w", stdout) == nullptr) abort();
    scratch = fopen("/dev/null", "w");
    if (scratch == nullptr) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // A first byte of 0x01 turns on the tool's own trace lines (-t).
    bool trace = size > 0 && data[0] == 1;
    if (trace) {
        ++data;
        --size;
    }
    // One line: up to the first newline, at most what a batch line holds.
    char line[kInputLineSize] = {};
    std::size_t length = 0;
    while (length < size && length < kInputLineSize - 1 && data[length] != '\n' && data[length] != 0) {
        line[length] = static_cast<char>(data[length]);
        ++length;
    }
    if (!acceptable(std::string_view(line, length))) return -1;

    reset_test_context();
    open_device();
    test_context.device_handle = device;
    test_context.trace = trace ? 1 : 0;
    test_context.line_number = 1;
    process(line, scratch);
    return 0;
}
