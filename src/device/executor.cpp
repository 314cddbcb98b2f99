// Command executor: the command table, the checks every command shares,
// and the open and close commands that own device_handle.
#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "context/context.h"
#include "device/data_commands.h"
#include "device/access.h"
#include "device/executor.h"
#include "device/variables.h"
#include "driver/driver.h"

namespace {

using Handler = int (*)(FILE*, const CommandClause&, CommandOutcome&);

// Whether a command needs the device open, closed, or does not care.
enum class Needs { open_device, closed_device, anything };

struct CommandEntry {
    std::string_view name;
    Needs needs;
    const char* refusal;  // printed when the device state does not fit
    Handler handler;
};

// Commands that cannot refuse to run return through this adapter; only
// open may tell the dispatcher that the statement could not be executed.
template <void (*Command)(FILE*, const CommandClause&, CommandOutcome&)>
int always_handled(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    Command(stream, clause, outcome);
    return 1;
}

int command_open(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
int command_close(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);

constexpr const char* kDeviceClosed = "tarnwick error execute_command device closed\n";
constexpr const char* kDevicesClosed = "tarnwick error execute_command devices closed\n";

// Looked up in this order; the order is part of the statement language.
constexpr std::array<CommandEntry, 18> kCommands{{
    {"open", Needs::closed_device, "tarnwick error in execute_command, device already open.\n", command_open},
    {"close", Needs::open_device, "tarnwick error execute_command already closed\n", command_close},
    {"read", Needs::open_device, kDeviceClosed, always_handled<command_read>},
    {"read_verify", Needs::open_device, kDeviceClosed, always_handled<command_read_verify>},
    {"write", Needs::open_device, kDeviceClosed, always_handled<command_write>},
    {"random_read", Needs::open_device, kDeviceClosed, always_handled<command_random_read>},
    {"random_write", Needs::open_device, kDeviceClosed, always_handled<command_random_write>},
    {"get_inquiry", Needs::open_device, kDeviceClosed, always_handled<get_inquiry>},
    {"device_capacity", Needs::open_device, kDeviceClosed, always_handled<command_device_capacity>},
    {"display_block", Needs::anything, nullptr, always_handled<command_display_block>},
    {"get_adapter_info", Needs::open_device, kDevicesClosed, always_handled<get_adapter_info>},
    {"get_number_devices", Needs::open_device, kDevicesClosed, always_handled<get_number_devices>},
    {"get_device_state", Needs::open_device, kDevicesClosed, always_handled<get_device_state>},
    {"set_path", Needs::open_device, kDevicesClosed, always_handled<set_path>},
    {"set_adapter", Needs::open_device, kDevicesClosed, always_handled<set_adapter>},
    {"get_adapter_stats", Needs::open_device, kDevicesClosed, always_handled<get_adapter_stats>},
    {"get_dev_stats", Needs::open_device, kDevicesClosed, always_handled<get_dev_stats>},
    {"set_controller", Needs::open_device, kDevicesClosed, always_handled<set_controller>},
}};

struct OpenMode {
    std::string_view name;
    const char* message;
    int32_t flags;
};

// DIRECT moves every transfer between io_buffer and the device, past the
// page cache, so a read really reaches a path and a failed path shows at
// the transfer that met it. SYNC makes each write return only once its
// data is on stable storage; O_DSYNC says exactly that, and O_SYNC would
// add nothing on a device node, which has no file metadata to write back.
// A read-only SYNC is left out: it would change nothing for reads. The
// words come in one order: access mode, DIRECT, SYNC, NDELAY.
constexpr std::array<OpenMode, 13> kOpenModes{{
    {"RO", "Open mode: Read only.\n", O_RDONLY},
    {"RW", "Open mode: Read and wirte.\n", O_RDWR},
    {"RO+NDELAY", "Open mode: Read only, no delay.\n", O_RDONLY | O_NDELAY},
    {"RW+NDELAY", "Open mode:Read and write, no delay.\n", O_RDWR | O_NDELAY},
    {"INVALID", " open INVALID.\n", -1},
    {"RO+DIRECT", "Open mode: Read only, direct.\n", O_RDONLY | O_DIRECT},
    {"RW+DIRECT", "Open mode: Read and write, direct.\n", O_RDWR | O_DIRECT},
    {"RW+SYNC", "Open mode: Read and write, synchronous.\n", O_RDWR | O_DSYNC},
    {"RW+DIRECT+SYNC", "Open mode: Read and write, direct, synchronous.\n", O_RDWR | O_DIRECT | O_DSYNC},
    {"RO+DIRECT+NDELAY", "Open mode: Read only, direct, no delay.\n", O_RDONLY | O_DIRECT | O_NDELAY},
    {"RW+DIRECT+NDELAY", "Open mode: Read and write, direct, no delay.\n", O_RDWR | O_DIRECT | O_NDELAY},
    {"RW+SYNC+NDELAY", "Open mode: Read and write, synchronous, no delay.\n", O_RDWR | O_DSYNC | O_NDELAY},
    {"RW+DIRECT+SYNC+NDELAY", "Open mode: Read and write, direct, synchronous, no delay.\n",
     O_RDWR | O_DIRECT | O_DSYNC | O_NDELAY},
}};

// A device name is one token of a statement line, and batch lines hold at
// most 254 characters; anything longer cannot have come from a script.
constexpr std::size_t kDeviceNameSize = 256;
constexpr std::string_view kVpathPrefix = "/dev/vpath";

bool all_digits(std::string_view text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

int command_open(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    TestContext& c = test_context;
    char name[kDeviceNameSize] = {};
    std::string_view device = clause.token(1);
    bool name_fits = device.size() < sizeof name;
    if (name_fits) device.copy(name, device.size());

    if (device.substr(0, 2) == "$D") {
        if (c.special_file_given) {
            // special_file holds 199 characters at most, so it always fits.
            name_fits = copy_to_field(name, sizeof name, c.special_file);
            fprintf(stream, "device file (%s) will be opened \n", name);
        } else {
            fprintf(stream, "error, no special file given on command line.\n");
            report_syntax_error();
        }
    }

    const OpenMode* mode = nullptr;
    for (const OpenMode& m : kOpenModes) {
        if (clause.token(2) == m.name) mode = &m;
    }
    if (mode == nullptr) {
        fprintf(stream, "tarnwick error execute_command invalid open flags\n");
        report_syntax_error();
        return 0;
    }
    fprintf(stream, "%s", mode->message);

    char number_path[sizeof c.open_device];
    const char* path = name;
    if (name_fits && all_digits(name)) {
        std::snprintf(number_path, sizeof number_path, "%.*s%s", static_cast<int>(kVpathPrefix.size()),
                      kVpathPrefix.data(), name);
        path = number_path;
        ttrace(stream, "ps_open will open file <%s> \n", path);
        std::snprintf(c.open_device, sizeof c.open_device, "%s", path);
    }

    ttrace(stream, "TTRACE: open flags = %x \n", static_cast<unsigned>(mode->flags));
    ttrace(stream, "TTRACE: calling ps_open. \n");
    ttrace(stream, "ps_open file <%s> \n", path);

    // Opening a cut-down name could open some other file.
    const AccessResult<int> opened = name_fits ? ps_open(path, mode->flags, 0) : AccessResult<int>{-1, ENAMETOOLONG};
    c.device_handle = note_result(outcome, opened);
    outcome.return_code = c.device_handle;
    if (opened.failed()) {
        outcome.error_number = opened.error_number;
        ttrace(stream, "Error! system open failed. errno=%ld \n", static_cast<long>(opened.error_number));
        ttrace(stream, "       Error is %s.\n", ps_strerror(opened.error_number));
    } else {
        sector_size = 512;
        block_max = 0;
    }
    ttrace(stream, "TTRACE: ps_open exit. \n");
    return 1;
}

int command_close(FILE*, const CommandClause&, CommandOutcome& outcome) {
    // These two go to standard output whatever stream the statement uses.
    ttrace(stdout, "TTRACE: calling ps_close. \n");
    const AccessResult<int> closed = ps_close(test_context.device_handle);
    outcome.return_code = note_result(outcome, closed);
    ttrace(stdout, "TTRACE: ps_close returned %d. \n", outcome.return_code);
    if (closed.failed()) outcome.error_number = closed.error_number;
    test_context.device_handle = -1;
    return 1;
}

const CommandEntry* find_command(std::string_view name) {
    for (const CommandEntry& entry : kCommands) {
        if (name == entry.name) return &entry;
    }
    return nullptr;
}

bool device_state_fits(Needs needs) {
    bool open = test_context.device_handle != -1;
    switch (needs) {
        case Needs::open_device: return open;
        case Needs::closed_device: return !open;
        case Needs::anything: return true;
    }
    return true;
}

}  // namespace

int execute_command(const char* line, FILE* stream, const TokenList& tokens, int32_t name_index,
                    int32_t count, CommandOutcome& outcome) {
    ttrace(stream, "TTRACE: execute_command entered (%s).\n", line);

    int64_t size = record_size();
    // A size beyond 64 bits is reported at the bound on its side: over the
    // limit, or negative and just as far outside the buffer.
    if (size < 0 || size > static_cast<int64_t>(kIoBufferSize)) {
        fprintf(stream, "Data transfer size of %ld exceeds maximum supported %d \n", static_cast<long>(size),
                static_cast<int>(kIoBufferSize));
        report_syntax_error();
    } else if (size == 0) {
        fprintf(stream, "Data transfer size is %ld \n", static_cast<long>(size));
        report_syntax_error();
    }

    outcome.return_code = 0;
    outcome.error_number = 0;
    outcome.error_value = 0;
    outcome.residual = 0;
    // A command that fails without a call of its own on the device reports
    // the errno the process already had.
    outcome.last_errno = errno;

    const CommandClause clause{line, &tokens, name_index, count};
    const CommandEntry* entry = find_command(clause.token(0));
    if (entry == nullptr) {
        fprintf(stream, "ERROR execute_command unrecognized command (%s)\n", line);
        report_syntax_error();
        return 1;
    }

    if (!device_state_fits(entry->needs)) {
        fprintf(stream, "%s", entry->refusal);
    } else {
        const int handled = entry->handler(stream, clause, outcome);
        errno = outcome.last_errno;
        if (handled == 0) return 0;
    }
    ttrace(stream, "TTRACE: execute_command exit.\n");
    return 1;
}
