#include <gtest/gtest.h>

#include <string>

#include "device_test_support.h"

namespace {

struct Variables : ::testing::Test {
    CapturedStream out;
    void SetUp() override { fresh_context(); }
    void TearDown() override { fresh_context(); }
    int set(const std::string& rest) {
        Statement s("set " + rest);
        return execute_set(s.text.c_str(), out.stream, s.tokens, 1, s.count - 1);
    }
    std::string shown() {
        testing::internal::CaptureStdout();
        settings();
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
};

}  // namespace

TEST_F(Variables, CorrectiveMessages) {
    EXPECT_EQ(set("block_max = 0"), 1);
    EXPECT_EQ(block_max, 1);
    EXPECT_EQ(set("block_max = 513"), 1);
    EXPECT_EQ(block_max, 1);
    EXPECT_EQ(set("block_max = -1"), 1);
    EXPECT_EQ(out.take(), "The maximum sector value should be within 1 to 512, set to default 1.\n"
                              "The maximum sector value should be within 1 to 512, set to default 1.\n"
                              "The maximum sector value should be within 1 to 512, set to default 1.\n");
    EXPECT_EQ(set("block_max = 512"), 1);
    EXPECT_EQ(block_max, 512);
    EXPECT_EQ(set("block_count = 0"), 1);
    EXPECT_EQ(block_count, 1);
    EXPECT_EQ(set("block_count = 600"), 1);
    EXPECT_EQ(block_count, 600);
    EXPECT_EQ(set("block_seek = -5"), 1);
    EXPECT_EQ(block_seek, 0);
    EXPECT_EQ(set("block_seek = 123456789012"), 1);
    EXPECT_EQ(block_seek, 123456789012);
    EXPECT_EQ(out.take(),
              "The blocking factor value cannot be less or equal to 0, set to default 1.\n"
              "The seek sector value cannot be less than 0, set to default 0.\n");
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(Variables, UnknownKeywordsChangeNothing) {
    for (const char* statement : {"block_sizes = 4", "block_maxx = 4", "Block_max = 4", "", "sector_size = 4"}) {
        EXPECT_EQ(set(statement), 0);
        EXPECT_EQ(out.take(), "tarnwick error execute_set unrecognized command\n");
    }
    EXPECT_EQ(block_max, 1000);
    EXPECT_EQ(sector_size, 512);
    EXPECT_EQ(test_context.result_code, 0);
    // A missing value reads as 0.
    EXPECT_EQ(set("block_seek"), 1);
    EXPECT_EQ(block_seek, 0);
    EXPECT_EQ(set("block_max ="), 1);
    EXPECT_EQ(block_max, 1);
}

TEST_F(Variables, SettingsDisplay) {
    EXPECT_EQ(shown(),
              "\nvariable settings\n=================\n\n"
              "handle=-1  sector size=512  blocking factor=1  seek block=0 \n"
              "sectors on device=1000 \n\n");
    test_context.special_file_given = 1;
    snprintf(test_context.special_file, sizeof test_context.special_file, "2");
    snprintf(test_context.open_device, sizeof test_context.open_device, "/dev/vpath2");
    EXPECT_EQ(set("buffer = 4096"), 1);
    test_context.trace = 1;
    EXPECT_EQ(shown(),
              "TTRACE: settings entered.\n\nvariable settings\n=================\n"
              "device file: 2  (/dev/vpath2) \n"
              "handle=-1  sector size=512  blocking factor=1  seek block=0 \n"
              "sectors on device=1000 \nbuffer address 1000 \n\nTTRACE: settings exit.\n");
    test_context.trace = 0;
}

TEST_F(Variables, BufferOverrideIsOneShot) {
    EXPECT_EQ(set("buffer = 4096"), 1);
    EXPECT_EQ(set("buffer = 8192"), 1);  // replaces, still one shot
    EXPECT_EQ(test_context.buffer_override_armed, 1);
    int local = 0;
    EXPECT_EQ(select_buffer(&local), reinterpret_cast<void*>(8192));
    EXPECT_EQ(test_context.buffer_override_armed, 0);
    EXPECT_EQ(select_buffer(&local), &local);
    EXPECT_EQ(shown().find("buffer address"), std::string::npos);
}

TEST_F(Variables, BufferInsideOwnWritableMemoryIsRefused) {
    int on_stack = 0;
    const void* inside[] = {&test_context, test_context.io_buffer, &on_stack, &block_seek};
    for (const void* address : inside) {
        std::string value = std::to_string(reinterpret_cast<uintptr_t>(address));
        EXPECT_EQ(set("buffer = " + value), 1);
        char expected[128];
        snprintf(expected, sizeof expected, "The buffer address %lx lies in the tool's own memory, not set.\n",
                 reinterpret_cast<unsigned long>(address));
        EXPECT_EQ(out.take(), expected);
        EXPECT_EQ(test_context.buffer_override_armed, 0);
    }
    // A refused address also drops an override still armed from before: the
    // next transfer goes to the tool's own buffer, not to the older address.
    EXPECT_EQ(set("buffer = 4096"), 1);
    EXPECT_EQ(set("buffer = " + std::to_string(reinterpret_cast<uintptr_t>(&on_stack))), 1);
    out.take();
    EXPECT_EQ(test_context.buffer_override_armed, 0);
    EXPECT_EQ(select_buffer(&on_stack), &on_stack);
    // A range that merely ends inside writable memory is refused too.
    uintptr_t below = reinterpret_cast<uintptr_t>(&test_context) - 4096;
    EXPECT_TRUE(address_in_writable_memory(below, kIoBufferSize));
    EXPECT_FALSE(address_in_writable_memory(4096, 4096));
    EXPECT_FALSE(address_in_writable_memory(UINT64_MAX - 10, 100));  // wraps: clamped, no mapping there
}

TEST_F(Variables, TraceLines) {
    test_context.trace = 1;
    EXPECT_EQ(set("block_seek = 3"), 1);
    EXPECT_EQ(set("bogus = 3"), 0);
    test_context.trace = 0;
    EXPECT_EQ(out.take(),
              "TTRACE: execute_set entered (set block_seek = 3).\nTTRACE: execute_set exit.\n"
              "TTRACE: execute_set entered (set bogus = 3).\ntarnwick error execute_set unrecognized command\n");
}
