// The symbolic error numbers of the statement language. The values are the
// ones the test scripts were written against, not the platform's headers,
// and the duplicate rows are kept because the symbol listing shows them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

struct ErrnoSymbol {
    std::string_view name;
    int32_t value;
};

inline constexpr ErrnoSymbol kErrnoSymbols[] = {
    {"Successful", 0}, {"EPERM", 1},   {"EIO", 5},      {"ENXIO", 6},      {"EAGAIN", 11},
    {"ENOMEM", 12},    {"EACCES", 13}, {"EFAULT", 14},  {"EBUSY", 16},     {"ENODEV", 19},
    {"EINVAL", 22},    {"ENOTTY", 25}, {"ENOSPC", 28},  {"EBADF", 9},      {"EFAULT", 14},
    {"ENOTBLK", 15},   {"ENOTREADY", 13}, {"EEXIST", 17},
};

// Closes the table; never matched by a lookup.
inline constexpr ErrnoSymbol kErrnoSymbolEnd = {"UNKNOWN", -1};

inline constexpr std::span<const ErrnoSymbol> errno_symbols() { return kErrnoSymbols; }
