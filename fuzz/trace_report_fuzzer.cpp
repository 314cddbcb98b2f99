// libFuzzer target: a trace report as the driver could deliver it, lengths and counts included,
// through the formatter. Byte 0: the filter mask (0x10 entry, 0x20 exit, 0x40 debug), its low four
// bits n a cooked buffer of 16 << n bytes (at most the full size); bytes 1-4: entry_count; 5-8:
// added to the bytes given to make bytes_reported (little-endian); then the entries (two hex
// length digits, text, a final byte), the rest of the raw buffer spaces.
#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "trace/trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 9 || size - 9 > kTraceDumpCountOffset) return -1;
    // Buffers of exactly their sizes, so that ASan sees any step past them; only the part the
    // last input wrote needs its spaces back.
    static std::vector<uint8_t> raw(kTraceRawSize, ' '), cooked(kTraceCookedSize), spaces(kTraceCookedSize, ' ');
    static std::size_t dirty = 0;
    std::memset(raw.data(), ' ', dirty);
    std::memcpy(raw.data(), data + 9, dirty = size - 9);
    auto little_endian = [](const uint8_t* p) { return uint32_t{p[0]} | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24; };
    TraceArgumentRecord record{};
    record.command = DD_TRACE_REPORT, record.entry_count = little_endian(data + 1);
    record.bytes_reported = static_cast<uint32_t>(size - 9) + little_endian(data + 5);
    const std::size_t cooked_size = std::min<std::size_t>(std::size_t{16} << (data[0] & 0x0fU), kTraceCookedSize);
    std::span<uint8_t> text(cooked.data() + kTraceCookedSize - cooked_size, cooked_size);
    uint64_t length = ~0ULL;
    dd_trace_format_report(record, data[0] & 0x70U, raw, text, length);
    // What the formatter promises: the text fits, and the rest is spaces.
    if (length > cooked_size || std::memcmp(text.data() + length, spaces.data(), cooked_size - length) != 0) __builtin_trap();
    return 0;
}
