#include "context/context.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <initializer_list>
#include <limits>

#include <unistd.h>

TestContext test_context;

int64_t sector_size = 512;
int64_t block_count = 1;
int64_t block_seek = 0;
int64_t block_max = 1000;
int64_t depth = 1;

volatile sig_atomic_t stop_signal = 0;
volatile sig_atomic_t shell_group = 0;

namespace {

int settled = -1;

void note_stop_signal(int number) {
    const int saved = errno;
    stop_signal = number;
    // A stopped command (say one that read the terminal from the
    // background) takes the signal only once it is continued. Continued
    // first: a late SIGCONT would reach a process already ending, and cancel
    // the stop a debugger or leak checker attaching then waits for.
    if (shell_group > 0 && kill(-shell_group, SIGCONT) == 0) kill(-shell_group, number);
    errno = saved;
}

// Left in place of SIG_IGN so that commands run by a system statement
// still start with SIGPIPE and SIGXFSZ at their defaults: ignoring is
// inherited, a handler is not. The write at fault fails with EPIPE or EFBIG.
void note_failed_write(int) {}

void handle(int number, void (*handler)(int), int flags) {
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = flags;
    if (sigaction(number, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN) return;
    sigaction(number, &action, nullptr);
}

}  // namespace

void catch_stop_signals() {
    // No SA_RESTART for a stop: a prompt or a delay waiting when the signal
    // comes returns at once instead of holding the run. A failed write is no
    // reason to end a prompt's wait, so those restart.
    for (const StopSignal& stop : kStopSignals) handle(stop.number, note_stop_signal, 0);
    handle(SIGPIPE, note_failed_write, SA_RESTART);
    handle(SIGXFSZ, note_failed_write, SA_RESTART);
}

int settled_stop_signal() {
    if (settled < 0) settled = stop_signal;
    return settled;
}

const char* stop_signal_name(int number) {
    for (const StopSignal& stop : kStopSignals)
        if (stop.number == number) return stop.name;
    return "?";
}

bool checked_product(int64_t a, int64_t b, int64_t& product) {
    int64_t result = 0;
    if (__builtin_mul_overflow(a, b, &result)) return false;
    product = result;
    return true;
}

int64_t saturated_product(int64_t a, int64_t b) {
    int64_t result = 0;
    if (checked_product(a, b, result)) return result;
    return (a < 0) != (b < 0) ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
}

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
    depth = 1;
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

void printable_copy(const uint8_t* source, char* destination, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        destination[i] = source[i] >= 0x20 && source[i] <= 0x7e ? static_cast<char>(source[i]) : '.';
    }
    destination[n < 0 ? 0 : n] = '\0';
}

bool read_answer_line(FILE* input, char* line, std::size_t size) {
    std::size_t length = 0;
    int c = EOF;
    while ((c = std::fgetc(input)) != EOF) {
        if (length < size - 1) line[length++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    line[length] = '\0';
    return length > 0 || c != EOF;
}
