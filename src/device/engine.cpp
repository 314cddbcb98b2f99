// The I/O engine: one record at a time on the calling thread, or up to 256
// in flight through worker threads, with the same records, the same order
// of completion and the same home buffer either way.
#include "device/engine.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "device/timing.h"

namespace {

AccessResult<int32_t> read_here(FILE* stream, int descriptor, void* buffer, uint32_t length, int64_t) {
    return ps_read(stream, descriptor, buffer, length);
}
AccessResult<int32_t> write_here(FILE* stream, int descriptor, const void* buffer, uint32_t length, int64_t) {
    return ps_write(stream, descriptor, buffer, length);
}
AccessResult<int32_t> read_at(FILE*, int descriptor, void* buffer, uint32_t length, int64_t offset) {
    return ps_pread(descriptor, buffer, length, offset);
}
AccessResult<int32_t> write_at(FILE*, int descriptor, const void* buffer, uint32_t length, int64_t offset) {
    return ps_pwrite(descriptor, buffer, length, offset);
}
AccessResult<int64_t> no_position(FILE*, int, int64_t offset) { return {offset, 0}; }

// How records reach the device, one way of doing I/O a row. The transfers
// of a threaded way are called from several threads at once and never trace.
struct IoOperations {
    AccessResult<int64_t> (*position)(FILE* stream, int descriptor, int64_t offset);
    AccessResult<int32_t> (*read)(FILE* stream, int descriptor, void* buffer, uint32_t length, int64_t offset);
    AccessResult<int32_t> (*write)(FILE* stream, int descriptor, const void* buffer, uint32_t length, int64_t offset);
    bool threaded;
};
// One record at a time, where the descriptor stands: lseek, read, write.
constexpr IoOperations kOneInFlight{ps_lseek, read_here, write_here, false};
// Many, each at its offset from a worker thread: pread, pwrite.
constexpr IoOperations kManyInFlight{no_position, read_at, write_at, true};


constexpr int kMostInFlight = 256;

// Fills last_timing when some output wants it; costs nothing otherwise.
class TimingLog {
public:
    explicit TimingLog(const EngineJob& job) : on_(timing_wanted) {
        if (!on_) return;
        last_timing = TransferTiming{};
        last_timing.command = job.command;
        last_timing.depth = job.depth;
        // Growing by doubling copies every entry about once more; a bound
        // keeps a huge record count from taking memory it may never use.
        const auto expected = static_cast<size_t>(std::min<int64_t>(job.records, int64_t{1} << 20));
        last_timing.latency_us.reserve(expected);
        completions_.reserve(expected);
        start_ns_ = timing_now_ns();
    }
    ~TimingLog() {
        if (!on_ || completions_.empty()) return;
        // One record at a time completes in record order already.
        const auto earlier = [](const Completion& a, const Completion& b) { return a.at_ns < b.at_ns; };
        if (!std::is_sorted(completions_.begin(), completions_.end(), earlier))
            std::stable_sort(completions_.begin(), completions_.end(), earlier);
        last_timing.completed_at_us.reserve(completions_.size());
        last_timing.completed_sector.reserve(completions_.size());
        for (const Completion& c : completions_) {
            last_timing.completed_at_us.push_back(microseconds(c.at_ns - start_ns_));
            last_timing.completed_sector.push_back(c.sector);
        }
        last_timing.elapsed_s = static_cast<double>(completions_.back().at_ns - start_ns_) / 1e9;
    }
    TimingLog(const TimingLog&) = delete;
    TimingLog& operator=(const TimingLog&) = delete;

    bool on() const { return on_; }
    // Safe from any thread.
    int64_t issued() const { return on_ ? timing_now_ns() : 0; }
    // Called in record order.
    void completed(const EngineRecord& record, const RecordResult& result, int64_t issued_ns, int64_t done_ns) {
        if (!on_) return;
        if (record.index == 0) last_timing.first_sector = record.sector;
        ++last_timing.records;
        if (result.value > 0) last_timing.bytes += result.value;
        last_timing.latency_us.push_back(microseconds(done_ns - issued_ns));
        completions_.push_back({done_ns, record.sector});
    }

private:
    struct Completion {
        int64_t at_ns;
        int64_t sector;
    };
    static uint32_t microseconds(int64_t ns) {
        return static_cast<uint32_t>(std::clamp<int64_t>(ns / 1000, 0, UINT32_MAX));
    }
    bool on_;
    int64_t start_ns_ = 0;
    std::vector<Completion> completions_;
};

RecordResult transfer(const IoOperations& ops, const EngineJob& job, const EngineRecord& record, void* address) {
    const AccessResult<int32_t> moved =
        job.direction == Direction::read
            ? ops.read(job.stream, job.descriptor, address, record.size, record.offset)
            : ops.write(job.stream, job.descriptor, address, record.size, record.offset);
    // pread and pwrite position as they move: on a descriptor that cannot
    // seek (a FIFO), ESPIPE is the seek that lseek makes fail at depth 1.
    const bool unseekable = ops.threaded && moved.failed() && moved.error_number == ESPIPE;
    return {moved.value, moved.error_number, unseekable};
}

// One record at a time, through the home buffer, on this thread.
void run_one_by_one(const IoOperations& ops, const EngineJob& job, RecordSource& source, TimingLog& timing) {
    for (int64_t index = 0;; ++index) {
        EngineRecord record;
        record.index = index;
        if (!source.next(record, job.home)) return;
        const int64_t issued = timing.issued();
        RecordResult result;
        AccessResult<int64_t> position{record.offset, 0};
        if (record.position) {
            position = record.refused != 0 ? AccessResult<int64_t>{-1, record.refused}
                                           : ops.position(job.stream, job.descriptor, record.offset);
        }
        if (position.failed()) {
            result = {-1, position.error_number, true};
        } else {
            result = transfer(ops, job, record, source.transfer_address(job.home));
        }
        if (timing.on()) timing.completed(record, result, issued, timing_now_ns());
        if (!source.complete(record, result)) return;
    }
}

struct FreeBuffer {
    void operator()(uint8_t* p) const { std::free(p); }
};

// A record's place from its preparation until it completes to the source:
// its own page-aligned buffer, so direct transfers work.
struct Slot {
    std::unique_ptr<uint8_t, FreeBuffer> data;
    bool filled = false;  // holds home's bytes past what a written record prepares
    EngineRecord record;
    void* address = nullptr;
    RecordResult result;
    int64_t issued_ns = 0;
    int64_t done_ns = 0;
    bool issued = false;  // handed to the workers (under the lock)
    bool done = false;    // its completion collected by the run
};

// Up to depth records in flight through as many worker threads. The run
// prepares records ahead (up to four times the depth) and a worker that
// finishes one issues the next prepared one itself, so the device never
// waits for the run's thread to be scheduled: it only wakes to complete
// records in order and prepare more, every depth/4 completions.
class ManyInFlight {
public:
    ManyInFlight(const IoOperations& ops, const EngineJob& job, RecordSource& source, TimingLog& timing)
        : ops_(ops), job_(job), source_(source), timing_(timing), depth_(std::clamp(job.depth, 1, kMostInFlight)) {
        // Prepared records, issued or not: four times the depth, as far as
        // 64 MiB of buffers allow, and one more than the depth at least.
        const std::size_t bytes = (std::max<std::size_t>(job.record_bytes, 1) + 4095) / 4096 * 4096;
        const auto fit = static_cast<int64_t>((std::size_t{64} << 20) / bytes);
        const int64_t ahead = std::clamp<int64_t>(fit, depth_ + 1, int64_t{4} * depth_);
        const auto slots = std::clamp<int64_t>(job.records, 1, ahead);
        wake_batch_ = static_cast<int>(std::clamp<int64_t>((ahead - depth_) / 2, 1, std::max(1, depth_ / 4)));
        slots_.resize(static_cast<std::size_t>(slots));
        for (std::size_t k = 0; k < slots_.size(); ++k) {
            slots_[k].data.reset(static_cast<uint8_t*>(std::aligned_alloc(4096, bytes)));
            free_.push_back(static_cast<int>(slots_.size() - 1 - k));
        }
        const int workers = static_cast<int>(std::min<int64_t>(depth_, slots));
        for (int k = 0; k < workers; ++k) workers_.emplace_back([this] { work(); });
    }
    ~ManyInFlight() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        work_ready_.notify_all();
        for (std::thread& t : workers_) t.join();
    }
    ManyInFlight(const ManyInFlight&) = delete;
    ManyInFlight& operator=(const ManyInFlight&) = delete;

    std::vector<Outstanding> run();

private:
    void work();
    void prepare_more();
    bool complete_in_order();
    bool overlaps_active(const EngineRecord& record) const;
    void promote(bool by_worker);
    bool run_should_wake() const {
        return active_.empty() || finished_.size() >= static_cast<std::size_t>(wake_batch_) ||
               (halted_ && !finished_.empty());
    }
    void collect();

    const IoOperations& ops_;
    const EngineJob& job_;
    RecordSource& source_;
    TimingLog& timing_;
    const int depth_;
    int wake_batch_ = 1;  // completions that wake the run's thread
    std::vector<Slot> slots_;
    // The run's own (only its thread touches them).
    std::vector<int> free_;
    std::deque<int> order_;  // prepared, not yet completed to the source, in record order
    int64_t next_index_ = 0;
    bool more_ = true;   // the source may have more records
    int quiet_errno_ = errno;
    bool halted_seen_ = false;  // halted_ and active_.empty() as the last collect() found them
    bool idle_seen_ = false;

    // Shared with the workers, under mutex_.
    std::mutex mutex_;
    std::condition_variable work_ready_;
    std::condition_variable work_done_;
    std::deque<int> ready_;      // prepared, not issued, in record order
    std::deque<int> queue_;      // issued, not yet taken by a worker
    std::vector<int> active_;    // issued, not yet transferred
    std::vector<int> finished_;  // transferred, not yet collected
    bool halted_ = false;        // a record failed: issue nothing more
    bool run_waiting_ = false;
    bool quit_ = false;
    std::vector<std::thread> workers_;
};

bool ManyInFlight::overlaps_active(const EngineRecord& record) const {
    for (int k : active_) {
        const EngineRecord& other = slots_[static_cast<std::size_t>(k)].record;
        if (record.offset < other.offset + other.size && other.offset < record.offset + record.size) return true;
    }
    return false;
}

// Issues prepared records in record order while fewer than depth are in
// flight and the next shares no byte with one of them (it waits, and the
// records after it with it). Under the lock. A worker that calls it takes
// the first record issued itself, so only the others wake a worker.
void ManyInFlight::promote(bool by_worker) {
    int issued = 0;
    while (!halted_ && !ready_.empty() && active_.size() < static_cast<std::size_t>(depth_)) {
        const int k = ready_.front();
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        if (overlaps_active(slot.record)) break;
        ready_.pop_front();
        slot.issued = true;
        slot.issued_ns = timing_.issued();
        active_.push_back(k);
        queue_.push_back(k);
        if (++issued > 1 || !by_worker) work_ready_.notify_one();
    }
}

void ManyInFlight::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        work_ready_.wait(lock, [this] { return quit_ || !queue_.empty(); });
        if (queue_.empty()) return;
        const int k = queue_.front();
        queue_.pop_front();
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        const EngineRecord record = slot.record;
        void* const address = slot.address;
        lock.unlock();
        // An offset that cannot be formed fails as it is issued, with no call.
        const RecordResult result = record.refused != 0 ? RecordResult{-1, record.refused, true}
                                                        : transfer(ops_, job_, record, address);
        const int64_t done = timing_.on() ? timing_now_ns() : 0;
        lock.lock();
        slot.result = result;
        slot.done_ns = done;
        active_.erase(std::find(active_.begin(), active_.end(), k));
        finished_.push_back(k);
        if (result.value < 0) halted_ = true;
        promote(true);
        if (run_waiting_ && run_should_wake()) work_done_.notify_one();
    }
}

// Fills the free slots with the next records and offers them for issue.
void ManyInFlight::prepare_more() {
    std::vector<int> prepared;
    while (more_ && !free_.empty()) {
        const int k = free_.back();
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        if (job_.direction == Direction::write && !slot.filled) {
            std::memcpy(slot.data.get(), job_.home, job_.record_bytes);
            slot.filled = true;
        }
        slot.record = EngineRecord{};
        slot.record.index = next_index_;
        if (!source_.next(slot.record, slot.data.get())) {
            more_ = false;
            break;
        }
        free_.pop_back();
        ++next_index_;
        slot.address = source_.transfer_address(slot.data.get());
        slot.issued = false;
        slot.done = false;
        order_.push_back(k);
        prepared.push_back(k);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ready_.insert(ready_.end(), prepared.begin(), prepared.end());
    promote(false);
}

// Completes the records done at the front of the order; false when the
// source stopped the run.
bool ManyInFlight::complete_in_order() {
    while (!order_.empty() && slots_[static_cast<std::size_t>(order_.front())].done) {
        const int k = order_.front();
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        order_.pop_front();
        // The home buffer becomes what one record in flight leaves there:
        // the data read, or the record as written (its prepared bytes; the
        // rest was copied from home).
        if (job_.direction == Direction::read) {
            if (slot.result.value > 0 && slot.address == slot.data.get()) {
                std::memcpy(job_.home, slot.data.get(), static_cast<std::size_t>(slot.result.value));
            }
        } else {
            std::memcpy(job_.home, slot.data.get(), std::min(job_.prepared_bytes, slot.record.size));
        }
        timing_.completed(slot.record, slot.result, slot.issued_ns, slot.done_ns);
        free_.push_back(k);
        if (!source_.complete(slot.record, slot.result)) return false;
    }
    return true;
}

// Waits until there is something to complete (or nothing in flight), then
// takes the completions the workers have posted.
void ManyInFlight::collect() {
    std::vector<int> done;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        run_waiting_ = true;
        work_done_.wait(lock, [this] { return run_should_wake(); });
        run_waiting_ = false;
        done.swap(finished_);
        halted_seen_ = halted_;
        idle_seen_ = active_.empty();
    }
    for (int k : done) {
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        slot.done = true;
        // Each worker has its errno; a success reports the one this thread
        // had, as a call made here would have left it.
        if (slot.result.value >= 0) slot.result.error_number = quiet_errno_;
    }
}

std::vector<Outstanding> ManyInFlight::run() {
    for (;;) {
        if (!halted_seen_) prepare_more();
        if (!complete_in_order()) break;
        if (order_.empty() && !more_) break;
        // After a failure nothing is issued: once all that was has
        // finished, what is left was never issued.
        if (halted_seen_ && idle_seen_ &&
            (order_.empty() || !slots_[static_cast<std::size_t>(order_.front())].done)) {
            break;
        }
        if (!halted_seen_ && more_ && !free_.empty()) continue;
        collect();
    }
    // Nothing more is issued; what is in flight runs to its end.
    {
        std::lock_guard<std::mutex> lock(mutex_);
        halted_ = true;
        ready_.clear();
    }
    while (!idle_seen_) collect();
    std::vector<Outstanding> outstanding;
    for (int k : order_) {
        const Slot& slot = slots_[static_cast<std::size_t>(k)];
        if (!slot.issued) continue;  // prepared, never issued
        timing_.completed(slot.record, slot.result, slot.issued_ns, slot.done_ns);
        outstanding.push_back({slot.record, slot.result});
    }
    return outstanding;
}

}  // namespace

std::vector<Outstanding> run_records(const EngineJob& job, RecordSource& source) {
    const IoOperations& ops = job.depth > 1 ? kManyInFlight : kOneInFlight;
    TimingLog timing(job);
    if (!ops.threaded) {
        run_one_by_one(ops, job, source, timing);
        return {};
    }
    ManyInFlight run(ops, job, source, timing);
    return run.run();
}
