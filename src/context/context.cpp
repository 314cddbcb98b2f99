#include "context/context.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <unistd.h>

TestContext test_context;

int64_t sector_size = 512;
int64_t block_count = 1;
int64_t block_seek = 0;
int64_t block_max = 1000;

void report_syntax_error() {
    printf("batch file syntax error, line %d \n", test_context.line_number);
    test_context.result_code = kResultSyntaxError;
}

bool stderr_is_terminal() {
    // Asked between commands whose errno a result clause may still judge.
    const int saved = errno;
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    errno = saved;
    return terminal;
}

void ttrace(FILE* stream, const char* format, ...) {
    if (test_context.trace != 1) return;
    va_list args;
    va_start(args, format);
    vfprintf(stream, format, args);
    va_end(args);
    fflush(stream);
}

void reset_test_context() {
    TestContext& c = test_context;
    std::memset(c.io_buffer, 0, sizeof c.io_buffer);
    c.trace = 0;
    c.input_file_given = 0;
    c.output_file_given = 0;
    c.special_file_given = 0;
    c.result_code = kResultOk;
    c.bytes_transferred = 0.0;
    c.platform = kPlatformLinux;
    c.open_device[0] = '\0';
    c.all_operations = 0;
    sector_size = 512;
    block_count = 1;
    block_seek = 0;
    block_max = 1000;
    std::strcpy(c.batch_input_file, "tarnwick.in");
    c.device_handle = -1;
    c.buffer_override_armed = 0;
    c.skip_count = 0;
    std::strcpy(c.batch_output_file, "tarnwick.out");
    std::memset(c.inquiry_data, 0, sizeof c.inquiry_data);
}

bool copy_to_field(char* field, std::size_t field_size, const char* text) {
    std::size_t length = std::strlen(text);
    if (length >= field_size) return false;
    std::memcpy(field, text, length + 1);
    return true;
}
