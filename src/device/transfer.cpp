// Sequential and random data transfer between the device and io_buffer,
// the capacity query and the sector display.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "context/context.h"
#include "device/data_commands.h"
#include "device/access.h"
#include "device/variables.h"
#include "device/generator.h"
#include "device/progress.h"
#include "device/timing.h"
#include "script/script.h"

int64_t last_sector = 0;

namespace {

constexpr auto kBufferBytes = static_cast<int64_t>(kIoBufferSize);

uint8_t* io_buffer() { return test_context.io_buffer; }

int32_t buffer_identifier() {
    const uint8_t* b = io_buffer();
    return static_cast<int32_t>(static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                                static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24);
}

void set_buffer_identifier(int32_t value) {
    auto v = static_cast<uint32_t>(value);
    uint8_t* b = io_buffer();
    b[0] = static_cast<uint8_t>(v);
    b[1] = static_cast<uint8_t>(v >> 8);
    b[2] = static_cast<uint8_t>(v >> 16);
    b[3] = static_cast<uint8_t>(v >> 24);
}

void print_first_bytes(FILE* stream) {
    const uint8_t* b = io_buffer();
    fprintf(stream, "%2.2x %2.2x %2.2x %2.2x %2.2x %2.2x %2.2x %2.2x ...\n", b[0], b[1], b[2], b[3], b[4], b[5],
            b[6], b[7]);
}

// The per-record lines every data command shares; `done` is "read" or
// "wrote", `failing` is "reading" or "writing".
void report_record(FILE* stream, const char* done, int64_t size, int64_t sector, int32_t data) {
    fprintf(stream, "%s %ld bytes, sector = %ld, data = %d, ", done, static_cast<long>(size), static_cast<long>(sector),
            data);
    print_first_bytes(stream);
}

void report_failure(FILE* stream, const char* failing, int64_t size, int64_t sector, int32_t data) {
    fprintf(stream, "Error %s %ld bytes, sector = %ld, data = %d \n", failing, static_cast<long>(size),
            static_cast<long>(sector), data);
}

// The byte offset of a sector, for values a script may set to anything: an
// offset beyond 64 bits fails as a seek would, never wrapping onto some
// other sector. False when the seek failed.
bool seek_to_sector(FILE* stream, int64_t sector, CommandOutcome& outcome) {
    int64_t offset = 0;
    const AccessResult<int64_t> sought = checked_product(sector, sector_size, offset)
                                             ? ps_lseek(stream, test_context.device_handle, offset)
                                             : AccessResult<int64_t>{-1, EOVERFLOW};
    return note_result(outcome, sought) != -1;
}
void advance_block_seek() { block_seek = static_cast<int64_t>(static_cast<uint64_t>(block_seek) + 1); }

void keyword_error(FILE* stream, const char* command, const CommandClause& clause, int32_t i) {
    fprintf(stream, "%s, invalid statement at (%s) ", command, clause.rest(i));
    report_syntax_error();
}

// "records = N" / "blocks = N": the value is taken even after a wrong keyword.
int64_t count_argument(FILE* stream, const char* command, const CommandClause& clause, std::string_view keyword) {
    if (!keyword_matches(clause.token(1), keyword)) keyword_error(stream, command, clause, 1);
    return parse_count(clause.token(3));
}

// A command that ends with a negative return code reports the error
// number it leaves as its errno.
void capture_errno(CommandOutcome& outcome) {
    if (outcome.return_code < 0) outcome.error_number = outcome.last_errno;
}

// The executor has reported a record size outside the buffer; no transfer
// may then move more than io_buffer holds, so none is made at all.
bool record_fits(int64_t size) { return size >= 0 && size <= kBufferBytes; }

void sequential_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome, bool verify) {
    const int64_t size = record_size();
    int64_t records = 1;
    if (timing_wanted) timing_begin(verify ? "read_verify" : "read");  // depth-1 timing fill
    if (clause.count == 4) records = count_argument(stream, "read", clause, "records");
    if (!record_fits(size)) return;

    if (!seek_to_sector(stream, block_seek, outcome)) {
        fprintf(stream, ".Error seeking to block %ld \n", static_cast<long>(block_seek));
        return;
    }
    int64_t expected_sector = block_seek;
    int64_t last_good = 0;
    bool go_on = true;
    TransferProgress progress(stream, verify ? "read_verify" : "read", records);
    for (int64_t r = 0; r < records && go_on; ++r) {
        if (stop_requested()) break;
        last_sector = block_seek;
        const int64_t issued = timing_wanted ? timing_now_ns() : 0;  // depth-1 timing fill
        int32_t n = note_result(outcome, ps_read(stream, test_context.device_handle, select_buffer(io_buffer()),
                                                 static_cast<uint32_t>(size)));
        if (timing_wanted) timing_record(issued, block_seek, n);    // depth-1 timing fill
        outcome.return_code = n;
        outcome.data = buffer_identifier();
        if (n < 0) {
            report_failure(stream, "reading", size, block_seek, outcome.data);
            break;
        }
        test_context.bytes_transferred += n;
        last_good = r;
        progress.record(r + 1);
        if (r == 0) {
            report_record(stream, "read", size, block_seek, outcome.data);
        }
        advance_block_seek();
        if (!verify) continue;
        if (static_cast<int64_t>(outcome.data) != expected_sector) {
            outcome.return_code = -1;
            fprintf(stream, "read_verify failed for %ld bytes, expected data = %ld, data read = %d \n",
                    static_cast<long>(size), static_cast<long>(expected_sector), outcome.data);
            break;
        }
        uint8_t expected_byte = 0;
        int32_t at = verify_record_pattern(io_buffer(), expected_sector, expected_byte);
        if (at >= 0) {
            go_on = false;
            outcome.return_code = -1;
            fprintf(stream, "block %ld verify failed at byte %d, expected %x, read %x \n",
                    static_cast<long>(expected_sector), at, expected_byte, io_buffer()[at]);
        }
        ++expected_sector;
    }
    if (last_good > 0) {
        fputs(" ... \n", stream);
        report_record(stream, "read", size, block_seek - 1, buffer_identifier());
    }
    capture_errno(outcome);
}

}  // namespace

void command_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    sequential_read(stream, clause, outcome, false);
}

void command_read_verify(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    sequential_read(stream, clause, outcome, true);
}

void command_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    const int64_t size = record_size();
    int64_t records = 1;
    bool data_given = false;
    int32_t data = 0;
    if (timing_wanted) timing_begin("write");  // depth-1 timing fill
    if (clause.count > 3) records = count_argument(stream, "write", clause, "records");
    if (clause.count == 7) {
        if (!keyword_matches(clause.token(4), "data")) keyword_error(stream, "write", clause, 4);
        std::string_view value = clause.token(6);
        data = decimal_value(value.data(), static_cast<int32_t>(value.size()));
        data_given = true;
    }
    if (!record_fits(size)) return;

    if (!seek_to_sector(stream, block_seek, outcome)) {
        fprintf(stream, "..Error seeking to sector %ld \n", static_cast<long>(block_seek));
        return;
    }
    int64_t last_good = 0;
    TransferProgress progress(stream, "write", records);
    for (int64_t r = 0; r < records; ++r) {
        if (stop_requested()) break;
        set_buffer_identifier(data_given ? data : static_cast<int32_t>(block_seek));
        fill_record_pattern(io_buffer(), block_seek);
        last_sector = block_seek;
        const int64_t issued = timing_wanted ? timing_now_ns() : 0;  // depth-1 timing fill
        int32_t n = note_result(outcome, ps_write(stream, test_context.device_handle, select_buffer(io_buffer()),
                                                  static_cast<uint32_t>(size)));
        if (timing_wanted) timing_record(issued, block_seek, n);     // depth-1 timing fill
        outcome.return_code = n;
        if (n < 0) {
            report_failure(stream, "writing", size, block_seek, buffer_identifier());
            break;
        }
        test_context.bytes_transferred += n;
        last_good = r;
        progress.record(r + 1);
        if (r == 0) {
            report_record(stream, "wrote", size, block_seek, buffer_identifier());
        }
        advance_block_seek();
    }
    if (last_good > 0) {
        fputs(" ... \n", stream);
        report_record(stream, "wrote", size, block_seek - 1, buffer_identifier());
    }
    capture_errno(outcome);
}

namespace {

// The steps both random commands take after each record.
struct RandomRun {
    FILE* stream;
    CommandOutcome& outcome;
    const char* done;     // "read" or "wrote"
    const char* failing;  // "reading" or "writing"
    int64_t records;
    TransferProgress progress;

    // Books record r of size bytes at sector, which moved n bytes or failed
    // (-1, its seek or its transfer): the outcome, and the failure line or,
    // for the first and the last record, the record line. False on failure.
    bool book(int64_t r, int64_t size, int64_t sector, int32_t n) {
        outcome.return_code = n;
        outcome.data = buffer_identifier();
        if (n < 0) {
            report_failure(stream, failing, size, sector, outcome.data);
            return false;
        }
        test_context.bytes_transferred += n;
        progress.record(r + 1);
        if (r == 0 || r == records - 1) report_record(stream, done, size, sector, outcome.data);
        return true;
    }
};

}  // namespace

void command_random_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    int64_t records = 0;
    if (timing_wanted) timing_begin("random_read");  // depth-1 timing fill
    if (clause.count == 4) records = count_argument(stream, "random_read", clause, "blocks");
    RandomRun run{stream, outcome, "read", "reading", records, TransferProgress(stream, "random_read", records)};
    for (int64_t r = 0; r < records; ++r) {
        if (stop_requested()) break;
        int64_t sector = random_sector();
        int64_t sectors = next_running_value() % 10 + 1;
        // sector + sectors is never formed: it could pass INT64_MAX.
        if (sector >= block_max || block_max - sector <= sectors) sectors = 1;
        int64_t size = std::min(saturated_product(sectors, sector_size), kBufferBytes);
        if (!record_fits(size)) return;

        if (!seek_to_sector(stream, sector, outcome)) {
            last_sector = sector;
            fprintf(stream, "...Error seeking to sector %ld \n", static_cast<long>(sector));
            run.book(r, size, sector, -1);
            break;
        }
        last_sector = sector;
        const int64_t issued = timing_wanted ? timing_now_ns() : 0;  // depth-1 timing fill
        int32_t n = note_result(outcome, ps_read(stream, test_context.device_handle, select_buffer(io_buffer()),
                                                 static_cast<uint32_t>(size)));
        if (timing_wanted) timing_record(issued, sector, n);         // depth-1 timing fill
        if (!run.book(r, size, sector, n)) break;
    }
    capture_errno(outcome);
}

void command_random_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    int64_t records = 0;
    if (timing_wanted) timing_begin("random_write");  // depth-1 timing fill
    if (clause.count == 4) records = count_argument(stream, "random_write", clause, "blocks");
    RandomRun run{stream, outcome, "wrote", "writing", records, TransferProgress(stream, "random_write", records)};
    for (int64_t r = 0; r < records; ++r) {
        if (stop_requested()) break;
        int64_t sector = random_sector();
        int64_t size = std::min(sector_size, kBufferBytes);
        if (!record_fits(size)) return;
        fill_record_pattern(io_buffer(), sector);

        if (!seek_to_sector(stream, sector, outcome)) {
            fprintf(stream, "....Error seeking to sector %ld \n", static_cast<long>(sector));
            run.book(r, size, sector, -1);
            break;
        }
        last_sector = sector;
        set_buffer_identifier(static_cast<int32_t>(sector));
        const int64_t issued = timing_wanted ? timing_now_ns() : 0;  // depth-1 timing fill
        int32_t n = note_result(outcome, ps_write(stream, test_context.device_handle, select_buffer(io_buffer()),
                                                  static_cast<uint32_t>(size)));
        if (timing_wanted) timing_record(issued, sector, n);         // depth-1 timing fill
        if (!run.book(r, size, sector, n)) break;
    }
    capture_errno(outcome);
}

namespace {
int32_t big_endian_field(const uint8_t* bytes) {
    return static_cast<int32_t>(static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
                                static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]));
}
}  // namespace

void command_device_capacity(FILE* stream, const CommandClause&, CommandOutcome& outcome) {
    uint8_t capacity[8] = {};
    // A device that cannot answer fails the command; the refused size
    // request's errno is not the command's error value.
    const AccessResult<int> answer = ps_get_capacity(stream, test_context.device_handle, capacity, sizeof capacity);
    outcome.return_code = answer.value;
    if (answer.failed()) {
        fprintf(stream, "tarnwick error calling ps_get_capacity\n");
        return;
    }
    note_result(outcome, answer);
    // Both fields are read as signed 32-bit numbers. A highest address that
    // reads negative (from 0x80000000 up, 0xFFFFFFFF among them: more blocks
    // than the field holds) would put every random sector before the
    // device's start; block_max becomes the largest the field can carry
    // instead, so random transfers cover the first 2^31 blocks and stay on
    // the device.
    int32_t highest = big_endian_field(capacity);
    if (highest < 0) highest = INT32_MAX;
    const int32_t block_length = big_endian_field(capacity + 4);
    block_max = highest;
    sector_size = block_length;
    fprintf(stream, "\nsector size = %ld, highest LBA = %ld \n\n", static_cast<long>(sector_size),
            static_cast<long>(block_max));
}

void command_display_block(FILE* stream, const CommandClause&, CommandOutcome&) {
    constexpr int64_t kLine = 16;
    fprintf(stream, "Contents of sector %ld \n", static_cast<long>(last_sector));
    // The dump never reaches past io_buffer, whatever the record size says.
    const int64_t total = std::clamp<int64_t>(record_size(), 0, kBufferBytes);
    const uint8_t* b = io_buffer();
    for (int64_t offset = 0; offset < total; offset += kLine) {
        const int64_t n = std::min(kLine, total - offset);
        fprintf(stream, " bytes %.4d-%.4d: ", static_cast<int>(offset), static_cast<int>(offset + n - 1));
        for (int64_t i = 0; i < n; ++i) fprintf(stream, "%2.2x ", b[offset + i]);
        if (n < kLine) {
            fputc('\n', stream);
            break;
        }
        char text[kLine + 1];
        printable_copy(b + offset, text, static_cast<int32_t>(kLine));
        fprintf(stream, "  (%s) \n", text);
    }
    fprintf(stream, "End contents of sector %ld \n", static_cast<long>(last_sector));
}
