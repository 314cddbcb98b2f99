// Start-up: context, command line, usage text, trace facility, then the
// batch runner or the manual test menu.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "context/context.h"
#include "context/output.h"
#include "context/results.h"
#include "device/generator.h"
#include "menu/menu.h"
#include "script/script.h"
#include "trace/trace.h"

namespace {

void print_usage() {
    printf("Usage: \n");
    printf("  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>\n");
    printf(" \n");
}

bool option_is(const char* argument, const char* option) {
    return std::strncmp(argument, option, 2) == 0;
}

struct FileOption {
    const char* option;
    char* field;
    int32_t* given;
};

// Returns false after printing the failure; the caller then ends with -2.
bool read_command_line(int argc, char** argv) {
    TestContext& c = test_context;
    const FileOption file_options[] = {
        {"-f", c.batch_input_file, &c.input_file_given},
        {"-o", c.batch_output_file, &c.output_file_given},
        {"-d", c.special_file, &c.special_file_given},
        {"-j", results_file, &results_file_given},
    };
    int position = 1;
    for (;;) {
        int mark = position;
        if (option_is(argv[position], "-t")) {
            c.trace = 1;
            mark = -1;
        }
        // Each option looks at the argument at the current, possibly already
        // advanced, position: "-f -o out" makes "-o" the input file name.
        for (const FileOption& o : file_options) {
            if (!option_is(argv[position], o.option)) continue;
            ++position;
            if (position >= argc) {
                printf("Invalid syntax, file name missing after %s option \n", o.option);
                return false;
            }
            // A cut-down name could name (and with -o, empty) some other
            // file, so an over-long one is refused outright.
            if (!copy_to_field(o.field, kFileNameSize, argv[position])) {
                printf("Invalid syntax, file name after %s option longer than %zu characters \n",
                       o.option, kFileNameSize - 1);
                return false;
            }
            *o.given = 1;
        }
        if (position == mark) {
            printf("Invalid syntax, '%s' is unrecognized. \n", argv[position]);
            print_usage();
            return false;
        }
        ++position;
        if (position >= argc) return true;
    }
}

// Whether two names lead to one existing file. A missing file is no clash,
// and its ENOENT must not be left for the first statement to report as the
// system's last error.
bool same_file(const char* one, const char* other) {
    struct stat a = {};
    struct stat b = {};
    const int saved = errno;
    const bool both = stat(one, &a) == 0 && stat(other, &b) == 0;
    errno = saved;
    return both && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Writing the transcript over the script it runs would destroy the script
// (and read the banner back as line 1), whatever names lead to the file.
bool output_is_input() {
    const TestContext& c = test_context;
    if (!same_file(c.batch_input_file, c.batch_output_file)) return false;
    fprintf(stderr, "Error, batch output file '%s' is the batch input file '%s' \n", c.batch_output_file,
            c.batch_input_file);
    return true;
}

// The results file is emptied at start: over the script it would destroy
// it, and over the transcript the two would be written into each other.
bool results_clash() {
    const TestContext& c = test_context;
    if (c.input_file_given == 1 && same_file(results_file, c.batch_input_file)) {
        fprintf(stderr, "Error, results file '%s' is the batch input file '%s' \n", results_file,
                c.batch_input_file);
        return true;
    }
    if (c.input_file_given == 1 && (std::strcmp(results_file, c.batch_output_file) == 0 ||
                                    same_file(results_file, c.batch_output_file))) {
        fprintf(stderr, "Error, results file '%s' is the batch output file '%s' \n", results_file,
                c.batch_output_file);
        return true;
    }
    return false;
}

// A standard stream closed at start would hand its number to the first
// file opened, and what the tool prints there would land in that file.
void keep_standard_streams_open() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY) == -1) return;
    }
}

int exit_status() {
    const int stopped_by = settled_stop_signal();
    if (output_lost()) return kExitOutputLost;
    if (stopped_by != 0) return 128 + stopped_by;
    return test_context.result_code;
}

}  // namespace

int main(int argc, char** argv) {
    keep_standard_streams_open();
    catch_stop_signals();
    setvbuf(stdout, nullptr, _IONBF, 0);
    reset_test_context();
    seed_running_sequence(static_cast<uint32_t>(time(nullptr)));

    if (argc > 1 && !read_command_line(argc, argv)) return kResultSyntaxError;
    if (test_context.input_file_given == 1 && output_is_input()) return kResultSyntaxError;
    if (results_file_given == 1 && results_clash()) return kResultSyntaxError;

    print_usage();
    if (results_file_given == 1 && !results_open()) return kExitOutputLost;
    trace_init();
    results_run_start();
    if (test_context.input_file_given == 1) {
        batch_test_menu();
    } else {
        manual_test_menu();
    }
    trace_close_output();
    ttrace(stdout, "TTRACE: main exit.\n");
    results_run_end(exit_status());
    results_close();
    return exit_status();
}
