// Manual test menu: numbered selections turned into statements.
#pragma once

void manual_test_menu();
