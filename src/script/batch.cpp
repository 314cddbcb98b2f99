// Batch runner: feeds a batch input file line by line to the dispatcher and
// writes the transcript testers diff.
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>

#include "context/context.h"
#include "context/output.h"
#include "script/script.h"

namespace {

constexpr int kToolVersion = 1;
constexpr std::size_t kLineBufferSize = 256;
// fgets keeps one byte for its terminator, so a piece holds at most 254
// characters and the buffer always ends in zero bytes.
constexpr int kLinePieceRead = 255;
constexpr std::size_t kCtimeTextSize = 26;

struct BatchLine {
    char text[kLineBufferSize];
    char read_time[kCtimeTextSize];  // ctime text of the moment the line was read
};

// ctime fails only for years it cannot print; the transcript then shows
// an empty time rather than the run ending.
const char* ctime_text(const time_t& when) {
    const char* text = ctime(&when);
    return text != nullptr ? text : "";
}

void copy_ctime(char (&target)[kCtimeTextSize], time_t when) {
    std::memset(target, 0, sizeof target);
    std::strncpy(target, ctime_text(when), sizeof target - 1);
}

// False, nothing read, once the line counter is at its bound.
bool read_line(FILE* input, BatchLine& line) {
    if (!count_batch_line()) return false;
    std::memset(line.text, 0, sizeof line.text);
    if (fgets(line.text, kLinePieceRead, input) == nullptr) line.text[0] = '\0';
    newline_to_blank(line.text, kLinePieceRead);
    copy_ctime(line.read_time, time(nullptr));
    return true;
}

void write_banner(FILE* output) {
    const TestContext& c = test_context;
    fprintf(output, "Batch test begin at time %s\n", ctime_text(c.start_time));
    fprintf(output, "Test tool version %.4d \n", kToolVersion);
    if (c.platform == kPlatformLinux) {
        fprintf(output, "Linux   test platform,\n");
    } else {
        fprintf(output, "Unknown test platform,\n");
    }
    if (c.input_file_given) fprintf(output, "batch input   file: %s \n", c.batch_input_file);
    if (c.output_file_given) fprintf(output, "batch output  file: %s \n", c.batch_output_file);
    if (c.special_file_given) fprintf(output, "batch special file: %s \n", c.special_file);
    fflush(output);
}

void write_summary(FILE* output) {
    const TestContext& c = test_context;
    const time_t end_time = time(nullptr);
    const double elapsed = difftime(end_time, c.start_time);
    fprintf(output, "Total elapsed time in seconds = %8.2f \n", elapsed);
    fprintf(output, "Bytes transferred = %10f \n", c.bytes_transferred);
    // At zero elapsed seconds this is inf (or nan with nothing moved); the
    // transcript shows it as printf formats it.
    fprintf(output, "Data rate = %8.2f bytes/second \n", c.bytes_transferred / elapsed);
    fprintf(output, "Batch test end rc=%d at time %s \n", c.result_code, ctime_text(end_time));
}

// For a tester at a terminal, the stopping line as the script has it and,
// when a check failed there, what its analysis wrote: the reason stands beside
// the verdict without opening the transcript. Control bytes of the line are
// shown as "?", so a script cannot drive the terminal.
void show_reason(const BatchLine& line) {
    const TestContext& c = test_context;
    char text[kLineBufferSize];
    std::size_t length = strnlen(line.text, sizeof line.text - 1);
    while (length > 0 && (line.text[length - 1] == ' ' || line.text[length - 1] == '\t')) --length;
    for (std::size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(line.text[i]);
        text[i] = byte < 0x20 || byte == 0x7f ? '?' : line.text[i];
    }
    text[length] = '\0';
    fprintf(stderr, "Line %5d >>> %s\n", c.line_number, text);
    if (c.failed_line > 0 && c.failed_line == c.line_number) fputs(analysis_reason(), stderr);
}

}  // namespace

bool count_batch_line() {
    // Endless input (say /dev/zero) must not run the counter past int32.
    if (test_context.line_number == INT32_MAX) return false;
    ++test_context.line_number;
    return true;
}

void newline_to_blank(char* buffer, std::size_t length) {
    for (std::size_t i = 0; i < length && buffer[i] != '\0'; ++i) {
        if (buffer[i] == '\n') buffer[i] = ' ';
    }
}

void batch_test_menu() {
    TestContext& c = test_context;
    c.line_number = 0;
    ttrace(stdout, "TTRACE: batch_test_menu entered.\n");

    FILE* input = fopen(c.batch_input_file, "r");
    if (input == nullptr) {
        fprintf(stderr, "Error opening file '%s' \n", c.batch_input_file);
        return;
    }
    FILE* output = open_output(c.batch_output_file, "w+");
    if (output == nullptr) {
        fprintf(stderr, "Error opening file '%s' \n", c.batch_output_file);
        fclose(input);
        return;
    }

    c.start_time = time(nullptr);
    write_banner(output);

    BatchLine line;
    bool line_read = read_line(input, line);
    for (;;) {
        if (!line_read) {
            fprintf(output, "batch input longer than %d lines \n", INT32_MAX);
            report_syntax_error();
            break;
        }
        // A line read as the signal came (or after the transcript was
        // lost) is neither echoed nor executed.
        if (stop_requested() || output_lost()) break;
        fprintf(output, "%.8s Line %5d >>> %s \n", line.read_time + 11, c.line_number, line.text);
        // A read error (say the input names a directory) ends the input as
        // surely as its end does; otherwise the loop would never finish.
        if (feof(input) || ferror(input)) break;
        if (c.skip_count != 0) {
            fprintf(output, "   line skipped. \n");
            // A negative count skips every remaining line; it must not wrap
            // round to a positive one.
            if (c.skip_count != INT32_MIN) --c.skip_count;
        } else {
            process(line.text, output);
        }
        if (c.result_code != 0 || stop_requested()) break;
        line_read = read_line(input, line);
    }

    write_summary(output);
    const int stopped_by = settled_stop_signal();
    if (stopped_by != 0) {
        fprintf(output, "Batch test stopped by signal %d (%s) \n", stopped_by, stop_signal_name(stopped_by));
        printf("Test \"%s\" was stopped by signal %d (%s).\n", c.batch_input_file, stopped_by,
               stop_signal_name(stopped_by));
    }
    if (c.result_code != 0) {
        if (c.failed_line > 0) {
            printf("Test \"%s\" has failed at line %d.\n", c.batch_input_file, c.failed_line);
        } else {
            printf("Test \"%s\" has failed.\n", c.batch_input_file);
        }
        if (stderr_is_terminal()) show_reason(line);
    }
    fclose(input);
    close_output(output);
    ttrace(stdout, "TTRACE: batch_test_menu exit.\n");
}
