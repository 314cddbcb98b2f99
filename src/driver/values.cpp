// Value tables of the driver's coded fields and their lookup.
#include <cstdio>
#include <cstring>

#include "driver/driver.h"

const ValueName completion_status_names[] = {
    {kStatusSuccess, "Success"},
    {kStatusIllegalRequest, "Illegal Request"},
    {kStatusInvalidAdapter, "Invalid Adapter"},
    {kStatusDeviceNotFound, "Device Not Found"},
    {kStatusInvalidParameter, "Invalid Parameter"},
    {kStatusLastPath, "Last Path"},
    {0, "Error"},
};

const ValueName path_policy_names[] = {
    {1, "Round Robin"},    {2, "Round Robin Sequential"}, {3, "Failover Only"}, {4, "Optimized"},
    {5, "Optimized Sequential"}, {6, "Single Path"},       {7, "Reserve Policy"}, {0, "Error"},
};

const ValueName path_state_names[] = {{kPathClosed, "Closed"}, {kPathOpen, "Open"}, {kPathDead, "Dead"}, {0, "Error"}};

const ValueName path_mode_names[] = {{kPathNormal, "Normal"}, {kPathManualOffline, "Manual Offline"}, {0, "Error"}};

const ValueName adapter_state_names[] = {
    {kAdapterNormal, "Normal"}, {kAdapterDegraded, "Degraded"}, {kAdapterFailed, "Failed"}, {0, "Error"}};

const ValueName adapter_mode_names[] = {
    {kAdapterActive, "Active"}, {kAdapterManualOffline, "Manual Offline"}, {0, "Error"}};

namespace {
// A report line shows at most two looked-up values (state and mode); a few
// more slots keep every text of one line alive while it is printed.
constexpr int kUnknownSlots = 4;
char unknown_text[kUnknownSlots][64];  // room for any 64-bit number
int next_slot = 0;
}  // namespace

const char* value_to_name(int64_t value, const ValueName* table) {
    for (const ValueName* entry = table; std::strncmp(entry->text, "Error", 5) != 0; ++entry) {
        if (entry->value == value) return entry->text;
    }
    char* text = unknown_text[next_slot];
    next_slot = (next_slot + 1) % kUnknownSlots;
    std::snprintf(text, sizeof unknown_text[0], "Error!!! Unexpected Value (%ld)", static_cast<long>(value));
    return text;
}
