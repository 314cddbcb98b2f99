// Answer lines at the manual menu: what one typed line leaves in input_line
// at the edges of its 256-byte field, and where end of input is seen. The
// menu screens prove empty input, a last line without line end and the
// dropped rest of an overlong line.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "context/context.h"
#include "menu/menu.h"

namespace {

// A stream over a copy of text (NUL bytes included), closed on scope exit.
class Input {
public:
    explicit Input(const std::string& text) : text_(text) {
        stream_ = fmemopen(text_.data(), text_.size(), "r");
    }
    ~Input() {
        if (stream_ != nullptr) fclose(stream_);
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    FILE* get() const { return stream_; }

private:
    std::string text_;
    FILE* stream_;
};

std::string answer() { return test_context.input_line; }

}  // namespace

TEST(MenuAnswer, OneLinePerAnswerLineEndKept) {
    Input in("5\n\n99\n");
    ASSERT_NE(in.get(), nullptr);
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), "5\n");
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), "\n");
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), "99\n");
    EXPECT_FALSE(read_answer(in.get()));
    EXPECT_EQ(answer(), "");
    EXPECT_FALSE(read_answer(in.get()));  // stays at end, never blocks
}

TEST(MenuAnswer, FieldBoundaries) {
    std::string fits(254, 'a');
    std::string full(255, 'b');
    Input in(fits + "\n" + full + "\n" + "next\n");
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), fits + "\n");
    // 255 characters fill the field; the line end has no room and is dropped
    // rather than turning up as an empty next answer.
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), full);
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), "next\n");
}

TEST(MenuAnswer, OverlongLineRunningIntoEndOfInput) {
    Input in(std::string(400, 'e'));
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), std::string(255, 'e'));
    EXPECT_FALSE(read_answer(in.get()));
}

TEST(MenuAnswer, NulByteDoesNotSplitAnOverlongLine) {
    std::string line = "1";
    line += '\0';
    line += std::string(300, 'f');
    Input in(line + "\nnext\n");
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), "1");  // the text as C sees it ends at the NUL
    ASSERT_TRUE(read_answer(in.get()));
    EXPECT_EQ(answer(), "next\n");
}
