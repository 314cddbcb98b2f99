// Each open mode's line and the flags its descriptor gets, as fcntl reads
// them back from a scratch file in the working folder (a block device keeps
// the same bits: tests/loop_device.sh, as root). The frames: sim/driver.case.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "context/context.h"
#include "support.h"

TEST(OpenModes, EachPrintsItsLineAndOpensWithItsFlags) {
    const struct { const char *mode, *line; int flags; } modes[] = {
        {"RO", "Open mode: Read only.\n", O_RDONLY},
        {"RW", "Open mode: Read and wirte.\n", O_RDWR},
        {"RO+NDELAY", "Open mode: Read only, no delay.\n", O_RDONLY | O_NONBLOCK},
        {"RW+NDELAY", "Open mode:Read and write, no delay.\n", O_RDWR | O_NONBLOCK},
        {"RO+DIRECT", "Open mode: Read only, direct.\n", O_DIRECT},
        {"RW+DIRECT", "Open mode: Read and write, direct.\n", O_RDWR | O_DIRECT},
        {"RW+SYNC", "Open mode: Read and write, synchronous.\n", O_RDWR | O_DSYNC},
        {"RW+DIRECT+SYNC", "Open mode: Read and write, direct, synchronous.\n", O_RDWR | O_DIRECT | O_DSYNC},
        {"RO+DIRECT+NDELAY", "Open mode: Read only, direct, no delay.\n", O_DIRECT | O_NONBLOCK},
        {"RW+DIRECT+NDELAY", "Open mode: Read and write, direct, no delay.\n", O_RDWR | O_DIRECT | O_NONBLOCK},
        {"RW+SYNC+NDELAY", "Open mode: Read and write, synchronous, no delay.\n", O_RDWR | O_DSYNC | O_NONBLOCK},
        {"RW+DIRECT+SYNC+NDELAY", "Open mode: Read and write, direct, synchronous, no delay.\n",
         O_RDWR | O_DIRECT | O_DSYNC | O_NONBLOCK},
    };
    char path[] = "tarnwick-open-XXXXXX";  // not /tmp: a tmpfs may refuse O_DIRECT
    close(mkstemp(path)), test_context.device_handle = -1;
    if (const int probe = open(path, O_RDONLY | O_DIRECT); probe < 0) {
        unlink(path);
        GTEST_SKIP() << "the working folder's file system refuses O_DIRECT";
    } else {
        close(probe);
    }
    for (const auto& [mode, line, flags] : modes) {
        Statement s(std::string("command open ") + path + " " + mode);
        CapturedStream out;
        CommandOutcome outcome{};
        execute_command(s.text.c_str(), out.stream, s.tokens, s.command + 1, s.count - s.command - 1, outcome);
        EXPECT_EQ(out.text(), line) << mode;
        EXPECT_EQ(fcntl(test_context.device_handle, F_GETFL) & (O_ACCMODE | O_DIRECT | O_DSYNC | O_NONBLOCK), flags) << mode;
        close(test_context.device_handle), test_context.device_handle = -1;
    }
    unlink(path);
}
