#include "device/timing.h"

bool timing_wanted = false;
TransferTiming last_timing;
