// The multipath driver's control interface: request numbers, completion
// status and state codes, and the records both directions exchange, exactly
// as the driver reads and writes them. The tool that sends the requests and
// the simulator that answers them both build against this one header, so
// neither can drift from the other. Everything is in the global namespace
// with the driver's own names, as in a kernel user-space API header: the
// tool uses it as it is, the simulator sees it from inside its namespace.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- request numbers ----
// Plain 16-bit numbers: type byte 'd' and the request number, with no size
// or direction bits, because that is what the driver decodes.
inline constexpr uint32_t DD_TRACE = 0x6401;
inline constexpr uint32_t DD_GET_NUMBER_DEVICES = 0x6402;
inline constexpr uint32_t DD_GET_ADAPTER_INFO = 0x6403;
inline constexpr uint32_t DD_GET_DEVICE_STATE = 0x6404;
inline constexpr uint32_t DD_SET_PATH = 0x6405;
inline constexpr uint32_t DD_SET_ADAPTER = 0x6406;
inline constexpr uint32_t DD_GET_INQUIRY = 0x6407;
inline constexpr uint32_t DD_GET_DEV_STATS = 0x6409;
inline constexpr uint32_t DD_GET_ADAPTER_STATS = 0x640a;
inline constexpr uint32_t DD_SET_CONTROLLER = 0x640d;

// ---- codes ----
// Completion status the driver writes at offset 0 of every record.
inline constexpr int32_t kStatusSuccess = 0;
inline constexpr int32_t kStatusIllegalRequest = 1;
inline constexpr int32_t kStatusInvalidAdapter = 2;
inline constexpr int32_t kStatusDeviceNotFound = 3;
inline constexpr int32_t kStatusInvalidParameter = 4;
inline constexpr int32_t kStatusLastPath = 5;

// New state of a path or adapter in a set request.
inline constexpr int32_t kStateOnline = 1;
inline constexpr int32_t kStateOffline = 2;

// State and mode of a path entry and of an adapter entry.
inline constexpr uint32_t kPathClosed = 0;
inline constexpr uint32_t kPathOpen = 1;
inline constexpr uint32_t kPathDead = 2;
inline constexpr uint32_t kPathNormal = 0;
inline constexpr uint32_t kPathManualOffline = 1;
inline constexpr uint32_t kAdapterNormal = 0;
inline constexpr uint32_t kAdapterDegraded = 1;
inline constexpr uint32_t kAdapterFailed = 2;
inline constexpr uint32_t kAdapterActive = 0;
inline constexpr uint32_t kAdapterManualOffline = 1;

// Entry slots in the list records; a count above this is never followed
// past the record.
inline constexpr int32_t kMaxPathEntries = 32;
inline constexpr int32_t kMaxAdapterEntries = 32;

// ---- query and control records ----
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

// A device's INQUIRY data; the first 56 bytes are standard INQUIRY data,
// the last 13 the driver's own.
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

// ---- trace request ----
// Trace commands (the record's `command`).
inline constexpr uint32_t DD_TRACE_GET_FLAGS = 0;
inline constexpr uint32_t DD_TRACE_SET_FLAGS = 1;
inline constexpr uint32_t DD_TRACE_REPORT = 2;
inline constexpr uint32_t DD_TRACE_CLEAR = 3;

// Trace flags: destinations, macro classes, controls.
inline constexpr uint32_t TRACE_PRINTF = 0x0001;
inline constexpr uint32_t TRACE_PS = 0x0002;
inline constexpr uint32_t TRACE_PSERR = 0x0004;
inline constexpr uint32_t TRACE_CC = 0x0008;
inline constexpr uint32_t TRACE_ENTRY = 0x0010;
inline constexpr uint32_t TRACE_EXIT = 0x0020;
inline constexpr uint32_t TRACE_DEBUG = 0x0040;
inline constexpr uint32_t TRACE_PAUSE = 0x0100;
inline constexpr uint32_t TRACE_COMPRESS = 0x0200;
inline constexpr uint32_t TRACE_DUMP = 0x1000;
inline constexpr uint32_t kTraceKnownFlags = TRACE_PRINTF | TRACE_PS | TRACE_PSERR | TRACE_CC | TRACE_ENTRY |
                                             TRACE_EXIT | TRACE_DEBUG | TRACE_PAUSE | TRACE_COMPRESS | TRACE_DUMP;

struct TraceArgumentRecord {
    uint32_t command;
    uint32_t flags;
    uint64_t kernel_addr;
    uint64_t user_addr;
    uint32_t bytes_requested;
    uint32_t bytes_reported;
    uint32_t usage;
    uint32_t capacity;
    uint32_t entry_count;
    uint32_t first_offset;
    uint32_t last_offset;
    uint32_t total_entries;
    uint32_t lap_count;
    uint8_t reserved[12];
};

// The caller's report buffer at `user_addr`: entries from offset 0 up to the
// dump count, then (with the dump flag) a 64-bit dump length and the dump
// bytes up to the end of the buffer.
inline constexpr uint32_t kTraceRawSize = 272144;
inline constexpr uint32_t kTraceDumpCountOffset = 262144;
inline constexpr uint32_t kTraceDumpBytesOffset = 262152;

// ---- layouts ----
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

static_assert(sizeof(TraceArgumentRecord) == 72);
static_assert(offsetof(TraceArgumentRecord, flags) == 4);
static_assert(offsetof(TraceArgumentRecord, kernel_addr) == 8);
static_assert(offsetof(TraceArgumentRecord, user_addr) == 16);
static_assert(offsetof(TraceArgumentRecord, bytes_requested) == 24);
static_assert(offsetof(TraceArgumentRecord, bytes_reported) == 28);
static_assert(offsetof(TraceArgumentRecord, usage) == 32);
static_assert(offsetof(TraceArgumentRecord, capacity) == 36);
static_assert(offsetof(TraceArgumentRecord, entry_count) == 40);
static_assert(offsetof(TraceArgumentRecord, first_offset) == 44);
static_assert(offsetof(TraceArgumentRecord, last_offset) == 48);
static_assert(offsetof(TraceArgumentRecord, total_entries) == 52);
static_assert(offsetof(TraceArgumentRecord, lap_count) == 56);
static_assert(offsetof(TraceArgumentRecord, reserved) == 60);
static_assert(kTraceDumpCountOffset + sizeof(uint64_t) == kTraceDumpBytesOffset);
static_assert(kTraceDumpBytesOffset < kTraceRawSize);
