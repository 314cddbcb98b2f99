// Device and path commands: number of devices, one device's state with its
// paths, and setting a path online or offline.
#include <algorithm>

#include "driver/driver.h"
#include "driver/request.h"

void get_number_devices(FILE* stream, const CommandClause&, CommandOutcome& outcome) {
    DeviceCountRecord record{};
    send_request(stream, outcome, DD_GET_NUMBER_DEVICES, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "Error getting number of devices: %s\n", status_name(record.status));
        return;
    }
    fprintf(stream, "Completion Status: %s\n", status_name(record.status));
    fprintf(stream, "Number of Devices: %d\n", record.number_of_devices);
}

void get_device_state(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    DeviceStateRecord record{};
    keyword_argument(stream, clause, 1, "device", "get device state", record.device);
    send_request(stream, outcome, DD_GET_DEVICE_STATE, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "tarnwick error getting device state: %s\n", status_name(record.status));
        return;
    }
    fprintf(stream, "Completion Status: %s\n", status_name(record.status));
    // The driver fills the name fields; precision keeps an unterminated one
    // inside its field.
    fprintf(stream, "Device:\t\t%.*s \n", static_cast<int>(sizeof record.device_name), record.device_name);
    // Serial number and type are shown byte for byte, NULs included, as
    // testers compare them against the device's own data.
    fputs("Serial Number:\t", stream);
    fwrite(record.serial_number, 1, sizeof record.serial_number, stream);
    fputs("\nDevice Type:\t", stream);
    fwrite(record.device_type, 1, sizeof record.device_type, stream);
    fputs("\n\n", stream);
    fprintf(stream, "Path Selection Policy: %s\n", coded_name(record.policy, path_policy_names));
    fprintf(stream, "Path Count: %d ", static_cast<int32_t>(record.path_count));
    fprintf(stream, "\tRemaining Path: %d", record.remaining_paths);
    fprintf(stream, "\tLast path used: %d\n", record.last_path_used);
    fputc('\n', stream);

    const uint32_t shown = std::min<uint32_t>(record.path_count, kMaxPathEntries);
    for (uint32_t i = 0; i < shown; ++i) {
        const PathEntry& path = record.paths[i];
        fprintf(stream, "Path %ld: Adapter %d (%.*s)\tPath Name: %.*s\n", static_cast<long>(i), path.adapter_number,
                static_cast<int>(sizeof path.adapter_name), path.adapter_name,
                static_cast<int>(sizeof path.path_name), path.path_name);
        fprintf(stream, "\tState: %s\t\tMode: %s\n", coded_name(path.state, path_state_names),
                coded_name(path.mode, path_mode_names));
        fprintf(stream, "\tTimes used: %6d", path.times_used);
        fprintf(stream, "\tRecovered Errors: %d\n\n", path.recovered_errors);
    }
}

void set_path(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    SetPathRecord record{};
    keyword_argument(stream, clause, 1, "device", "set path", record.device);
    keyword_argument(stream, clause, 3, "path", "set path", record.path);
    keyword_argument(stream, clause, 5, "state", "set path", record.state);
    send_request(stream, outcome, DD_SET_PATH, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "Error setting path state: %s\n", status_name(record.status));
        return;
    }
    fprintf(stream, "Completion Status: %s\n", status_name(record.status));
    fprintf(stream, "Set Device %d Path %d to ", record.device, record.path);
    if (record.state == kStateOnline) {
        fputs("online\n", stream);
    } else if (record.state == kStateOffline) {
        fputs("offline\n", stream);
    } else {
        fputs("Error state\n", stream);
    }
}
