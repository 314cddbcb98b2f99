// libFuzzer target: one statement line through process(), a scratch file as the device, -t on after
// a first byte 0x01. Left out: `system`, `pause` (reads standard input), `delay`, `set buffer` (an
// arbitrary address), data commands counting "*" or over 16 records.
#include <fcntl.h>
#include <sys/mman.h>

#include <cstdlib>
#include <string_view>

#include "context/context.h"
#include "device/executor.h"
#include "script/script.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // `type` and the error lines print on standard output; keep it quiet.
    static FILE* scratch = freopen("/dev/null", "w", stdout) ? fopen("/dev/null", "w") : (abort(), nullptr);
    const bool trace = size > 0 && data[0] == 1;
    if (trace) ++data, --size;
    char line[kInputLineSize] = {};  // up to the first newline, at most what a batch line holds
    std::size_t length = 0;
    for (; length < size && length < kInputLineSize - 1 && data[length] != '\n' && data[length] != 0; ++length) {
        line[length] = static_cast<char>(data[length]);
    }
    for (std::string_view banned : {"system", "pause", "delay", "buffer"}) {
        if (std::string_view(line, length).find(banned) != std::string_view::npos) return -1;
    }
    TokenList tokens{};  // the count of every data command sits three tokens after its name
    int32_t command = -1, result = -1, statement = -1;
    StatementKind kind{};
    const int count = parse(line, scratch, tokens, command, result, statement, kind);
    for (int i = 0; i + 4 < count; ++i) {
        const std::string_view value = token_text(line, tokens, i + 4);
        if (token_text(line, tokens, i) == "command" && (value == "*" || parse_count(value) > 16)) return -1;
    }
    static int device = -1;
    if (device < 0 || fcntl(device, F_GETFD) == -1) device = memfd_create("device", 0);  // closed by the last input
    reset_test_context();
    test_context.device_handle = device, test_context.trace = trace ? 1 : 0, test_context.line_number = 1;
    process(line, scratch);
    return 0;
}
