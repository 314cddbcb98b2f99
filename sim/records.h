// Request codes and record layouts as the driver side sees them. The tool
// keeps its own copy; these are written from the driver's point of view and
// pinned byte for byte so that a layout slip fails the build, not a test run.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vpathsim {

// Plain 16-bit codes: type byte 'd' and a request number, no size or
// direction bits (which also keeps sanitizer ioctl decoding out of the way).
enum Request : uint32_t {
    kTrace = 0x6401,
    kGetNumberDevices = 0x6402,
    kGetAdapterInfo = 0x6403,
    kGetDeviceState = 0x6404,
    kSetPath = 0x6405,
    kSetAdapter = 0x6406,
    kGetInquiry = 0x6407,
    kGetDevStats = 0x6409,
    kGetAdapterStats = 0x640a,
    kSetController = 0x640d,
};

enum Status : int32_t {
    kSuccess = 0,
    kIllegalRequest = 1,
    kInvalidAdapter = 2,
    kDeviceNotFound = 3,
    kInvalidParameter = 4,
    kLastPath = 5,
};

enum PathState : uint32_t { kPathClosed = 0, kPathOpen = 1, kPathDead = 2 };
enum PathMode : uint32_t { kPathNormal = 0, kPathManualOffline = 1 };
enum AdapterState : uint32_t { kAdapterNormal = 0, kAdapterDegraded = 1, kAdapterFailed = 2 };
enum AdapterMode : uint32_t { kAdapterActive = 0, kAdapterManualOffline = 1 };

constexpr int kMaxPaths = 32;     // path slots in a device state record
constexpr int kMaxAdapters = 32;  // adapter slots in an adapter info record

struct DeviceCountRecord {
    int32_t status;
    int32_t count;
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
    int32_t count;
    AdapterEntry entries[kMaxAdapters];
};

struct PathEntry {
    int32_t adapter;
    char name[15];
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
    uint8_t reserved0[4];
    char name[15];
    char serial[33];
    char type[8];
    uint32_t policy;
    uint32_t path_count;
    int32_t remaining_paths;
    int32_t last_path_used;
    PathEntry paths[kMaxPaths];
    uint8_t reserved1[40];
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

constexpr size_t kInquiryBytes = 69;

struct InquiryRecord {
    int32_t status;
    int32_t device;
    uint8_t data[kInquiryBytes];
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
    uint32_t sizes[5];
};

struct AdapterStatsRecord {
    int32_t status;
    int32_t adapter;
    StatsRow io;
    StatsRow sectors;
};

struct SetControllerRecord {
    int32_t status;
    int32_t device;
    int32_t action;
    int32_t controller;
};

enum TraceCommand : uint32_t { kTraceGetFlags = 0, kTraceSetFlags = 1, kTraceReport = 2, kTraceClear = 3 };

enum TraceFlag : uint32_t {
    kTracePrintf = 0x0001,
    kTracePs = 0x0002,
    kTracePserr = 0x0004,
    kTraceCc = 0x0008,
    kTraceEntry = 0x0010,
    kTraceExit = 0x0020,
    kTraceDebug = 0x0040,
    kTracePause = 0x0100,
    kTraceCompress = 0x0200,
    kTraceDump = 0x1000,
};
constexpr uint32_t kTraceKnownFlags = 0x137f;

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

// The caller's raw report buffer: entries from offset 0, then (with the
// dump flag) a 64-bit dump length and the dump bytes.
constexpr uint32_t kReportEntryArea = 262144;
constexpr uint32_t kReportDumpCountOffset = 262144;
constexpr uint32_t kReportDumpOffset = 262152;
constexpr uint32_t kReportDumpMax = 9992;

static_assert(sizeof(DeviceCountRecord) == 8);
static_assert(sizeof(AdapterEntry) == 40 && offsetof(AdapterEntry, name) == 24);
static_assert(sizeof(AdapterInfoRecord) == 1288 && offsetof(AdapterInfoRecord, entries) == 8);
static_assert(sizeof(PathEntry) == 56);
static_assert(offsetof(PathEntry, name) == 4 && offsetof(PathEntry, adapter_name) == 19);
static_assert(offsetof(PathEntry, state) == 36 && offsetof(PathEntry, mode) == 40);
static_assert(offsetof(PathEntry, times_used) == 44 && offsetof(PathEntry, recovered_errors) == 48);
static_assert(sizeof(DeviceStateRecord) == 1916);
static_assert(offsetof(DeviceStateRecord, name) == 12 && offsetof(DeviceStateRecord, serial) == 27);
static_assert(offsetof(DeviceStateRecord, type) == 60 && offsetof(DeviceStateRecord, policy) == 68);
static_assert(offsetof(DeviceStateRecord, path_count) == 72 && offsetof(DeviceStateRecord, remaining_paths) == 76);
static_assert(offsetof(DeviceStateRecord, last_path_used) == 80 && offsetof(DeviceStateRecord, paths) == 84);
static_assert(offsetof(DeviceStateRecord, reserved1) == 1876);
static_assert(sizeof(SetPathRecord) == 16 && offsetof(SetPathRecord, state) == 12);
static_assert(sizeof(SetAdapterRecord) == 12 && offsetof(SetAdapterRecord, state) == 8);
static_assert(sizeof(InquiryRecord) == 80 && offsetof(InquiryRecord, data) == 8);
static_assert(sizeof(StatsRow) == 20);
static_assert(sizeof(DeviceStatsRecord) == 68 && offsetof(DeviceStatsRecord, sectors) == 28);
static_assert(offsetof(DeviceStatsRecord, sizes) == 48);
static_assert(sizeof(AdapterStatsRecord) == 48 && offsetof(AdapterStatsRecord, sectors) == 28);
static_assert(sizeof(SetControllerRecord) == 16);
static_assert(offsetof(SetControllerRecord, action) == 8 && offsetof(SetControllerRecord, controller) == 12);
static_assert(sizeof(TraceArgumentRecord) == 72);
static_assert(offsetof(TraceArgumentRecord, kernel_addr) == 8 && offsetof(TraceArgumentRecord, user_addr) == 16);
static_assert(offsetof(TraceArgumentRecord, bytes_requested) == 24 && offsetof(TraceArgumentRecord, entry_count) == 40);
static_assert(offsetof(TraceArgumentRecord, lap_count) == 56 && offsetof(TraceArgumentRecord, reserved) == 60);

}  // namespace vpathsim
