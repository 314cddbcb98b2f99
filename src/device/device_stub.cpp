// Placeholder until device access and the command executor land.
#include "device/device.h"

int64_t last_sector = 0;

int execute_command(const char*, FILE*, const TokenList&, int32_t, int32_t, CommandOutcome&) { return 1; }
int execute_set(const char*, FILE*, const TokenList&, int32_t, int32_t) { return 0; }
void settings() {}
