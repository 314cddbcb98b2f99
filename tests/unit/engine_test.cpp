#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <vector>

#include "device/engine.h"

// A device that sees which byte ranges are in flight at once. A transcript
// cannot show that two overlapping random records never meet at the device:
// a later write of the same sector carries the same bytes.
namespace {
std::mutex device_mutex;
std::vector<std::pair<int64_t, int64_t>> in_flight;  // [offset, end)
std::atomic<int> overlaps{0};
std::atomic<int> most_at_once{0};

AccessResult<int32_t> slow_transfer(int64_t offset, uint32_t length) {
    {
        std::lock_guard<std::mutex> lock(device_mutex);
        for (auto [from, to] : in_flight) {
            if (offset < to && from < offset + length) ++overlaps;
        }
        in_flight.emplace_back(offset, offset + length);
        most_at_once = std::max(most_at_once.load(), static_cast<int>(in_flight.size()));
    }
    usleep(200);
    std::lock_guard<std::mutex> lock(device_mutex);
    in_flight.erase(std::find(in_flight.begin(), in_flight.end(), std::make_pair(offset, offset + length)));
    return {static_cast<int32_t>(length), 0};
}
AccessResult<int32_t> fake_read(FILE*, int, void*, uint32_t length, int64_t offset) {
    return slow_transfer(offset, length);
}
AccessResult<int32_t> fake_write(FILE*, int, const void*, uint32_t length, int64_t offset) {
    return slow_transfer(offset, length);
}
AccessResult<int64_t> fake_position(FILE*, int, int64_t offset) { return {offset, 0}; }
const IoOperations kFakeDevice{fake_position, fake_read, fake_write, true};

// Records of 1 to 4 sectors at random sectors 0..20: many overlap.
struct RandomRecords : RecordSource {
    std::mt19937 random{7};
    std::vector<int64_t> completed;
    bool next(EngineRecord& record, uint8_t* data) override {
        if (record.index == 2000) return false;
        record.sector = static_cast<int64_t>(random() % 21);
        record.offset = record.sector * 512;
        record.size = static_cast<uint32_t>(512 * (1 + random() % 4));
        record.position = true;
        data[0] = static_cast<uint8_t>(record.index);
        return true;
    }
    bool complete(const EngineRecord& record, const RecordResult& result) override {
        completed.push_back(record.index);
        return result.value == static_cast<int32_t>(record.size);
    }
};
}  // namespace

TEST(Engine, OverlappingRecordsNeverMeetInFlightAndCompleteInRecordOrder) {
    for (Direction direction : {Direction::read, Direction::write}) {
        alignas(4096) static uint8_t home[4096];
        RandomRecords source;
        overlaps = 0, most_at_once = 0;
        EngineJob job;
        job.direction = direction;
        job.depth = 16;
        job.records = 2000;
        job.home = home;
        job.record_bytes = 2048;
        job.prepared_bytes = 1;
        EXPECT_TRUE(run_records(job, source, &kFakeDevice).empty());
        EXPECT_EQ(overlaps, 0);
        EXPECT_GT(most_at_once, 1);  // records did overlap in time where their ranges allowed
        ASSERT_EQ(source.completed.size(), 2000u);
        for (int64_t i = 0; i < 2000; ++i) {
            ASSERT_EQ(source.completed[static_cast<std::size_t>(i)], i);
        }
        if (direction == Direction::write) {
            EXPECT_EQ(home[0], static_cast<uint8_t>(1999));  // the home buffer holds the last record
        }
    }
}
