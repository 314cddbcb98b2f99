// Test variables: the set statement, the settings display, and what the
// data commands derive from the variables.
#pragma once

#include <cstdint>
#include <cstdio>

#include "script/script.h"

int execute_set(const char* line, FILE* stream, const TokenList& tokens, int32_t index, int32_t count);
void settings();

// Record size of the data commands: block_count x sector_size, held at the
// 64-bit bound on its side when it does not fit (see saturated_product).
int64_t record_size();

// True when any byte of [address, address + length) lies in a writable
// mapping of this process (or the mappings cannot be read).
bool address_in_writable_memory(uint64_t address, uint64_t length);
