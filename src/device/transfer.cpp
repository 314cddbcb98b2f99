// Sequential and random data transfer between the device and io_buffer,
// the capacity query and the sector display. The records move through the
// I/O engine (device/engine.h); what each one is, and what its completion
// prints, is decided here, in record order, whatever the depth.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "context/context.h"
#include "device/data_commands.h"
#include "device/access.h"
#include "device/engine.h"
#include "device/variables.h"
#include "device/generator.h"
#include "device/progress.h"
#include "device/timing.h"
#include "script/script.h"

int64_t last_sector = 0;

namespace {

constexpr auto kBufferBytes = static_cast<int64_t>(kIoBufferSize);

uint8_t* io_buffer() { return test_context.io_buffer; }

int32_t record_identifier(const uint8_t* b) {
    return static_cast<int32_t>(static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                                static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24);
}
int32_t buffer_identifier() { return record_identifier(io_buffer()); }

void set_record_identifier(uint8_t* b, int32_t value) {
    auto v = static_cast<uint32_t>(value);
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

// After a failed record, one line for each record that was in flight with
// it and issued after it: what a tester needs to know of the requests that
// were outstanding when the path died.
void report_in_flight(FILE* stream, const std::vector<Outstanding>& outstanding) {
    for (const Outstanding& o : outstanding) {
        fprintf(stream, "in flight: %ld bytes, sector = %ld, ", static_cast<long>(o.record.size),
                static_cast<long>(o.record.sector));
        if (o.result.value < 0) {
            fprintf(stream, "failed, errno = %d \n", o.result.error_number);
        } else {
            fprintf(stream, "completed \n");
        }
    }
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

// Record r of a run that starts at sector first with records of size bytes.
void place_sequential(EngineRecord& record, int64_t first, int64_t size) {
    record.sector = static_cast<int64_t>(static_cast<uint64_t>(first) + static_cast<uint64_t>(record.index));
    record.size = static_cast<uint32_t>(size);
    int64_t start = 0;
    int64_t into = 0;
    if (!checked_product(first, sector_size, start) || !checked_product(record.index, size, into) ||
        __builtin_add_overflow(start, into, &record.offset)) {
        record.refused = EOVERFLOW;
    }
}

void place_random(EngineRecord& record, int64_t sector, int64_t size) {
    record.sector = sector;
    record.size = static_cast<uint32_t>(size);
    record.position = true;
    if (!checked_product(sector, sector_size, record.offset)) record.refused = EOVERFLOW;
}

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

// A command that ends before its first record leaves no earlier command's
// timing behind.
void forget_timing(const char* command) {
    if (!timing_wanted) return;
    last_timing = TransferTiming{};
    last_timing.command = command;
    last_timing.depth = static_cast<int>(depth);
}

EngineJob job_for(const char* command, FILE* stream, Direction direction, int64_t records, int64_t record_bytes) {
    EngineJob job;
    job.command = command;
    job.stream = stream;
    job.descriptor = test_context.device_handle;
    job.direction = direction;
    job.depth = static_cast<int>(std::clamp<int64_t>(depth, 1, 256));
    job.records = std::max<int64_t>(records, 0);
    job.home = io_buffer();
    job.record_bytes = static_cast<uint32_t>(std::clamp<int64_t>(record_bytes, 0, kBufferBytes));
    job.prepared_bytes = kPatternEnd;
    return job;
}

// What the sequential commands share: records back to back from the
// starting sector, the command's outcome, the last record that succeeded.
class SequentialRun : public RecordSource {
public:
    SequentialRun(FILE* stream, CommandOutcome& outcome, const char* command, int64_t records, int64_t size)
        : stream_(stream), outcome_(outcome), records_(records), size_(size), first_(block_seek),
          progress_(stream, command, records) {}

    bool next(EngineRecord& record, uint8_t*) override {
        if (record.index >= records_ || stop_requested()) return false;
        place_sequential(record, first_, size_);
        return true;
    }
    void* transfer_address(void* own) override { return select_buffer(own); }

    // The closing line of a command that moved at least two records.
    void close(const char* done) {
        if (last_good_ == 0) return;
        fputs(" ... \n", stream_);
        report_record(stream_, done, size_, block_seek - 1, buffer_identifier());
    }

protected:
    // The outcome of a transfer; false when it failed (its line printed).
    bool transferred(const EngineRecord& record, const RecordResult& result, const char* failing) {
        last_sector = block_seek;
        outcome_.last_errno = result.error_number;
        outcome_.return_code = result.value;
        if (result.value < 0) {
            report_failure(stream_, failing, size_, block_seek, buffer_identifier());
            return false;
        }
        test_context.bytes_transferred += result.value;
        last_good_ = record.index;
        progress_.record(record.index + 1);
        return true;
    }

    FILE* stream_;
    CommandOutcome& outcome_;
    int64_t records_;
    int64_t size_;
    int64_t first_;
    int64_t last_good_ = 0;
    TransferProgress progress_;
};

class SequentialRead : public SequentialRun {
public:
    SequentialRead(FILE* stream, CommandOutcome& outcome, int64_t records, int64_t size, bool verify)
        : SequentialRun(stream, outcome, verify ? "read_verify" : "read", records, size), verify_(verify),
          expected_sector_(block_seek) {}

    bool complete(const EngineRecord& record, const RecordResult& result) override {
        outcome_.data = buffer_identifier();
        if (!transferred(record, result, "reading")) return false;
        if (record.index == 0) report_record(stream_, "read", size_, block_seek, outcome_.data);
        advance_block_seek();
        if (!verify_) return !stop_requested();
        // A record holds the low 32 bits of its sector (and its pattern is
        // seeded with them): past 2^31 sectors that is all there is to
        // compare, and comparing the whole number would fail every record
        // written there.
        if (outcome_.data != static_cast<int32_t>(expected_sector_)) {
            outcome_.return_code = -1;
            fprintf(stream_, "read_verify failed for %ld bytes, expected data = %ld, data read = %d \n",
                    static_cast<long>(size_), static_cast<long>(expected_sector_), outcome_.data);
            return false;
        }
        uint8_t expected_byte = 0;
        const int32_t at = verify_record_pattern(io_buffer(), expected_sector_, expected_byte);
        if (at >= 0) {
            outcome_.return_code = -1;
            fprintf(stream_, "block %ld verify failed at byte %d, expected %x, read %x \n",
                    static_cast<long>(expected_sector_), at, expected_byte, io_buffer()[at]);
            return false;
        }
        ++expected_sector_;
        return !stop_requested();
    }

private:
    bool verify_;
    int64_t expected_sector_;
};

class SequentialWrite : public SequentialRun {
public:
    SequentialWrite(FILE* stream, CommandOutcome& outcome, int64_t records, int64_t size, bool data_given,
                    int32_t data)
        : SequentialRun(stream, outcome, "write", records, size), data_given_(data_given), data_(data) {}

    bool next(EngineRecord& record, uint8_t* bytes) override {
        if (!SequentialRun::next(record, bytes)) return false;
        set_record_identifier(bytes, data_given_ ? data_ : static_cast<int32_t>(record.sector));
        fill_record_pattern(bytes, record.sector);
        return true;
    }
    bool complete(const EngineRecord& record, const RecordResult& result) override {
        if (!transferred(record, result, "writing")) return false;
        if (record.index == 0) report_record(stream_, "wrote", size_, block_seek, buffer_identifier());
        advance_block_seek();
        return !stop_requested();
    }

private:
    bool data_given_;
    int32_t data_;
};

void sequential_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome, bool verify) {
    const char* command = verify ? "read_verify" : "read";
    const int64_t size = record_size();
    int64_t records = 1;
    if (clause.count == 4) records = count_argument(stream, "read", clause, "records");
    forget_timing(command);
    if (!record_fits(size)) return;

    if (!seek_to_sector(stream, block_seek, outcome)) {
        fprintf(stream, ".Error seeking to block %ld \n", static_cast<long>(block_seek));
        return;
    }
    SequentialRead run(stream, outcome, records, size, verify);
    const std::vector<Outstanding> outstanding =
        run_records(job_for(command, stream, Direction::read, records, size), run);
    run.close("read");
    report_in_flight(stream, outstanding);
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
    if (clause.count > 3) records = count_argument(stream, "write", clause, "records");
    if (clause.count == 7) {
        if (!keyword_matches(clause.token(4), "data")) keyword_error(stream, "write", clause, 4);
        std::string_view value = clause.token(6);
        data = decimal_value(value.data(), static_cast<int32_t>(value.size()));
        data_given = true;
    }
    forget_timing("write");
    if (!record_fits(size)) return;

    if (!seek_to_sector(stream, block_seek, outcome)) {
        fprintf(stream, "..Error seeking to sector %ld \n", static_cast<long>(block_seek));
        return;
    }
    SequentialWrite run(stream, outcome, records, size, data_given, data);
    const std::vector<Outstanding> outstanding =
        run_records(job_for("write", stream, Direction::write, records, size), run);
    run.close("wrote");
    report_in_flight(stream, outstanding);
    capture_errno(outcome);
}

namespace {

// What both random commands share: the record count, the outcome and the
// lines of the first and the last record.
class RandomRun : public RecordSource {
public:
    RandomRun(FILE* stream, CommandOutcome& outcome, const char* command, const char* done, const char* failing,
              int64_t records)
        : stream_(stream), outcome_(outcome), done_(done), failing_(failing), records_(records),
          progress_(stream, command, records) {}

    void* transfer_address(void* own) override { return select_buffer(own); }
    // A record size outside the buffer ended the command before its record.
    bool refused() const { return refused_; }

protected:
    // Whether record r may be drawn at all.
    bool wanted(int64_t r) const { return r < records_ && !stop_requested(); }
    bool fits(int64_t size) {
        refused_ = !record_fits(size);
        return !refused_;
    }

    // Books record r of size bytes at sector, which moved n bytes or failed
    // (-1, its seek or its transfer): the outcome, and the failure line or,
    // for the first and the last record, the record line. False on failure,
    // or when a signal asks the run to stop.
    bool book(int64_t r, int64_t size, int64_t sector, const RecordResult& result) {
        outcome_.last_errno = result.error_number;
        outcome_.return_code = result.value;
        outcome_.data = buffer_identifier();
        if (result.value < 0) {
            report_failure(stream_, failing_, size, sector, outcome_.data);
            return false;
        }
        test_context.bytes_transferred += result.value;
        progress_.record(r + 1);
        if (r == 0 || r == records_ - 1) report_record(stream_, done_, size, sector, outcome_.data);
        return !stop_requested();
    }

    FILE* stream_;
    CommandOutcome& outcome_;
    const char* done_;     // "read" or "wrote"
    const char* failing_;  // "reading" or "writing"
    int64_t records_;
    bool refused_ = false;
    TransferProgress progress_;
};

class RandomRead : public RandomRun {
public:
    RandomRead(FILE* stream, CommandOutcome& outcome, int64_t records)
        : RandomRun(stream, outcome, "random_read", "read", "reading", records) {}

    bool next(EngineRecord& record, uint8_t*) override {
        if (!wanted(record.index)) return false;
        const int64_t sector = random_sector();
        int64_t sectors = next_running_value() % 10 + 1;
        // sector + sectors is never formed: it could pass INT64_MAX.
        if (sector >= block_max || block_max - sector <= sectors) sectors = 1;
        const int64_t size = std::min(saturated_product(sectors, sector_size), kBufferBytes);
        if (!fits(size)) return false;
        place_random(record, sector, size);
        return true;
    }
    bool complete(const EngineRecord& record, const RecordResult& result) override {
        last_sector = record.sector;
        if (result.position_failed) {
            fprintf(stream_, "...Error seeking to sector %ld \n", static_cast<long>(record.sector));
        }
        return book(record.index, record.size, record.sector, result);
    }
};

class RandomWrite : public RandomRun {
public:
    RandomWrite(FILE* stream, CommandOutcome& outcome, int64_t records)
        : RandomRun(stream, outcome, "random_write", "wrote", "writing", records),
          shown_identifier_(buffer_identifier()) {}

    bool next(EngineRecord& record, uint8_t* bytes) override {
        if (!wanted(record.index)) return false;
        const int64_t sector = random_sector();
        const int64_t size = std::min(sector_size, kBufferBytes);
        if (!fits(size)) return false;
        fill_record_pattern(bytes, sector);
        set_record_identifier(bytes, static_cast<int32_t>(sector));
        place_random(record, sector, size);
        return true;
    }
    bool complete(const EngineRecord& record, const RecordResult& result) override {
        if (result.position_failed) {
            // A record whose sector was never reached gets no identifier:
            // the buffer keeps the previous record's.
            set_record_identifier(io_buffer(), shown_identifier_);
            fprintf(stream_, "....Error seeking to sector %ld \n", static_cast<long>(record.sector));
        } else {
            last_sector = record.sector;
            shown_identifier_ = buffer_identifier();
        }
        return book(record.index, record.size, record.sector, result);
    }

private:
    int32_t shown_identifier_;
};

// Runs a random command's records; a record size outside the buffer ends
// the command at once, as it stands.
void run_random(FILE* stream, RandomRun& run, CommandOutcome& outcome, const char* command, Direction direction,
                int64_t records, int64_t record_bytes) {
    const std::vector<Outstanding> outstanding =
        run_records(job_for(command, stream, direction, records, record_bytes), run);
    if (run.refused()) return;
    report_in_flight(stream, outstanding);
    capture_errno(outcome);
}

}  // namespace

void command_random_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    int64_t records = 0;
    if (clause.count == 4) records = count_argument(stream, "random_read", clause, "blocks");
    RandomRead run(stream, outcome, records);
    run_random(stream, run, outcome, "random_read", Direction::read, records, saturated_product(10, sector_size));
}

void command_random_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    int64_t records = 0;
    if (clause.count == 4) records = count_argument(stream, "random_write", clause, "blocks");
    RandomWrite run(stream, outcome, records);
    run_random(stream, run, outcome, "random_write", Direction::write, records, sector_size);
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
