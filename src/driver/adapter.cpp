// Adapter and controller commands: adapter list, setting an adapter online
// or offline, and passing a controller action to the driver.
#include <algorithm>

#include "driver/driver.h"
#include "driver/request.h"

void get_adapter_info(FILE* stream, const CommandClause&, CommandOutcome& outcome) {
    AdapterInfoRecord record{};
    send_request(stream, outcome, DD_GET_ADAPTER_INFO, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "Error getting addapter info: %s\n", status_name(record.status));
        return;
    }
    fprintf(stream, "Completion Status: %s\n", status_name(record.status));
    fprintf(stream, "Number of adapter entries: %d\n", record.entry_count);

    const int32_t shown = std::min(record.entry_count, kMaxAdapterEntries);
    for (int32_t i = 0; i < shown; ++i) {
        const AdapterEntry& adapter = record.entries[i];
        fprintf(stream, "Adapter %ld: %.*s\t", static_cast<long>(i), static_cast<int>(sizeof adapter.name),
                adapter.name);
        fprintf(stream, "State: %s\t    Mode: %s\n", coded_name(adapter.state, adapter_state_names),
                coded_name(adapter.mode, adapter_mode_names));
        fprintf(stream, "\tCount: %6d\t", adapter.count);
        fprintf(stream, "\tError Count: %d\n", adapter.error_count);
        fprintf(stream, "\tAttached Path: %d", adapter.attached_paths);
        fprintf(stream, "\tPath still functioning: %d\n", adapter.functioning_paths);
    }
}

void set_adapter(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    SetAdapterRecord record{};
    keyword_argument(stream, clause, 1, "adapter", "set adapter", record.adapter);
    keyword_argument(stream, clause, 3, "state", "set adapter", record.state);
    send_request(stream, outcome, DD_SET_ADAPTER, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "Error setting adapter state: %s\n", status_name(record.status));
        return;
    }
    fprintf(stream, "Completion Status: %s\n", status_name(record.status));
    if (record.state == kStateOnline) {
        fprintf(stream, "Set Adapter %d to online\n", record.adapter);
    } else if (record.state == kStateOffline) {
        // The driver refuses to take away a device's last path; that is an
        // answer, not a failure.
        if (record.status == kStatusLastPath) {
            fprintf(stream, "The last path, Adapter %d remain online\n", record.adapter);
        } else {
            fprintf(stream, "Set Adapter %d to offline\n", record.adapter);
        }
    } else {
        fputs("Error state\n", stream);
    }
}

void set_controller(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    SetControllerRecord record{};
    keyword_argument(stream, clause, 1, "device", "set controller", record.device);
    keyword_argument(stream, clause, 3, "ctlr", "set controller", record.controller);
    keyword_argument(stream, clause, 5, "action", "set controller", record.action);
    send_request(stream, outcome, DD_SET_CONTROLLER, &record, sizeof record);
    if (outcome.return_code == -1) {
        fputs("tarnwick error set controller \n", stream);
        return;
    }
    // Testers' transcripts expect this fixed line; the driver's status is
    // not shown for controller actions.
    fputs("Completion Status: 0 \n", stream);
    fprintf(stream, "\n%16c", ' ');
}
