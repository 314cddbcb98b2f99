// The one record of run state shared by every subsystem, the four test
// variables, and the few helpers every subsystem prints through.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

inline constexpr std::size_t kIoBufferSize = 262144;   // largest record a data command moves
inline constexpr std::size_t kFileNameSize = 200;      // 199 characters and a terminator
inline constexpr std::size_t kInputLineSize = 256;     // 255 typed characters and a terminator
inline constexpr std::size_t kInquiryDataSize = 69;
inline constexpr int32_t kPlatformLinux = 6;

struct TestContext {
    int32_t platform;
    char input_line[kInputLineSize];
    char value_text[256];
    int32_t device_handle;
    double bytes_transferred;
    int64_t buffer_override;
    int32_t buffer_override_armed;
    int32_t skip_count;
    char batch_input_file[kFileNameSize];
    char batch_output_file[kFileNameSize];
    char special_file[kFileNameSize];
    char open_device[400];
    int32_t input_file_given;
    int32_t output_file_given;
    int32_t special_file_given;
    int32_t trace;
    int32_t line_number;
    int32_t result_code;
    int32_t failed_line;
    time_t start_time;
    // Page-aligned, so that a descriptor opened for direct transfers can move
    // any record straight between the device and the buffer: the kernel
    // wants the address aligned to the device's logical block size (at most
    // a page). Every record size is a multiple of sector_size.
    alignas(4096) uint8_t io_buffer[kIoBufferSize];
    int32_t all_operations;
    uint8_t inquiry_data[kInquiryDataSize];
};

// Zero-filled before main runs; start-up gives the fields their start values.
extern TestContext test_context;

// Test variables (process-wide, signed 64-bit).
extern int64_t sector_size;
extern int64_t block_count;
extern int64_t block_seek;
extern int64_t block_max;
// Records a data command keeps in flight at most, 1 to 256 (set depth).
extern int64_t depth;

// Result codes.
inline constexpr int32_t kResultOk = 0;
inline constexpr int32_t kResultCheckFailed = -1;
inline constexpr int32_t kResultSyntaxError = -2;
inline constexpr int32_t kResultExit = -3;

// "batch file syntax error, line %d \n" on standard output, result code -2.
void report_syntax_error();

// Whether standard error is a terminal, asked of the system once per run:
// only then do the screen-only aids (progress line, failure reason) appear.
bool stderr_is_terminal();

// A "TTRACE" style line: written and flushed only while tracing (-t) is on.
void ttrace(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The catchable signals whose default is to end the process: each asks the
// run to stop instead (SIGPIPE and SIGXFSZ only make the write at fault fail).
struct StopSignal {
    int number;
    const char* name;
};
inline constexpr StopSignal kStopSignals[] = {
    {SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"},     {SIGTERM, "SIGTERM"},
    {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}, {SIGALRM, "SIGALRM"},     {SIGVTALRM, "SIGVTALRM"},
    {SIGPROF, "SIGPROF"}, {SIGPOLL, "SIGPOLL"}, {SIGPWR, "SIGPWR"},       {SIGSTKFLT, "SIGSTKFLT"},
};

// The signal that asked the run to stop, 0 while none has. Its handler
// only notes it (and passes it on to a running system statement's
// commands): the batch runner looks between lines, the menus between
// prompts and the data commands between records, and the run then ends
// through its normal path, transcript summary included, with exit status
// 128 + the signal.
extern volatile sig_atomic_t stop_signal;
inline bool stop_requested() { return stop_signal != 0; }

// The process group of the commands a system statement is running, 0
// while none runs: a stop signal is passed on to the whole group.
extern volatile sig_atomic_t shell_group;

// The stop signal the run ends with, decided once, at the first call (the
// batch runner calls it where it writes the summary): a signal coming later
// changes neither the transcript nor the exit status, so the two agree.
int settled_stop_signal();

// "SIGINT" and the like for a stop signal, "?" for any other number.
const char* stop_signal_name(int number);

// Installs the stop handler for every stop signal (one ignored at start, as
// under nohup, stays ignored) and keeps SIGPIPE and SIGXFSZ from ending the
// run: a closed standard output or a full file must never cost the
// transcript; the write at fault fails instead.
void catch_stop_signals();

// Products of counts, sizes and offsets a script may set to anything.
// checked_product: false, product untouched, when a x b does not fit in
// 64 bits. saturated_product: a x b, or the 64-bit bound on its side when
// it does not fit, so a size too large stays too large.
bool checked_product(int64_t a, int64_t b, int64_t& product);
int64_t saturated_product(int64_t a, int64_t b);

// Puts every start value of the context and the test variables in place
// (start-up steps 2 and 4 to 6; the seeding of rand is main's).
void reset_test_context();

// Copies text into a fixed field; returns false, leaving the field untouched,
// when the text does not fit (a name is never stored cut short).
bool copy_to_field(char* field, std::size_t field_size, const char* text);

// Copies n bytes, "." for anything outside 0x20..0x7e, and terminates;
// destination holds n + 1 characters.
void printable_copy(const uint8_t* source, char* destination, int32_t n);

// Reads one answer line of a menu prompt into line (size bytes, the
// terminator included). A line that fits is kept whole, its line end
// included; of a longer line only the first size - 1 characters are kept and
// the rest is read and thrown away, so that one typed line is always exactly
// one answer and text pasted at one prompt never answers the next. Read by
// character, so a NUL byte cannot hide where the line ends. Returns false
// at end of input (nothing read).
bool read_answer_line(FILE* input, char* line, std::size_t size);
