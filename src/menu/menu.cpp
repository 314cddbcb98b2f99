// The manual test menu: each numbered selection asks for its parameters,
// builds one statement of the batch language and runs it through process()
// on standard output, exactly as a batch line would run.
#include "menu/menu.h"

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "context/context.h"
#include "device/access.h"
#include "device/variables.h"
#include "script/script.h"
#include "trace/trace.h"

namespace {

// The longest statement built is "system " and a full 255-character answer.
constexpr std::size_t kStatementSize = sizeof "system " - 1 + (kInputLineSize - 1) + 1;
static_assert(kStatementSize == 263);

constexpr std::string_view kMenuHead[] = {
    "manual test menu:",
    "=================\n",
    "  1: set device file name            2: set blocking factor ",
    "  3: set seek value                  4: set maximum sector  ",
    "  5: display symbols \n",
};

constexpr std::string_view kFullOperations[] = {
    " 20: open                           21: close          ",
    " 22: read                           23: random read    \n",
    " 24: write                          25: random write   ",
    " 26: read with verify                                  ",
};

constexpr std::string_view kReadOnlyOperations[] = {
    " 20: open (read only)               21: close          ",
    " 22: read                           23: random read    \n",
};

constexpr std::string_view kMenuTail[] = {
    " 27: display sector \n",
    " 30: device capacity                31: logical inquiry  \n",
    " 40: get number of devices ",
    " 41: get device state               42: get adapter information ",
    " 43: set adapter state              44: set path state ",
    " 45: get adapter statistics         46: get device statistics ",
    " 52: set controller                 53: set preferred controller",
    "",
    " 60: execute command                                     \n",
    " 88: trace menu                                          \n",
    " 99: Exit \n",
};

// What a selection leaves the main loop to do. End of input at any prompt
// gives leave: every later read would return nothing new, so the menu ends
// as if 99 had been chosen instead of asking again forever.
enum class Flow { next_pass, leave };

char statement[kStatementSize];

bool full_menu() { return test_context.all_operations != 0; }

template <std::size_t N>
void write_lines(const std::string_view (&lines)[N]) {
    for (std::string_view line : lines) printf("%.*s\n", static_cast<int>(line.size()), line.data());
}

void write_menu() {
    write_lines(kMenuHead);
    if (full_menu()) {
        write_lines(kFullOperations);
    } else {
        write_lines(kReadOnlyOperations);
    }
    write_lines(kMenuTail);
}

// A stop signal answers no prompt: the menu then ends as at end of input.
// One that came before the prompt (say Ctrl-C at a system statement's
// command, which had the terminal) is not waited on.
bool ask(const char* prompt) {
    printf("%s", prompt);
    if (stop_requested()) return false;
    return read_answer_line(stdin, test_context.input_line, sizeof test_context.input_line) && !stop_requested();
}

long answer_number() { return std::strtol(test_context.input_line, nullptr, 10); }

// Narrowing to 32 bits keeps the low bits, as a C int conversion does.
int32_t low_32_bits(long value) { return static_cast<int32_t>(value); }

bool ask_long(const char* prompt, long& value) {
    if (!ask(prompt)) return false;
    value = answer_number();
    return true;
}

bool ask_int(const char* prompt, int32_t& value) {
    if (!ask(prompt)) return false;
    value = low_32_bits(answer_number());
    return true;
}

// Only the first character decides; the number sent is the whole answer,
// so "12" passes as 12 (the driver then judges it).
bool ask_choice(const char* prompt, const char* reprompt, long& value) {
    if (!ask(prompt)) return false;
    for (;;) {
        char first = test_context.input_line[0];
        if (first == '1' || first == '2') break;
        if (!ask(reprompt)) return false;
    }
    value = answer_number();
    return true;
}

__attribute__((format(printf, 1, 2))) void send(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(statement, sizeof statement, format, args);
    va_end(args);
    process(statement, stdout);
}

// Selections 2, 3 and 4: the number goes through 32 bits, keeping its sign.
Flow set_variable(const char* prompt, int64_t& variable, const char* keyword) {
    int32_t number = 0;
    if (!ask_int(prompt, number)) return Flow::leave;
    variable = number;
    send("set %s = %ld", keyword, static_cast<long>(variable));
    return Flow::next_pass;
}

Flow set_device_file() {
    if (!ask("Enter device file name: ")) return Flow::leave;
    const char* answer = test_context.input_line;
    std::size_t length = std::strcspn(answer, "\n");
    if (length > kFileNameSize - 1) length = kFileNameSize - 1;
    std::memcpy(test_context.special_file, answer, length);
    test_context.special_file[length] = '\0';
    test_context.special_file_given = 1;
    return Flow::next_pass;
}

Flow set_blocking_factor() { return set_variable("Enter blocking factor: ", block_count, "block_count"); }
Flow set_seek_value() { return set_variable("Enter seek sector value: ", block_seek, "block_seek"); }
Flow set_maximum_sector() { return set_variable("Enter maximum sector value: ", block_max, "block_max"); }

Flow display_symbols() {
    send("symbols");
    return Flow::next_pass;
}

Flow open_device() {
    test_context.open_device[0] = '\0';
    const char* mode = "RO";
    if (full_menu()) {
        if (!ask("Enter open mode (1) RO (2) RW ")) return Flow::leave;
        char first = test_context.input_line[0];
        if (first == '2') {
            mode = "RW";
        } else if (first != '1') {
            return Flow::next_pass;
        }
    }
    if (test_context.special_file_given != 1) {
        printf("error, no device file specified yet.\n");
        return Flow::next_pass;
    }
    send("command open $D %s result rc >= 0", mode);
    return Flow::next_pass;
}

Flow close_device() {
    send("command close result rc != -1");
    test_context.open_device[0] = '\0';
    return Flow::next_pass;
}

// Selections 22 and 24: the data rate counts only the time process() takes,
// not the time spent answering the prompt.
Flow timed_transfer(const char* command) {
    char prompt[64];
    snprintf(prompt, sizeof prompt, "Number of %ld byte records to transfer: ", static_cast<long>(record_size()));
    int32_t records = 0;
    if (!ask_int(prompt, records)) return Flow::leave;
    int64_t expected = record_size();
    time_t before = time(nullptr);
    send("command %s records = %d result rc == %ld", command, records, static_cast<long>(expected));
    double seconds = difftime(time(nullptr), before);
    double divisor = seconds == 0.0 ? 1.0 : seconds;
    // Beyond 64 bits the byte count is figured in floating point, never wrapped.
    int64_t bytes = 0;
    double moved = checked_product(records, block_count, bytes) && checked_product(bytes, sector_size, bytes)
                       ? static_cast<double>(bytes)
                       : static_cast<double>(records) * static_cast<double>(block_count) *
                             static_cast<double>(sector_size);
    printf("Data rate = %8.2f bytes/sec \n", moved / divisor);
    return Flow::next_pass;
}

Flow read_records() { return timed_transfer("read"); }
Flow write_records() { return timed_transfer("write"); }

Flow random_transfer(const char* command) {
    int32_t count = 0;
    if (!ask_int("Enter iteration count: ", count)) return Flow::leave;
    send("command %s blocks = %d result rc != -1", command, count);
    return Flow::next_pass;
}

Flow random_read() { return random_transfer("random_read"); }
Flow random_write() { return random_transfer("random_write"); }

Flow read_with_verify() {
    if (block_count > 1) {
        printf("Error, read with verify requires blocking factor set to 1.\n");
        return Flow::next_pass;
    }
    int32_t count = 0;
    if (!ask_int("Enter iteration count: ", count)) return Flow::leave;
    send("command read_verify records = %d result rc == %ld", count, static_cast<long>(sector_size));
    return Flow::next_pass;
}

Flow display_sector() {
    send("command display_block result rc != -1");
    return Flow::next_pass;
}

Flow device_capacity() {
    send("command device_capacity result rc != -1");
    return Flow::next_pass;
}

Flow logical_inquiry() {
    long device = 0;
    if (!ask_long("Enter the device number: ", device)) return Flow::leave;
    send("command get_inquiry device %ld result rc != -1", device);
    return Flow::next_pass;
}

Flow number_of_devices() {
    send("command get_number_devices result rc != -1");
    return Flow::next_pass;
}

Flow device_state() {
    long device = 0;
    if (!ask_long("Enter the device number: ", device)) return Flow::leave;
    send("command get_device_state device %ld result rc != -1", device);
    return Flow::next_pass;
}

Flow adapter_information() {
    send("command get_adapter_info result rc != -1");
    return Flow::next_pass;
}

// The read-only menu may only bring things online.
Flow set_adapter_state() {
    long adapter = 0;
    long state = 1;
    if (!ask_long("Enter the adapter number: ", adapter)) return Flow::leave;
    if (full_menu() && !ask_choice("Enter the adapter state: (1) Online  (2) Offline ",
                                   "Error state, reenter: (1) Online (2) Offline ", state)) {
        return Flow::leave;
    }
    send("command set_adapter adapter %ld state %ld result rc != -1", adapter, state);
    return Flow::next_pass;
}

Flow set_path_state() {
    long device = 0;
    long path = 0;
    long state = 1;
    if (!ask_long("Enter the device number: ", device)) return Flow::leave;
    if (!ask_long("Enter the path number: ", path)) return Flow::leave;
    if (full_menu() && !ask_choice("Enter the path state: (1) Online  (2) Offline ",
                                   "Error state, reenter: (1) Online (2) Offline ", state)) {
        return Flow::leave;
    }
    send("command set_path device %ld path %ld state %ld result rc != -1", device, path, state);
    return Flow::next_pass;
}

Flow adapter_statistics() {
    long adapter = 0;
    if (!ask_long("Enter the adapter number: ", adapter)) return Flow::leave;
    send("command get_adapter_stats adapter %ld result rc != -1", adapter);
    return Flow::next_pass;
}

Flow device_statistics() {
    long device = 0;
    if (!ask_long("Enter the device number: ", device)) return Flow::leave;
    send("command get_dev_stats device %ld result rc != -1", device);
    return Flow::next_pass;
}

Flow set_controller() {
    long device = 0;
    long controller = 0;
    long action = 0;
    if (!ask_long("Enter the device number: ", device)) return Flow::leave;
    if (!ask_long("Enter the controller number (convert to decimal): ", controller)) return Flow::leave;
    if (!ask_choice("Enter  (1) Active  (2) Abort ", "Error state, reenter: (1) Active (2) Abort ", action)) {
        return Flow::leave;
    }
    send("command set_controller device %ld ctlr %ld action %ld result rc != -1", device, controller, action);
    return Flow::next_pass;
}

Flow set_preferred_controller() {
    long device = 0;
    if (!ask_long("Enter the device number (-1 for all devices): ", device)) return Flow::leave;
    send("command set_controller device %ld ctlr %ld action %ld result rc != -1", device, 0L, 3L);
    return Flow::next_pass;
}

// The answer goes to the shell as typed, line end and all.
Flow execute_shell_command() {
    if (!ask("Enter command to execute: ")) return Flow::leave;
    send("system %s", test_context.input_line);
    return Flow::next_pass;
}

Flow enter_trace_menu() {
    trace_menu(stdout);
    return Flow::next_pass;
}

Flow toggle_all_operations() {
    test_context.all_operations = ~test_context.all_operations;
    printf(full_menu() ? "all operations are now enabled. \n" : "only read operations now permitted. \n");
    return Flow::next_pass;
}

struct Selection {
    int32_t number;
    Flow (*carry_out)();
};

// 99 is not here: the main loop leaves before looking a selection up.
constexpr Selection kSelections[] = {
    {1, set_device_file},        {2, set_blocking_factor},
    {3, set_seek_value},         {4, set_maximum_sector},
    {5, display_symbols},        {20, open_device},
    {21, close_device},          {22, read_records},
    {23, random_read},           {24, write_records},
    {25, random_write},          {26, read_with_verify},
    {27, display_sector},        {30, device_capacity},
    {31, logical_inquiry},       {40, number_of_devices},
    {41, device_state},          {42, adapter_information},
    {43, set_adapter_state},     {44, set_path_state},
    {45, adapter_statistics},    {46, device_statistics},
    {52, set_controller},        {53, set_preferred_controller},
    {60, execute_shell_command}, {88, enter_trace_menu},
    {642, toggle_all_operations},
};

Flow carry_out(int32_t number) {
    for (const Selection& s : kSelections) {
        if (s.number == number) return s.carry_out();
    }
    printf("Unrecognized selection! \n");
    return Flow::next_pass;
}

void close_open_device() {
    if (test_context.device_handle == -1) return;
    ttrace(stdout, "TTRACE: calling ps_close. \n");
    int rc = ps_close(test_context.device_handle).value;
    ttrace(stdout, "TTRACE: ps_close returned %d. \n", rc);
}

}  // namespace

void manual_test_menu() {
    ttrace(stdout, "TTRACE: manual_test_menu entered.\n");
    for (;;) {
        settings();
        write_menu();
        if (stop_requested() || !ask("enter selection: ")) break;
        int32_t selection = low_32_bits(answer_number());
        time_t start = time(nullptr);
        if (selection == 99) break;
        if (carry_out(selection) == Flow::leave) break;
        printf("Command elapsed time in seconds = %8.2f \n", difftime(time(nullptr), start));
        if (!ask("Return to continue: ")) break;
    }
    close_open_device();
}
