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

int64_t now_ns() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

constexpr int kMostInFlight = 256;

// Fills last_timing when some output wants it; costs nothing otherwise.
class TimingLog {
public:
    explicit TimingLog(const EngineJob& job) : on_(timing_wanted) {
        if (!on_) return;
        last_timing = TransferTiming{};
        last_timing.command = job.command;
        last_timing.depth = job.depth;
    }
    ~TimingLog() {
        if (!on_ || completions_.empty()) return;
        std::stable_sort(completions_.begin(), completions_.end(),
                         [](const Completion& a, const Completion& b) { return a.at_ns < b.at_ns; });
        for (const Completion& c : completions_) {
            last_timing.completed_at_us.push_back(microseconds(c.at_ns - start_ns_));
            last_timing.completed_sector.push_back(c.sector);
        }
        last_timing.elapsed_s = static_cast<double>(completions_.back().at_ns - start_ns_) / 1e9;
    }
    TimingLog(const TimingLog&) = delete;
    TimingLog& operator=(const TimingLog&) = delete;

    bool on() const { return on_; }
    int64_t issued() {
        if (!on_) return 0;
        const int64_t t = now_ns();
        if (start_ns_ < 0) start_ns_ = t;
        return t;
    }
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
    int64_t start_ns_ = -1;
    std::vector<Completion> completions_;
};

RecordResult transfer(const IoOperations& ops, const EngineJob& job, const EngineRecord& record, void* address) {
    const AccessResult<int32_t> moved =
        job.direction == Direction::read
            ? ops.read(job.stream, job.descriptor, address, record.size, record.offset)
            : ops.write(job.stream, job.descriptor, address, record.size, record.offset);
    return {moved.value, moved.error_number, false};
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
        if (timing.on()) timing.completed(record, result, issued, now_ns());
        if (!source.complete(record, result)) return;
    }
}

struct FreeBuffer {
    void operator()(uint8_t* p) const { std::free(p); }
};

// A record's place while it is prepared, in flight and waiting its turn to
// complete: its own page-aligned buffer, so direct transfers work.
struct Slot {
    std::unique_ptr<uint8_t, FreeBuffer> data;
    bool filled = false;  // holds home's bytes past what a written record prepares
    EngineRecord record;
    void* address = nullptr;
    RecordResult result;  // written by the worker under the lock
    int64_t issued_ns = 0;
    int64_t done_ns = 0;
    bool in_flight = false;  // issued, completion not yet collected
    bool done = false;       // completion collected
};

class ManyInFlight {
public:
    ManyInFlight(const IoOperations& ops, const EngineJob& job, RecordSource& source, TimingLog& timing)
        : ops_(ops), job_(job), source_(source), timing_(timing) {
        const auto wanted = std::clamp<int64_t>(std::min<int64_t>(job.depth, job.records), 1, kMostInFlight);
        const std::size_t bytes = (std::max<std::size_t>(job.record_bytes, 1) + 4095) / 4096 * 4096;
        slots_.resize(static_cast<std::size_t>(wanted));
        for (std::size_t k = 0; k < slots_.size(); ++k) {
            slots_[k].data.reset(static_cast<uint8_t*>(std::aligned_alloc(4096, bytes)));
            free_.push_back(static_cast<int>(slots_.size() - 1 - k));
        }
        for (std::size_t k = 0; k < slots_.size(); ++k) workers_.emplace_back([this] { work(); });
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
    bool issue_what_can_go();
    bool overlaps_in_flight(const EngineRecord& record) const;
    void issue(int k);
    void collect(bool wait);

    const IoOperations& ops_;
    const EngineJob& job_;
    RecordSource& source_;
    TimingLog& timing_;
    std::vector<Slot> slots_;
    std::vector<int> free_;
    std::deque<int> order_;  // issued, not yet completed to the source, in record order
    int staged_ = -1;        // prepared, waiting for a record in its way
    int64_t next_index_ = 0;
    int in_flight_ = 0;
    bool more_ = true;    // the source may have more records
    bool halted_ = false; // a record failed: issue nothing more

    std::mutex mutex_;
    std::condition_variable work_ready_;
    std::condition_variable work_done_;
    std::deque<int> queue_;     // issued, not yet taken by a worker
    std::vector<int> finished_; // transferred, not yet collected
    bool quit_ = false;
    std::vector<std::thread> workers_;
};

void ManyInFlight::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        work_ready_.wait(lock, [this] { return quit_ || !queue_.empty(); });
        if (queue_.empty()) return;
        const int k = queue_.front();
        queue_.pop_front();
        lock.unlock();
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        const RecordResult result = transfer(ops_, job_, slot.record, slot.address);
        const int64_t done = timing_.on() ? now_ns() : 0;
        lock.lock();
        slot.result = result;
        slot.done_ns = done;
        finished_.push_back(k);
        work_done_.notify_one();
    }
}

bool ManyInFlight::overlaps_in_flight(const EngineRecord& record) const {
    for (const Slot& s : slots_) {
        if (s.in_flight && record.offset < s.record.offset + s.record.size &&
            s.record.offset < record.offset + record.size) {
            return true;
        }
    }
    return false;
}

void ManyInFlight::issue(int k) {
    Slot& slot = slots_[static_cast<std::size_t>(k)];
    order_.push_back(k);
    slot.issued_ns = timing_.issued();
    if (slot.record.refused != 0) {
        slot.result = {-1, slot.record.refused, true};
        slot.done_ns = slot.issued_ns;
        slot.done = true;
        halted_ = true;
        return;
    }
    slot.address = source_.transfer_address(slot.data.get());
    slot.in_flight = true;
    ++in_flight_;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(k);
    }
    work_ready_.notify_one();
}

// Prepares and issues records while slots are free and nothing is in the
// way; false when the next one waits.
bool ManyInFlight::issue_what_can_go() {
    while (!halted_ && more_) {
        if (staged_ < 0) {
            if (free_.empty()) return false;
            const int k = free_.back();
            Slot& slot = slots_[static_cast<std::size_t>(k)];
            if (job_.direction == Direction::write && !slot.filled) {
                std::memcpy(slot.data.get(), job_.home, job_.record_bytes);
                slot.filled = true;
            }
            slot.record = EngineRecord{};
            slot.record.index = next_index_;
            slot.done = false;
            if (!source_.next(slot.record, slot.data.get())) {
                more_ = false;
                return false;
            }
            free_.pop_back();
            ++next_index_;
            staged_ = k;
        }
        if (overlaps_in_flight(slots_[static_cast<std::size_t>(staged_)].record)) return false;
        issue(staged_);
        staged_ = -1;
    }
    return false;
}

// Takes the completions the workers have posted; with wait, waits for one
// when none is there.
void ManyInFlight::collect(bool wait) {
    std::vector<int> done;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (wait) work_done_.wait(lock, [this] { return !finished_.empty(); });
        done.swap(finished_);
    }
    for (int k : done) {
        Slot& slot = slots_[static_cast<std::size_t>(k)];
        slot.in_flight = false;
        slot.done = true;
        --in_flight_;
        if (slot.result.value < 0) {
            halted_ = true;
        } else {
            // Each worker has its errno; a success reports the one this
            // thread had, as a call made here would have left it.
            slot.result.error_number = errno;
        }
    }
}

std::vector<Outstanding> ManyInFlight::run() {
    bool stopped = false;
    for (;;) {
        issue_what_can_go();
        bool booked = false;
        while (!order_.empty() && slots_[static_cast<std::size_t>(order_.front())].done) {
            const int k = order_.front();
            order_.pop_front();
            Slot& slot = slots_[static_cast<std::size_t>(k)];
            // The home buffer becomes what one record in flight leaves there:
            // the data read, or the record as written (its prepared bytes;
            // the rest was copied from home).
            if (job_.direction == Direction::read) {
                if (slot.result.value > 0 && slot.address == slot.data.get()) {
                    std::memcpy(job_.home, slot.data.get(), static_cast<std::size_t>(slot.result.value));
                }
            } else {
                std::memcpy(job_.home, slot.data.get(), std::min(job_.prepared_bytes, slot.record.size));
            }
            timing_.completed(slot.record, slot.result, slot.issued_ns, slot.done_ns);
            free_.push_back(k);
            booked = true;
            if (!source_.complete(slot.record, slot.result)) {
                stopped = true;
                halted_ = true;
                break;
            }
        }
        if (stopped || (order_.empty() && (halted_ || (!more_ && staged_ < 0)))) break;
        // A slot set free goes straight to the next record; only with
        // nothing to issue or complete is there a transfer to wait for.
        if (!booked && in_flight_ > 0) collect(true);
    }
    while (in_flight_ > 0) collect(true);
    std::vector<Outstanding> outstanding;
    for (int k : order_) {
        const Slot& slot = slots_[static_cast<std::size_t>(k)];
        timing_.completed(slot.record, slot.result, slot.issued_ns, slot.done_ns);
        outstanding.push_back({slot.record, slot.result});
    }
    return outstanding;
}

}  // namespace

const IoOperations kOneInFlight{ps_lseek, read_here, write_here, false};
const IoOperations kManyInFlight{no_position, read_at, write_at, true};

std::vector<Outstanding> run_records(const EngineJob& job, RecordSource& source, const IoOperations* operations) {
    const IoOperations& ops = operations != nullptr ? *operations : job.depth > 1 ? kManyInFlight : kOneInFlight;
    TimingLog timing(job);
    if (!ops.threaded) {
        run_one_by_one(ops, job, source, timing);
        return {};
    }
    ManyInFlight run(ops, job, source, timing);
    return run.run();
}
