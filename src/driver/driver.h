// Driver query and control commands: the value tables that turn the coded
// fields of the driver's records (vpath/vpath_ioctl.h) into text, and the
// commands of the executor's table that send them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "context/context.h"
#include "device/executor.h"
#include "vpath/vpath_ioctl.h"

// The device's INQUIRY data as kept in the test context.
static_assert(sizeof(InquiryData) == sizeof(TestContext::inquiry_data));

// ---- value tables ----

struct ValueName {
    int64_t value;
    const char* text;
};

// Each table ends with an entry whose text is "Error"; its value is never
// matched.
extern const ValueName completion_status_names[];
extern const ValueName path_policy_names[];
extern const ValueName path_state_names[];
extern const ValueName path_mode_names[];
extern const ValueName adapter_state_names[];
extern const ValueName adapter_mode_names[];

// Text of a coded value, or "Error!!! Unexpected Value (%ld)". Callers widen
// a signed status with its sign and an unsigned state, mode or policy
// without it. An unknown value's text lives in a small ring of static
// buffers, so the few texts of one output line never overwrite each other.
const char* value_to_name(int64_t value, const ValueName* table);

inline const char* status_name(int32_t status) { return value_to_name(status, completion_status_names); }
inline const char* coded_name(uint32_t code, const ValueName* table) {
    return value_to_name(static_cast<int64_t>(code), table);
}

// ---- commands ----
// Each runs one command clause; the executor has already checked that a
// device is open and zeroed the outcome. The return code becomes what the
// request returned (0 or -1); no other outcome value is touched.
void get_number_devices(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_device_state(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void set_path(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_adapter_info(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void set_adapter(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void set_controller(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_dev_stats(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_adapter_stats(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_inquiry(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);

// The readable INQUIRY report of 69 bytes of INQUIRY data.
void fprintf_inquiry_data(FILE* stream, const uint8_t* data);
