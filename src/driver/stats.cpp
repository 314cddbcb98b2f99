// Statistics reports of one device or one adapter.
#include "driver/driver.h"
#include "driver/request.h"

namespace {

// Each number sits right-aligned under the end of its heading; the
// headings begin after the same sixteen-character lead-in as the numbers.
void print_head(FILE* stream, int32_t status, const StatsRow& io) {
    fprintf(stream, "Completion Status: %s\n", status_name(status));
    fprintf(stream, "\n%16c", ' ');
    fputs("Total Read  Total Write  Active Read  Active Write   Maximum\n", stream);
    fputs("I/O:            ", stream);
    fprintf(stream, "%10u%13u%13u%14u%10u\n", io.total_read, io.total_write, io.active_read, io.active_write,
            io.maximum);
}

void print_sectors(FILE* stream, const StatsRow& sectors, const char* end) {
    fputs("SECTOR:         ", stream);
    fprintf(stream, "%10u%13u%13u%14u%10u\n%s", sectors.total_read, sectors.total_write, sectors.active_read,
            sectors.active_write, sectors.maximum, end);
}

}  // namespace

void get_dev_stats(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    DeviceStatsRecord record{};
    keyword_argument(stream, clause, 1, "device", "get device statistics", record.device);
    send_request(stream, outcome, DD_GET_DEV_STATS, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "tarnwick error getting device statistics: %s\n", status_name(record.status));
        return;
    }
    print_head(stream, record.status, record.io);
    print_sectors(stream, record.sectors, "");
    fputs("\nTransfer Size:      <= 512        <= 4k       <= 16K        <= 64K     > 64K\n", stream);
    fprintf(stream, "%16c", ' ');
    fprintf(stream, "%10u%13u%13u%14u%10u\n\n", record.up_to_512, record.up_to_4k, record.up_to_16k,
            record.up_to_64k, record.over_64k);
}

void get_adapter_stats(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    AdapterStatsRecord record{};
    keyword_argument(stream, clause, 1, "adapter", "get adapter statistics", record.adapter);
    send_request(stream, outcome, DD_GET_ADAPTER_STATS, &record, sizeof record);
    if (outcome.return_code == -1) {
        fprintf(stream, "tarnwick error getting adapter statistics: %s\n", status_name(record.status));
        return;
    }
    print_head(stream, record.status, record.io);
    print_sectors(stream, record.sectors, "\n");
}
