// The set statement and the settings display of the test variables.
#include <cinttypes>
#include <cstring>

#include "context/context.h"
#include "device/executor.h"
#include "device/variables.h"

namespace {

enum class Variable { block_seek, block_max, block_count, buffer, depth };

struct VariableName {
    std::string_view keyword;
    Variable variable;
};

constexpr VariableName kVariables[] = {
    {"block_seek", Variable::block_seek},
    {"block_max", Variable::block_max},
    {"block_count", Variable::block_count},
    {"buffer", Variable::buffer},
    {"depth", Variable::depth},
};

}  // namespace

int64_t record_size() { return saturated_product(block_count, sector_size); }

// A transfer or driver reply through an address inside this process's own
// writable memory would overwrite the tool's state (the context, the stack,
// the stdio buffers) behind its back. Such addresses are refused: the
// override stays unarmed, as if the statement had asked for the tool's own
// buffer, and that holds even when an earlier `set buffer` is still armed:
// the latest statement decides where the next transfer goes. Addresses
// elsewhere (unmapped or read-only) are handed on, and the system call
// reports EFAULT for them, which is what a tester probes for.
bool address_in_writable_memory(uint64_t address, uint64_t length) {
    FILE* maps = fopen("/proc/self/maps", "r");
    if (maps == nullptr) return true;  // cannot tell: refuse
    const uint64_t end = address + length < address ? UINT64_MAX : address + length;
    bool writable = false;
    char entry[512];
    while (!writable && fgets(entry, sizeof entry, maps) != nullptr) {
        uint64_t from = 0;
        uint64_t to = 0;
        char permissions[5] = {};
        if (sscanf(entry, "%" SCNx64 "-%" SCNx64 " %4s", &from, &to, permissions) == 3) {
            writable = permissions[1] == 'w' && from < end && address < to;
        }
        // Lines longer than the entry buffer (long path names) continue
        // into the next read; their tail never parses as a range.
    }
    fclose(maps);
    return writable;
}

int execute_set(const char* line, FILE* stream, const TokenList& tokens, int32_t index, int32_t count) {
    ttrace(stream, "TTRACE: execute_set entered (%s).\n", line);
    // Keyword, "=", value; a missing value reads as empty text, that is 0.
    const CommandClause statement{line, &tokens, index, count};
    const Variable* variable = nullptr;
    for (const VariableName& v : kVariables) {
        if (statement.token(0) == v.keyword) variable = &v.variable;
    }
    if (variable == nullptr) {
        fprintf(stream, "tarnwick error execute_set unrecognized command\n");
        return 0;
    }
    const int64_t value = parse_long(statement.token(2));
    switch (*variable) {
        case Variable::block_seek:
            if (value < 0) {
                block_seek = 0;
                fprintf(stream, "The seek sector value cannot be less than 0, set to default 0.\n");
            } else {
                block_seek = value;
            }
            break;
        case Variable::block_max:
            if (value >= 1 && value <= 512) {
                block_max = value;
            } else {
                block_max = 1;
                fprintf(stream, "The maximum sector value should be within 1 to 512, set to default 1.\n");
            }
            break;
        case Variable::block_count:
            if (value >= 1) {
                block_count = value;
            } else {
                block_count = 1;
                fprintf(stream, "The blocking factor value cannot be less or equal to 0, set to default 1.\n");
            }
            break;
        case Variable::depth:
            if (value >= 1 && value <= 256) {
                depth = value;
            } else {
                depth = 1;
                fprintf(stream, "The depth should be within 1 to 256, set to default 1.\n");
            }
            break;
        case Variable::buffer:
            if (address_in_writable_memory(static_cast<uint64_t>(value), kIoBufferSize)) {
                fprintf(stream, "The buffer address %lx lies in the tool's own memory, not set.\n",
                        static_cast<unsigned long>(value));
                test_context.buffer_override_armed = 0;
            } else {
                test_context.buffer_override = value;
                test_context.buffer_override_armed = 1;
            }
            break;
    }
    ttrace(stream, "TTRACE: execute_set exit.\n");
    return 1;
}

void settings() {
    const TestContext& c = test_context;
    ttrace(stdout, "TTRACE: settings entered.\n");
    printf("\nvariable settings\n=================\n");
    if (c.special_file_given) printf("device file: %s ", c.special_file);
    if (c.open_device[0] != '\0') {
        printf(" (%s) \n", c.open_device);
    } else {
        printf("\n");
    }
    printf("handle=%d  sector size=%ld  blocking factor=%ld  seek block=%ld \n", c.device_handle,
           static_cast<long>(sector_size), static_cast<long>(block_count), static_cast<long>(block_seek));
    printf("sectors on device=%ld \n", static_cast<long>(block_max));
    if (c.buffer_override_armed) printf("buffer address %lx \n", static_cast<unsigned long>(c.buffer_override));
    printf("\n");
    ttrace(stdout, "TTRACE: settings exit.\n");
}
