#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "context/context.h"
#include "device/generator.h"
#include "driver/driver.h"
#include "support.h"

struct ScratchDevice {  // a file of 1001 sectors as the device (block_max 1000: every random sector inside)
    ScratchDevice() {
        test_context.device_handle = memfd_create("device", 0);
        sector_size = 512, block_count = 1, block_seek = 0, block_max = 1000;
        EXPECT_EQ(ftruncate(test_context.device_handle, 1001 * 512), 0);
    }
    ~ScratchDevice() { close(test_context.device_handle), test_context.device_handle = -1, block_max = 0; }
};

static CommandOutcome run(const char* clause, FILE* stream) { return Statement(std::string("command ") + clause).run(stream); }

// Records verify, and random sectors repeat, only while the tool's generator gives what glibc's
// srand/rand give: seeds where the seeding arithmetic changes (0, 2^31 - 1 and its double, the
// sign bit), 3000 spread ones, and the running sequence after each data command's draws.
TEST(Generator, FollowsTheLibrary) {
    std::vector<uint32_t> seeds = {0u, 1u, 127773u, 2147483646u, 2147483647u, 2147483648u, 4294967294u, 4294967295u};
    for (uint32_t i = 0; i < 3000; ++i) seeds.push_back(i * 1431655u + i * i * 7919u);
    uint8_t seeded[kSeededBytes];
    for (uint32_t seed : seeds) {
        seed_running_sequence(seed), seeded_low_bytes(seed, seeded), srand(seed);
        for (int i = 0; i < 3000; ++i) {
            const int value = rand();
            ASSERT_EQ(next_running_value(), value) << seed;
            ASSERT_TRUE(i >= kSeededBytes || seeded[i] == static_cast<uint8_t>(value)) << seed << " " << i;
        }
    }
    ScratchDevice device;
    CapturedStream out;
    block_max = 100;
    seed_running_sequence(2024);
    EXPECT_EQ(run("write records = 3", out.stream).return_code, 512);
    run("random_read blocks = 2", out.stream);
    EXPECT_EQ(run("random_write blocks = 2", out.stream).return_code, 512);
    block_seek = 0;
    EXPECT_EQ(run("read_verify records = 3", out.stream).return_code, 512);
    srand(2024);
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));          // write: one draw, reseed
    for (int r = 0; r < 4; ++r) rand();                                         // random_read: sector, length
    for (int r = 0; r < 2; ++r) rand(), srand(static_cast<unsigned>(rand()));  // random_write
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));          // read_verify
    for (int r = 0; r < 3000; ++r) ASSERT_EQ(next_running_value(), rand()) << r;
}

// `set buffer` refuses an address inside the tool's own writable memory, which lies elsewhere on
// every run: no transcript can name it.
TEST(BufferAddress, OwnWritableMemoryIsRefused) {
    int on_stack = 0;
    const uint64_t own = reinterpret_cast<uintptr_t>(&test_context);
    const struct { uint64_t address, length; bool inside; } cases[] = {
        {own, 1, true}, {reinterpret_cast<uintptr_t>(test_context.io_buffer), 1, true},
        {reinterpret_cast<uintptr_t>(&on_stack), 1, true}, {own - 4096, kIoBufferSize, true},  // ends inside
        {4096, 4096, false}, {UINT64_MAX - 10, 100, false}};  // wraps: clamped, nothing mapped there
    for (const auto& c : cases) EXPECT_EQ(address_in_writable_memory(c.address, c.length), c.inside) << c.address;
    char message[96];
    snprintf(message, sizeof message, "The buffer address %lx lies in the tool's own memory, not set.\n", own);
    const Statement set("set buffer = " + std::to_string(own));
    CapturedStream out;
    execute_set(set.text.c_str(), out.stream, set.tokens, 1, set.count - 1);
    EXPECT_EQ(out.text(), message);
    EXPECT_EQ(test_context.buffer_override_armed, 0);
}

// Hostile driver replies: counts beyond the record, unknown codes and unterminated names stay
// inside their records and fields.
TEST(HostileReply, StaysInsideTheRecord) {
    const struct {
        const char* name;
        void (*command)(FILE*, const CommandClause&, CommandOutcome&);
        const char* line;
        void (*reply)(void* record);  // written over the record the driver was handed
        std::vector<std::string> shown, absent;
    } cases[] = {
    {"negative adapter count lists nothing", get_adapter_info, "get_adapter_info",
     [](void* r) { static_cast<AdapterInfoRecord*>(r)->entry_count = -1; },
     {"Number of adapter entries: -1\n"}, {"Adapter 0:"}},
    {"adapter count past the record stops at its last slot", get_adapter_info, "get_adapter_info",
     [](void* r) { static_cast<AdapterInfoRecord*>(r)->entry_count = INT32_MAX; },
     {"Adapter 31: \t"}, {"Adapter 32:"}},
    {"unknown adapter codes and an unterminated name", get_adapter_info, "get_adapter_info",
     [](void* r) {
         auto& a = *static_cast<AdapterInfoRecord*>(r);
         a.entry_count = 1, a.entries[0].state = 3, a.entries[0].mode = ~0u, a.entries[1].state = 0x41414141;
         std::memset(a.entries[0].name, 'Z', sizeof a.entries[0].name);
     },
     {"Adapter 0: " + std::string(16, 'Z') + "\tState: Error!!! Unexpected Value (3)\t    Mode: Error!!! Unexpected Value (4294967295)\n"}, {}},
    {"path count of all ones", get_device_state, "get_device_state device 0",
     [](void* r) { static_cast<DeviceStateRecord*>(r)->path_count = 0xFFFFFFFFu; },
     {"Path Count: -1 \t", "Path 31: Adapter 0 ()"}, {"Path 32:"}},
    {"a record of 'A's: unterminated names, unknown codes, huge count", get_device_state, "get_device_state device 0",
     [](void* r) { std::memset(r, 'A', sizeof(DeviceStateRecord)), static_cast<DeviceStateRecord*>(r)->status = 0; },
     {"Device:\t\t" + std::string(15, 'A') + " \n", "Serial Number:\t" + std::string(33, 'A') + "\n",
      "Device Type:\t" + std::string(8, 'A') + "\n\n", "Path Selection Policy: Error!!! Unexpected Value (1094795585)\n",
      "(" + std::string(17, 'A') + ")\tPath Name: " + std::string(15, 'A') + "\n",
      "\tState: Error!!! Unexpected Value (1094795585)\t\tMode: Error!!! Unexpected Value (1094795585)\n", "Path 31:"},
     {"Path 32:"}},
    {"counters of all ones fill their fields", get_dev_stats, "get_dev_stats device 0",
     [](void* r) { auto& s = *static_cast<DeviceStatsRecord*>(r); std::memset(&s.io, 0xFF, sizeof s.io), s.status = INT32_MIN; },
     {"Completion Status: Error!!! Unexpected Value (-2147483648)\n",
      "I/O:            4294967295   4294967295   4294967295    42949672954294967295\n"}, {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Statement statement(std::string("command ") + c.line);
        CapturedStream out;
        CommandOutcome outcome{};
        ScopedFakeIoctl fake([&](int, unsigned long, void* record) { return c.reply(record), 0; });
        c.command(out.stream, statement.clause(), outcome);
        for (const std::string& s : c.shown) EXPECT_NE(out.text().find(s), std::string::npos) << s << "\nin:\n" << out.text();
        for (const std::string& s : c.absent) EXPECT_EQ(out.text().find(s), std::string::npos) << s;
    }
}

// The block layer's answers make the capacity record (big-endian highest LBA, block length) and
// device_capacity's variables; a refused or senseless answer fails and leaves the variables alone.
TEST(DeviceCapacity, FromTheBlockSizeRequests) {
    constexpr uint64_t kTiB = 1ull << 40;
    const struct { int size_errno; uint64_t bytes; int block_errno, block; const char* record; int64_t block_max; } cases[] = {
        {0, (64 << 20) + 100, 0, 512, "0001ffff00000200", 131071},      // last block cut short
        {0, kTiB + kTiB / 2, 0, 512, "bfffffff00000200", 2147483647},  // reads negative
        {0, 3 * kTiB, 0, 512, "ffffffff00000200", 2147483647},         // past 32 bits
        {ENOTTY, 0, 0, 512, "", 0}, {0, 64 << 20, EINVAL, 0, "", 0},
        {0, 511, 0, 512, "", 0} /* less than a block */, {0, 64 << 20, 0, -512, "", 0}};
    test_context.device_handle = 3;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.record);
        ScopedFakeIoctl fake([&c](int, unsigned long request, void* record) {
            const bool size = static_cast<uint32_t>(request) == static_cast<uint32_t>(BLKGETSIZE64);
            if (int e = size ? c.size_errno : c.block_errno) return errno = e, -1;
            return size ? std::memcpy(record, &c.bytes, 8) : std::memcpy(record, &c.block, 4), 0;
        });
        CapturedStream out;
        uint8_t record[8] = {};
        const int rc = ps_get_capacity(out.stream, 3, record, sizeof record).value;
        char hex[17] = "";
        for (int i = 0; rc == 0 && i < 8; ++i) snprintf(hex + 2 * i, 3, "%02x", record[i]);
        EXPECT_STREQ(hex, c.record);
        block_max = 0, sector_size = 512;
        EXPECT_EQ(run("device_capacity", out.stream).return_code, rc);
        EXPECT_EQ(block_max, c.block_max);
        EXPECT_EQ(sector_size, c.block_max ? c.block : 512);
    }
    test_context.device_handle = -1;
}

// SIGINT raised as the first record's report line is taken ends each transfer at that record.
TEST(StopSignal, EndsEachTransferAtItsRecordBoundary) {
    ScratchDevice device;
    catch_stop_signals();
    cookie_write_function_t* raise_stop = [](void*, const char*, size_t size) { return raise(SIGINT), ssize_t(size); };
    FILE* stopping = fopencookie(nullptr, "w", {nullptr, raise_stop, nullptr, nullptr});
    setvbuf(stopping, nullptr, _IONBF, 0);
    for (const char* clause : {"write records = 5", "read records = 5", "read_verify records = 5",
                               "random_write blocks = 5", "random_read blocks = 5"}) {
        stop_signal = 0, block_seek = 0;
        const double before = test_context.bytes_transferred;
        const int32_t rc = run(clause, stopping).return_code;
        EXPECT_EQ(stop_signal, SIGINT) << clause;
        EXPECT_GT(rc, 0) << clause;  // random reads move 1 to 10 sectors a record
        EXPECT_EQ(test_context.bytes_transferred - before, rc) << clause;
    }
    fclose(stopping), signal(SIGINT, SIG_DFL);
    stop_signal = 0;
}

// Counters at their limits: a random sector's offset past 64 bits, the batch line number.
TEST(Limits, RandomOffsetBeyond64BitsAndBatchLineCounter) {
    ScratchDevice device;
    block_max = INT64_MAX;
    for (const char* clause : {"random_write blocks = 1", "random_read blocks = 1"}) {
        CapturedStream out;
        seed_running_sequence(1);  // the first draw lands far above INT64_MAX / 512
        const CommandOutcome outcome = run(clause, out.stream);
        EXPECT_EQ(std::pair(outcome.return_code, outcome.error_number), std::pair(-1, EOVERFLOW)) << clause;
        EXPECT_NE(out.text().find("Error seeking to sector "), std::string::npos) << clause;
    }
    EXPECT_EQ(lseek(test_context.device_handle, 0, SEEK_CUR), 0);  // never moved, nothing written
    test_context.line_number = INT32_MAX - 1;
    EXPECT_TRUE(count_batch_line());
    EXPECT_FALSE(count_batch_line());
    EXPECT_EQ(std::exchange(test_context.line_number, 0), INT32_MAX);
}
