#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "context/context.h"

TEST(Context, StartValues) {
    reset_test_context();
    EXPECT_EQ(test_context.device_handle, -1);
    EXPECT_EQ(test_context.platform, 6);
    EXPECT_STREQ(test_context.batch_input_file, "tarnwick.in");
    EXPECT_STREQ(test_context.batch_output_file, "tarnwick.out");
    EXPECT_EQ(sector_size, 512);
    EXPECT_EQ(block_count, 1);
    EXPECT_EQ(block_seek, 0);
    EXPECT_EQ(block_max, 1000);
}

TEST(Context, CopyToFieldNeverOverruns) {
    char field[8];
    std::memset(field, 'x', sizeof field);
    EXPECT_TRUE(copy_to_field(field, sizeof field, "1234567"));
    EXPECT_STREQ(field, "1234567");
    EXPECT_FALSE(copy_to_field(field, sizeof field, "12345678"));
    EXPECT_STREQ(field, "1234567");  // unchanged
    std::string long_name(199, 'a');
    char name[kFileNameSize];
    EXPECT_TRUE(copy_to_field(name, sizeof name, long_name.c_str()));
    long_name += 'a';
    EXPECT_FALSE(copy_to_field(name, sizeof name, long_name.c_str()));
}
