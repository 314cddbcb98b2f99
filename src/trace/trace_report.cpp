// Start-up of the trace facility, report formatting and the report output.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "context/output.h"
#include "trace/trace.h"

namespace {

uint32_t hex_digit(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return 0;
}

// A text shorter than the keyword is not of its class.
bool starts_with(std::span<const uint8_t> text, std::string_view keyword) {
    return text.size() >= keyword.size() && std::memcmp(text.data(), keyword.data(), keyword.size()) == 0;
}

uint64_t entry_class(std::span<const uint8_t> text) {
    if (starts_with(text, "ENTRY")) return TRACE_ENTRY;
    if (starts_with(text, "EXIT")) return TRACE_EXIT;
    return TRACE_DEBUG;
}

std::unique_ptr<uint8_t[]> obtain_buffer(std::size_t size) {
    return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]);
}

}  // namespace

void trace_init() {
    TraceState& s = trace_state;
    trace_close_output();
    s.record = TraceArgumentRecord{};
    s.record_initialised = 0;
    s.cooked_bytes = 0;
    std::strcpy(s.output_file_name, "trace.out");
    s.batch_stream = nullptr;
    s.output_stream = open_output(s.output_file_name, "a+");
    s.output_owned = s.output_stream != nullptr;
    if (s.output_stream == nullptr) {
        fprintf(stderr, "trace_init error opening file >%s<\n", s.output_file_name);
        exit(1);
    }
    s.filter_mask = kTraceDefaultFilter;
    s.raw_size = kTraceRawSize;
    s.raw_buffer = obtain_buffer(kTraceRawSize);
    if (!s.raw_buffer) {
        printf("plimsor fail to malloc %lu bytes for raw buffer exiting\n", static_cast<unsigned long>(kTraceRawSize));
        exit(1);
    }
    s.cooked_size = kTraceCookedSize;
    s.cooked_buffer = obtain_buffer(kTraceCookedSize);
    if (!s.cooked_buffer) {
        printf("plimsor fail to malloc %lu bytes for cook buffer exiting\n", static_cast<unsigned long>(kTraceCookedSize));
        exit(1);
    }
}

void trace_close_output() {
    TraceState& s = trace_state;
    if (s.output_owned && s.output_stream != nullptr) close_output(s.output_stream);
    s.output_stream = nullptr;
    s.output_owned = false;
}

void dd_trace_format_report(const TraceArgumentRecord& record, uint64_t filter_mask,
                            std::span<const uint8_t> raw, std::span<uint8_t> cooked,
                            uint64_t& cooked_bytes) {
    std::fill(cooked.begin(), cooked.end(), ' ');
    std::size_t written = 0;
    std::size_t offset = 0;
    uint32_t count = 0;
    if (record.bytes_reported != 0 && record.entry_count != 0) {
        do {
            // The driver's figures are not trusted to stay inside the buffer:
            // an entry whose length digits or text reach past its end ends
            // the report, and so does a length below 3, which has no text
            // (and, at 0, would never move on).
            if (offset + 2 > raw.size()) break;
            std::size_t length = hex_digit(raw[offset]) * 16 + hex_digit(raw[offset + 1]);
            if (length < 3 || length - 1 > raw.size() - offset) break;
            std::span<const uint8_t> text = raw.subspan(offset + 2, length - 3);
            if (written + text.size() > cooked.size()) break;
            if ((filter_mask & entry_class(text)) != 0) {
                std::copy(text.begin(), text.end(), cooked.begin() + static_cast<std::ptrdiff_t>(written));
                written += text.size();
            }
            ++count;
            offset += length;
        } while (offset < record.bytes_reported && count < record.entry_count);
    }
    cooked_bytes = written;
}

void write_raw_report(FILE* output, const TraceState& s) {
    const TraceArgumentRecord& r = s.record;
    std::span<const uint8_t> raw = s.raw();
    fprintf(output, "***** Trace Report Control Info *****\n");
    fprintf_trace_argument(output, r);
    fprintf(output, "***** Trace Report Begin %u bytes *****\n", r.bytes_reported);
    // A count beyond the buffer writes what the buffer holds.
    std::size_t raw_bytes = std::min<std::size_t>(r.bytes_reported, raw.size());
    if (raw_bytes > 0) fwrite(raw.data(), 1, raw_bytes, output);
    fprintf(output, "\n***** Trace Report End Raw *****\n");
    if ((r.flags & TRACE_DUMP) != 0) {
        fprintf(output, "\n***** Trace Report Begin Dump *****\n");
        uint64_t dump_bytes = 0;
        if (raw.size() >= kTraceDumpBytesOffset) {
            std::memcpy(&dump_bytes, raw.data() + kTraceDumpCountOffset, sizeof dump_bytes);
        }
        const auto raw_address = reinterpret_cast<unsigned long>(raw.data());
        fprintf(output, "raw_p 0x%lx  dump 0x%lx  dump_bytes %lu\n", raw_address,
                static_cast<unsigned long>(raw_address + kTraceDumpCountOffset), static_cast<unsigned long>(dump_bytes));
        if (dump_bytes > kTraceDumpCap) {
            fprintf(output, "bogus dump_bytes adjusting to %lu\n", static_cast<unsigned long>(kTraceDumpCap));
            dump_bytes = kTraceDumpCap;
        }
        // The cap still allows a few bytes more than the dump area holds.
        std::size_t room = raw.size() >= kTraceDumpBytesOffset ? raw.size() - kTraceDumpBytesOffset : 0;
        if (room > 0) fwrite(raw.data() + kTraceDumpBytesOffset, 1, std::min<std::size_t>(dump_bytes, room), output);
        fprintf(output, "\n***** Trace Report End Dump *****\n");
    }
    fflush(output);
}

void write_cooked_report(FILE* output, const TraceState& s) {
    std::span<const uint8_t> cooked = s.cooked();
    std::size_t bytes = std::min<std::size_t>(s.cooked_bytes, cooked.size());
    if (bytes > 0) fwrite(cooked.data(), 1, bytes, output);
    fflush(output);
}
