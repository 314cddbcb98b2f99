// Manual test menu: numbered selections turned into statements.
#pragma once

#include <cstdio>

void manual_test_menu();

