// Placeholder until device access and the command executor land.
#include "device/device.h"

int64_t last_sector = 0;

int ps_open(const char*, int32_t, int32_t) { return -1; }
int ps_close(int) { return -1; }
int32_t ps_read(FILE*, int, void*, uint32_t) { return -1; }
int32_t ps_write(FILE*, int, const void*, uint32_t) { return -1; }
int64_t ps_lseek(FILE*, int, int64_t) { return -1; }
int ps_ddioctl(FILE*, int, uint32_t, void*, int64_t) { return -1; }
int ps_get_capacity(FILE*, int, void*, int64_t) { return -1; }
char* ps_strerror(int) { static char text[] = ""; return text; }
std::string_view CommandClause::token(int32_t) const { return {}; }
const char* CommandClause::rest(int32_t) const { return ""; }
bool keyword_matches(std::string_view, std::string_view) { return false; }
int execute_command(const char*, FILE*, const TokenList&, int32_t, int32_t, CommandOutcome&) { return 1; }
int64_t parse_count(const char*, int32_t) { return 0; }
int64_t parse_long(const char*, int32_t) { return 0; }
void* select_buffer(void* default_address) { return default_address; }
int execute_set(const char*, FILE*, const TokenList&, int32_t, int32_t) { return 0; }
void settings() {}
