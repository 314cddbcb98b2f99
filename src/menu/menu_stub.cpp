// Placeholder until the manual test menu lands.
#include "menu/menu.h"

void manual_test_menu() {}
