// libFuzzer target over the trace report formatter: a trace report as the
// driver could deliver it, lengths and counts included, is untrusted input.
//
// Input layout:
//   byte 0      filter mask (bits 0x10 entry, 0x20 exit, 0x40 debug); the
//               low four bits n choose a cooked buffer of 16 << n bytes (at
//               most the full size), so the text can outgrow it
//   bytes 1-4   entry_count, little-endian
//   bytes 5-8   added to the number of entry bytes given to make
//               bytes_reported, little-endian (0: exactly the bytes given)
//   bytes 9-    the report: entries of two hexadecimal length digits, text
//               and a final byte; the rest of the raw buffer holds spaces
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "trace/trace.h"

namespace {

constexpr std::size_t kHeader = 9;

uint32_t little_endian(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < kHeader) return -1;
    std::size_t entries = size - kHeader;
    if (entries > kTraceDumpCountOffset) return -1;

    // Buffers of exactly their sizes, so that ASan sees any step past them.
    static const std::unique_ptr<uint8_t[]> raw = [] {
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[kTraceRawSize]);
        std::memset(buffer.get(), ' ', kTraceRawSize);
        return buffer;
    }();
    static const std::unique_ptr<uint8_t[]> cooked(new uint8_t[kTraceCookedSize]);
    static const std::unique_ptr<uint8_t[]> spaces = [] {
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[kTraceCookedSize]);
        std::memset(buffer.get(), ' ', kTraceCookedSize);
        return buffer;
    }();
    // Only the part the last input wrote needs its spaces back.
    static std::size_t dirty = 0;
    std::memset(raw.get(), ' ', dirty);
    std::memcpy(raw.get(), data + kHeader, entries);
    dirty = entries;

    TraceArgumentRecord record{};
    record.command = DD_TRACE_REPORT;
    record.entry_count = little_endian(data + 1);
    record.bytes_reported = static_cast<uint32_t>(entries) + little_endian(data + 5);

    uint64_t filter_mask = data[0] & 0x70U;
    std::size_t cooked_size = std::min<std::size_t>(std::size_t{16} << (data[0] & 0x0fU), kTraceCookedSize);
    std::span<uint8_t> cooked_span(cooked.get() + kTraceCookedSize - cooked_size, cooked_size);
    uint64_t cooked_bytes = ~0ULL;
    dd_trace_format_report(record, filter_mask, std::span<const uint8_t>(raw.get(), kTraceRawSize),
                           cooked_span, cooked_bytes);

    // What the formatter promises: the text fits, and the rest is spaces.
    if (cooked_bytes > cooked_size) __builtin_trap();
    if (std::memcmp(cooked_span.data() + cooked_bytes, spaces.get(), cooked_size - cooked_bytes) != 0) {
        __builtin_trap();
    }
    return 0;
}
