// Manual test menu: numbered selections turned into statements.
#pragma once

#include <cstdio>

void manual_test_menu();

// Reads one answer line from input into test_context.input_line. A line of
// up to 255 characters is kept whole, its line end included when it fits;
// of a longer line only the first 255 characters are kept and the rest is
// read and thrown away, so that one typed line is always exactly one answer.
// Returns false at end of input (nothing read), which ends the menu.
bool read_answer(FILE* input);
