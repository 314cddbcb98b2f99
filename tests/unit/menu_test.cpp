// The statement each menu selection builds from its answers, as -t shows it
// handed to process() (menu/statements.case shows that frame): %d fields keep
// the low 32 bits, %ld fields the whole answer, a two-way choice the whole answer.
#include <gtest/gtest.h>

#include "context/context.h"
#include "menu/menu.h"
#include "support.h"

static std::vector<std::string> statements_built(const std::string& answers) {
    reset_test_context(), test_context.trace = 1;
    CapturedStream screen;
    FILE *typed = fmemopen(const_cast<char*>(answers.data()), answers.size(), "r"), *in = stdin, *out = stdout;
    stdin = typed, stdout = screen.stream;
    manual_test_menu();
    stdin = in, stdout = out, fclose(typed), reset_test_context();  // no trace left on for other tests
    const std::string text = screen.text(), mark = "TTRACE: process entered (";
    std::vector<std::string> found;
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
        at += mark.size();
        found.push_back(text.substr(at, text.find(").\n", at) - at));
    }
    return found;
}

TEST(Menu, EachSelectionBuildsItsStatement) {
    const char* const full = "1\n/dev/null\n\n642\n\n";  // a device file, and every operation enabled
    const struct { std::string answers; const char* statement; } cases[] = {
        {"3\n4294967306\n", "set block_seek = 10"},
        {"22\n4294967297\n", "command read records = 1 result rc == 512"},
        {"23\n-4294967295\n", "command random_read blocks = 1 result rc != -1"},
        {"27\n", "command display_block result rc != -1"},
        {"30\n", "command device_capacity result rc != -1"},
        {"31\n4294967296\n", "command get_inquiry device 4294967296 result rc != -1"},
        {"40\n", "command get_number_devices result rc != -1"},
        {"41\n-2\n", "command get_device_state device -2 result rc != -1"},
        {"42\n", "command get_adapter_info result rc != -1"},
        {"43\n5\n", "command set_adapter adapter 5 state 1 result rc != -1"},
        {"44\n6\n1\n", "command set_path device 6 path 1 state 1 result rc != -1"},
        {"45\n2\n", "command get_adapter_stats adapter 2 result rc != -1"},
        {"46\n3\n", "command get_dev_stats device 3 result rc != -1"},
        {"52\n1\n16\nx\n2\n", "command set_controller device 1 ctlr 16 action 2 result rc != -1"},
        {"53\n-1\n", "command set_controller device -1 ctlr 0 action 3 result rc != -1"},
        {std::string(full) + "20\n1\n", "command open $D RO result rc >= 0"},
        {std::string(full) + "20\n2\n", "command open $D RW result rc >= 0"},
        {"21\n", "command close result rc != -1"},
        {std::string(full) + "43\n7\nx\n2\n", "command set_adapter adapter 7 state 2 result rc != -1"},
        {std::string(full) + "44\n8\n0\n\nx3\n12\n", "command set_path device 8 path 0 state 12 result rc != -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answers);
        EXPECT_EQ(statements_built(c.answers), std::vector<std::string>{c.statement});
    }
}
