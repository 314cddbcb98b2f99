// Driver query and control commands: the request records that travel
// between the tool and the multipath driver, the value tables that turn
// their coded fields into text, and the commands of the executor's table
// that send them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "context/context.h"
#include "device/executor.h"

// ---- request opcodes ----
// Plain 16-bit numbers: type byte 'd' and the request number, with no size
// or direction bits, because that is what the driver decodes.
inline constexpr uint32_t DD_GET_NUMBER_DEVICES = 0x6402;
inline constexpr uint32_t DD_GET_ADAPTER_INFO = 0x6403;
inline constexpr uint32_t DD_GET_DEVICE_STATE = 0x6404;
inline constexpr uint32_t DD_SET_PATH = 0x6405;
inline constexpr uint32_t DD_SET_ADAPTER = 0x6406;
inline constexpr uint32_t DD_GET_INQUIRY = 0x6407;
inline constexpr uint32_t DD_GET_DEV_STATS = 0x6409;
inline constexpr uint32_t DD_GET_ADAPTER_STATS = 0x640a;
inline constexpr uint32_t DD_SET_CONTROLLER = 0x640d;

// Completion status the driver writes at offset 0 of every record.
inline constexpr int32_t kStatusSuccess = 0;
inline constexpr int32_t kStatusLastPath = 5;

// New state of a path or adapter in a set request.
inline constexpr int32_t kStateOnline = 1;
inline constexpr int32_t kStateOffline = 2;

// Entry slots in the list records; a count from the driver above this is
// never followed past the record.
inline constexpr int32_t kMaxPathEntries = 32;
inline constexpr int32_t kMaxAdapterEntries = 32;

// ---- request records ----
// Native byte order, 32-bit integers, fixed byte arrays; every layout is
// pinned by static_asserts below because the driver reads them by offset.

struct DeviceCountRecord {
    int32_t status;
    int32_t number_of_devices;
};

struct AdapterEntry {
    uint32_t state;
    uint32_t mode;
    int32_t count;
    int32_t error_count;
    int32_t attached_paths;
    int32_t functioning_paths;
    char name[16];
};

struct AdapterInfoRecord {
    int32_t status;
    int32_t entry_count;
    AdapterEntry entries[kMaxAdapterEntries];
};

struct PathEntry {
    int32_t adapter_number;
    char path_name[15];
    char adapter_name[17];
    uint32_t state;
    uint32_t mode;
    int32_t times_used;
    int32_t recovered_errors;
    uint8_t reserved[4];
};

struct DeviceStateRecord {
    int32_t status;
    int32_t device;
    uint8_t reserved1[4];
    char device_name[15];
    char serial_number[33];
    char device_type[8];
    uint32_t policy;
    uint32_t path_count;
    int32_t remaining_paths;
    int32_t last_path_used;
    PathEntry paths[kMaxPathEntries];
    uint8_t reserved2[40];
};

struct SetPathRecord {
    int32_t status;
    int32_t device;
    int32_t path;
    int32_t state;
};

struct SetAdapterRecord {
    int32_t status;
    int32_t adapter;
    int32_t state;
};

// The device's INQUIRY data as kept in the test context; the first 56
// bytes are standard INQUIRY data, the last 13 are kept but never shown.
inline constexpr std::size_t kInquiryVendorOffset = 8;
inline constexpr std::size_t kInquiryProductOffset = 16;
inline constexpr std::size_t kInquiryRevisionOffset = 32;
inline constexpr std::size_t kInquiryVendorSpecificOffset = 36;

struct InquiryData {
    uint8_t device_type;
    uint8_t byte1;
    uint8_t flags;
    uint8_t flags2;
    uint8_t additional_length;
    uint8_t bytes5_7[3];
    uint8_t vendor_id[8];
    uint8_t product_id[16];
    uint8_t firmware_revision_level[4];
    uint8_t vendor_specific[20];
    uint8_t tail[13];
};

struct InquiryRecord {
    int32_t status;
    int32_t device;
    InquiryData data;
    uint8_t padding[3];
};

struct StatsRow {
    uint32_t total_read;
    uint32_t total_write;
    uint32_t active_read;
    uint32_t active_write;
    uint32_t maximum;
};

struct DeviceStatsRecord {
    int32_t status;
    int32_t device;
    StatsRow io;
    StatsRow sectors;
    uint32_t up_to_512;
    uint32_t up_to_4k;
    uint32_t up_to_16k;
    uint32_t up_to_64k;
    uint32_t over_64k;
};

struct AdapterStatsRecord {
    int32_t status;
    int32_t adapter;
    StatsRow io;
    StatsRow sectors;
};

// The action precedes the controller here although statements name the
// controller first; the driver reads this order.
struct SetControllerRecord {
    int32_t status;
    int32_t device;
    int32_t action;
    int32_t controller;
};

static_assert(sizeof(DeviceCountRecord) == 8);
static_assert(offsetof(DeviceCountRecord, number_of_devices) == 4);

static_assert(sizeof(AdapterEntry) == 40);
static_assert(offsetof(AdapterEntry, mode) == 4);
static_assert(offsetof(AdapterEntry, count) == 8);
static_assert(offsetof(AdapterEntry, error_count) == 12);
static_assert(offsetof(AdapterEntry, attached_paths) == 16);
static_assert(offsetof(AdapterEntry, functioning_paths) == 20);
static_assert(offsetof(AdapterEntry, name) == 24);
static_assert(sizeof(AdapterInfoRecord) == 1288);
static_assert(offsetof(AdapterInfoRecord, entry_count) == 4);
static_assert(offsetof(AdapterInfoRecord, entries) == 8);

static_assert(sizeof(PathEntry) == 56);
static_assert(offsetof(PathEntry, path_name) == 4);
static_assert(offsetof(PathEntry, adapter_name) == 19);
static_assert(offsetof(PathEntry, state) == 36);
static_assert(offsetof(PathEntry, mode) == 40);
static_assert(offsetof(PathEntry, times_used) == 44);
static_assert(offsetof(PathEntry, recovered_errors) == 48);
static_assert(offsetof(PathEntry, reserved) == 52);
static_assert(sizeof(DeviceStateRecord) == 1916);
static_assert(offsetof(DeviceStateRecord, device) == 4);
static_assert(offsetof(DeviceStateRecord, reserved1) == 8);
static_assert(offsetof(DeviceStateRecord, device_name) == 12);
static_assert(offsetof(DeviceStateRecord, serial_number) == 27);
static_assert(offsetof(DeviceStateRecord, device_type) == 60);
static_assert(offsetof(DeviceStateRecord, policy) == 68);
static_assert(offsetof(DeviceStateRecord, path_count) == 72);
static_assert(offsetof(DeviceStateRecord, remaining_paths) == 76);
static_assert(offsetof(DeviceStateRecord, last_path_used) == 80);
static_assert(offsetof(DeviceStateRecord, paths) == 84);
static_assert(offsetof(DeviceStateRecord, reserved2) == 1876);

static_assert(sizeof(SetPathRecord) == 16);
static_assert(offsetof(SetPathRecord, device) == 4);
static_assert(offsetof(SetPathRecord, path) == 8);
static_assert(offsetof(SetPathRecord, state) == 12);

static_assert(sizeof(SetAdapterRecord) == 12);
static_assert(offsetof(SetAdapterRecord, adapter) == 4);
static_assert(offsetof(SetAdapterRecord, state) == 8);

static_assert(sizeof(InquiryData) == 69);
static_assert(sizeof(InquiryData) == sizeof(TestContext::inquiry_data));
static_assert(offsetof(InquiryData, flags) == 2);
static_assert(offsetof(InquiryData, flags2) == 3);
static_assert(offsetof(InquiryData, additional_length) == 4);
static_assert(offsetof(InquiryData, vendor_id) == kInquiryVendorOffset);
static_assert(offsetof(InquiryData, product_id) == kInquiryProductOffset);
static_assert(offsetof(InquiryData, firmware_revision_level) == kInquiryRevisionOffset);
static_assert(offsetof(InquiryData, vendor_specific) == kInquiryVendorSpecificOffset);
static_assert(offsetof(InquiryData, tail) == 56);
static_assert(sizeof(InquiryRecord) == 80);
static_assert(offsetof(InquiryRecord, device) == 4);
static_assert(offsetof(InquiryRecord, data) == 8);
static_assert(offsetof(InquiryRecord, padding) == 77);

static_assert(sizeof(StatsRow) == 20);
static_assert(offsetof(StatsRow, total_write) == 4);
static_assert(offsetof(StatsRow, active_read) == 8);
static_assert(offsetof(StatsRow, active_write) == 12);
static_assert(offsetof(StatsRow, maximum) == 16);
static_assert(sizeof(DeviceStatsRecord) == 68);
static_assert(offsetof(DeviceStatsRecord, device) == 4);
static_assert(offsetof(DeviceStatsRecord, io) == 8);
static_assert(offsetof(DeviceStatsRecord, sectors) == 28);
static_assert(offsetof(DeviceStatsRecord, up_to_512) == 48);
static_assert(offsetof(DeviceStatsRecord, up_to_4k) == 52);
static_assert(offsetof(DeviceStatsRecord, up_to_16k) == 56);
static_assert(offsetof(DeviceStatsRecord, up_to_64k) == 60);
static_assert(offsetof(DeviceStatsRecord, over_64k) == 64);
static_assert(sizeof(AdapterStatsRecord) == 48);
static_assert(offsetof(AdapterStatsRecord, adapter) == 4);
static_assert(offsetof(AdapterStatsRecord, io) == 8);
static_assert(offsetof(AdapterStatsRecord, sectors) == 28);

static_assert(sizeof(SetControllerRecord) == 16);
static_assert(offsetof(SetControllerRecord, device) == 4);
static_assert(offsetof(SetControllerRecord, action) == 8);
static_assert(offsetof(SetControllerRecord, controller) == 12);

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
