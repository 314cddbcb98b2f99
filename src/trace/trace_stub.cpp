// Placeholder until the trace facility lands: trace_init already does what
// every run needs (trace.out open for appending, the two buffers).
#include <cstdlib>

#include "context/context.h"
#include "trace/trace.h"

namespace {
FILE* trace_output = nullptr;
void* raw_buffer = nullptr;
void* cooked_buffer = nullptr;
}  // namespace

void trace_init() {
    trace_output = fopen("trace.out", "a+");
    if (trace_output == nullptr) {
        fprintf(stderr, "trace_init error opening file >%s<\n", "trace.out");
        exit(1);
    }
    raw_buffer = malloc(272144);
    if (raw_buffer == nullptr) {
        printf("plimsor fail to malloc %lu bytes for raw buffer exiting\n", 272144UL);
        exit(1);
    }
    cooked_buffer = malloc(272144);
    if (cooked_buffer == nullptr) {
        printf("plimsor fail to malloc %lu bytes for cook buffer exiting\n", 272144UL);
        exit(1);
    }
}

int trace_menu(FILE*) { return 99; }
