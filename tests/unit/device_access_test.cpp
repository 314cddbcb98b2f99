#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "device_test_support.h"
#include "fake_ioctl.h"

namespace {

struct TraceOn {
    TraceOn() { test_context.trace = 1; }
    ~TraceOn() { test_context.trace = 0; }
};

std::string dump_lines(const uint8_t* bytes, int n) {
    std::string out;
    char hex[8];
    for (int i = 0; i < n; ++i) {
        snprintf(hex, sizeof hex, "%2x ", bytes[i]);
        out += hex;
        if (i > 0 && i % 32 == 0) out += '\n';
    }
    return out + '\n';
}

}  // namespace

TEST(DeviceAccess, ControlRequestDumpsRecordBeforeAndAfter) {
    fresh_context();
    TraceOn on;
    uint8_t record[72];
    for (int i = 0; i < 72; ++i) record[i] = static_cast<uint8_t>(i == 1 ? 0x80 : i == 2 ? 0xff : i);
    uint8_t before[72];
    std::memcpy(before, record, sizeof before);
    uint8_t after[72];
    std::memcpy(after, record, sizeof after);
    after[0] = 0xab;
    ScopedFakeIoctl fake([](int, unsigned long request, void* r) {
        EXPECT_EQ(request, 0x6402UL);
        static_cast<uint8_t*>(r)[0] = 0xab;
        return 7;  // a positive driver result still counts as success
    });
    CapturedStream out;
    EXPECT_EQ(ps_ddioctl(out.stream, 3, 0x6402, record, sizeof record), 0);
    char address[64];
    snprintf(address, sizeof address, "TTRACE: system ioctl, address  =0x%lx \n", reinterpret_cast<unsigned long>(record));
    std::string expected = std::string("TTRACE: ps_ddioctl entered. \n") +
                           "TTRACE: system ioctl, opcode   =00006402 \n" +
                           "TTRACE: system ioctl, opcode   =" + errno_name(0x6402) + " \n" + address +
                           "TTRACE: system ioctl, length   =72 \n" + "TTRACE: ioctl struct=\n" +
                           dump_lines(before, 72) + "TTRACE: ioctl returned rc=0x00000007\n" +
                           "TTRACE: ioctl struct=\n" + dump_lines(after, 72) + "TTRACE: ps_ddioctl exit. \n";
    EXPECT_EQ(out.take(), expected);
    // 33 bytes on the first dump line, 32 on the second, 7 on the third.
    std::string dump = dump_lines(before, 72);
    EXPECT_EQ(dump.find('\n'), 33u * 3);
    EXPECT_NE(dump.find(" 0 80 ff  3 "), std::string::npos);
}

TEST(DeviceAccess, FailedControlRequestTracesErrno) {
    fresh_context();
    TraceOn on;
    ScopedFakeIoctl fake([](int, unsigned long, void*) {
        errno = ENOTTY;
        return -1;
    });
    CapturedStream out;
    EXPECT_EQ(ps_ddioctl(out.stream, 3, 0x640d, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOTTY);
    std::string text = out.take();
    std::string tail = std::string("TTRACE: ioctl returned rc=0xFFFFFFFF\n") +
                       "Error! system ioctl 0x0000640D failed. \n" + "Error! system ioctl errno=25 \n" +
                       "       Error is " + strerror(ENOTTY) + ".\n" + "TTRACE: ps_ddioctl exit. \n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    // A zero-length record dumps only the line break.
    EXPECT_NE(text.find("TTRACE: ioctl struct=\n\nTTRACE: ioctl returned"), std::string::npos);
}

TEST(DeviceAccess, FailuresAreSilentWithoutTrace) {
    fresh_context();
    ScopedFakeIoctl fake([](int, unsigned long, void*) {
        errno = EIO;
        return -1;
    });
    CapturedStream out;
    uint8_t byte = 0;
    EXPECT_EQ(ps_ddioctl(out.stream, 3, 0x6403, &byte, 1), -1);
    EXPECT_EQ(ps_read(out.stream, -1, &byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(ps_write(out.stream, -1, &byte, 1), -1);
    EXPECT_EQ(ps_lseek(out.stream, -1, 0), -1);
    EXPECT_EQ(out.take(), "");
}

TEST(DeviceAccess, TracedReadWriteSeek) {
    fresh_context();
    char path[] = "/tmp/tarnwick-access-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    TraceOn on;
    CapturedStream out;
    uint8_t data[16] = {1, 2, 3};
    EXPECT_EQ(ps_write(out.stream, fd, data, sizeof data), 16);
    EXPECT_EQ(ps_lseek(out.stream, fd, 4), 4);
    EXPECT_EQ(ps_read(out.stream, fd, data, 8), 8);
    EXPECT_EQ(ps_lseek(out.stream, fd, -512), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ps_read(out.stream, -1, data, 8), -1);
    EXPECT_EQ(out.take(), std::string("TTRACE: ps_write entered!\nlseek = 16\nsystem write() wrote 16 bytes. \n"
                                      "TTRACE: ps_write() exit. \n"
                                      "TTRACE: ps_lseek entered. \nlseek() to 4 \nTTRACE: ps_lseek exit. \n"
                                      "TTRACE: ps_read entered.\nlseek = 12\nsystem read() read 8 bytes\n"
                                      "TTRACE: ps_read exit. \n"
                                      "TTRACE: ps_lseek entered. \nError! system lseek() failed. Last errno=22 \n"
                                      "       Error is ") +
                              strerror(EINVAL) +
                              ".\nTTRACE: ps_lseek exit. \n"
                              "TTRACE: ps_read entered.\nError! system read() failed. Last errno=9 \n"
                              "       Error is " +
                              strerror(EBADF) + ".\nTTRACE: ps_read exit. \n");
    close(fd);
    unlink(path);
}

TEST(DeviceAccess, StrerrorCopies) {
    EXPECT_STREQ(ps_strerror(ENOENT), strerror(ENOENT));
    char* first = ps_strerror(EIO);
    EXPECT_EQ(first, ps_strerror(EPERM));  // one buffer, overwritten
}
