// The checks a state file passes before the driver trusts it: on attach and
// at every lock, since another program (or a hand with dd) may have changed
// it meanwhile. Every count later used as an index, a bound or a loop limit
// is held against what it counts; one table row per field, so a new field
// gets its check beside the others.
#include <cstring>
#include <string>

#include "driver.h"

namespace vpathsim {
namespace {

// Each check returns "" when the state passes it, else what is wrong.
using Check = std::string (*)(const SharedState&);

struct StateCheck {
    const char* field;
    Check check;
};

std::string number(int64_t value) { return std::to_string(value); }

std::string outside(int64_t value, int64_t low, int64_t high) {
    if (value >= low && value <= high) return "";
    return number(value) + " is outside " + number(low) + " to " + number(high);
}

// Names are printed with %s and copied as strings: they must end inside
// their fields, whatever the file holds.
bool terminated(const char* field, size_t size) { return std::memchr(field, 0, size) != nullptr; }

std::string check_devices(const SharedState& s) {
    const Topology& t = s.topology;
    for (int d = 0; d < t.device_count; ++d) {
        const DeviceConfig& device = t.devices[d];
        const std::string which = "device " + number(d) + ": ";
        if (!terminated(device.serial, sizeof device.serial)) return which + "serial number unterminated";
        if (device.size == 0 || device.size % kSectorSize != 0 || device.size > INT64_MAX)
            return which + "size " + std::to_string(device.size) + " is no whole number of sectors";
        if (std::string wrong = outside(device.path_count, 1, kMaxPathEntries); !wrong.empty())
            return (which + "path count ").append(wrong);
        for (int p = 0; p < kMaxPathEntries; ++p)
            if (!terminated(device.paths[p].name, sizeof device.paths[p].name))
                return which + "path " + number(p) + " name unterminated";
        for (int p = 0; p < device.path_count; ++p)
            if (std::string wrong = outside(device.paths[p].adapter, 0, t.adapter_count - 1); !wrong.empty())
                return (which + "path " + number(p) + " adapter ").append(wrong);
    }
    return "";
}

std::string check_adapter_names(const SharedState& s) {
    for (int a = 0; a < s.topology.adapter_count; ++a)
        if (!terminated(s.topology.adapter_names[a], sizeof s.topology.adapter_names[a]))
            return "adapter " + number(a) + " name unterminated";
    return "";
}

// The last path used picks the next one by arithmetic.
std::string check_last_paths(const SharedState& s) {
    for (int d = 0; d < s.topology.device_count; ++d)
        if (std::string wrong = outside(s.devices[d].last_path, 0, s.topology.devices[d].path_count - 1);
            !wrong.empty())
            return "device " + number(d) + ": " + wrong;
    return "";
}

// The value of an upper-case hexadecimal digit, -1 for any other byte.
int digit(uint8_t c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1; }

// Entries as the trace report walks them: two hex digits of the whole
// length (3 or more), the text, a NUL, back to back up to `used`.
std::string check_trace(const SharedState& s) {
    const TraceTable& table = s.trace;
    if (table.used > kTraceTableSize) return "used " + number(table.used) + " of " + number(kTraceTableSize) + " bytes";
    if ((table.flags & ~kTraceKnownFlags) != 0) return "flags " + number(table.flags) + " has unknown bits";
    uint32_t offset = 0, last = 0, count = 0;
    while (offset < table.used) {
        const uint8_t* entry = table.bytes + offset;
        if (table.used - offset < 3 || digit(entry[0]) < 0 || digit(entry[1]) < 0)
            return "entry at offset " + number(offset) + " has no length";
        uint32_t length = static_cast<uint32_t>(digit(entry[0]) * 16 + digit(entry[1]));
        if (length < 3 || length > table.used - offset || entry[length - 1] != 0)
            return "entry at offset " + number(offset) + " has a bad length " + number(length);
        last = offset;
        offset += length;
        ++count;
    }
    if (count != table.entries) return "entries " + number(table.entries) + ", but the table holds " + number(count);
    if (table.last_offset != last) return "last offset " + number(table.last_offset) + ", not " + number(last);
    return "";
}

std::string check_injected(const SharedState& s) {
    if (std::string wrong = outside(s.injected_count, 0, kMaxInjected); !wrong.empty()) return "count " + wrong;
    for (int i = 0; i < s.injected_count; ++i) {
        const InjectedSector& bad = s.injected[i];
        if (bad.device < 0 || bad.device >= s.topology.device_count ||
            bad.sector >= s.topology.devices[bad.device].size / kSectorSize)
            return "entry " + number(i) + " names no sector of the topology";
    }
    return "";
}

std::string check_magic(const SharedState& s) {
    return std::memcmp(s.magic, kStateMagic, sizeof kStateMagic) == 0 ? "" : "not a vpathsim state";
}

std::string check_version(const SharedState& s) {
    if (s.version == kStateVersion) return "";
    return number(s.version) + ", this vpathsim keeps " + number(kStateVersion);
}

std::string check_size(const SharedState& s) {
    return s.size == sizeof s ? "" : number(s.size) + " bytes, not " + number(sizeof s);
}

// Checked in order: the later checks rely on the counts the earlier ones
// have passed.
const StateCheck kStateChecks[] = {
    {"magic", check_magic},
    {"version", check_version},
    {"size", check_size},
    {"topology.device_count", [](const SharedState& s) { return outside(s.topology.device_count, 1, kMaxDevices); }},
    {"topology.adapter_count",
     [](const SharedState& s) { return outside(s.topology.adapter_count, 1, kMaxAdapterEntries); }},
    {"topology.adapter_names", check_adapter_names},
    {"topology.devices", check_devices},
    {"devices.last_path", check_last_paths},
    {"trace", check_trace},
    {"injected", check_injected},
    {"faults",
     [](const SharedState& s) {
         return std::string(valid_faults(s) ? "" : "a scheduled fault names what the topology lacks");
     }},
    {"flight",
     [](const SharedState& s) {
         return std::string(valid_in_flight(s) ? "" : "a request in flight names what the topology lacks, or a timing out of range");
     }},
};

}  // namespace

std::string check_state(const SharedState& state) {
    for (const StateCheck& row : kStateChecks) {
        std::string wrong = row.check(state);
        if (!wrong.empty()) return std::string(row.field) + ": " + wrong;
    }
    return "";
}

}  // namespace vpathsim
