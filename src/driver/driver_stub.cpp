// Placeholder until the driver query and control commands land.
#include "driver/driver.h"

const char* value_to_name(int64_t, const ValueName*) { return "Error"; }
void get_number_devices(FILE*, const CommandClause&, CommandOutcome&) {}
void get_device_state(FILE*, const CommandClause&, CommandOutcome&) {}
void set_path(FILE*, const CommandClause&, CommandOutcome&) {}
void get_adapter_info(FILE*, const CommandClause&, CommandOutcome&) {}
void set_adapter(FILE*, const CommandClause&, CommandOutcome&) {}
void set_controller(FILE*, const CommandClause&, CommandOutcome&) {}
void get_dev_stats(FILE*, const CommandClause&, CommandOutcome&) {}
void get_adapter_stats(FILE*, const CommandClause&, CommandOutcome&) {}
void get_inquiry(FILE*, const CommandClause&, CommandOutcome&) {}
void fprintf_inquiry_data(FILE*, const uint8_t*) {}
