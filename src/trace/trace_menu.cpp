// The trace operations menu: flag operations, report operations, snapshot.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "context/context.h"
#include "context/output.h"
#include "trace/trace.h"

namespace {

enum class Next { stay, leave };

// Bits offered by "set local flags", by choice number; ps brings cc along.
constexpr std::array<uint32_t, 10> kChoiceBits{
    TRACE_PRINTF, TRACE_PSERR, TRACE_PS | TRACE_CC, TRACE_CC,    TRACE_ENTRY,
    TRACE_EXIT,   TRACE_DEBUG, TRACE_PAUSE,         TRACE_COMPRESS, TRACE_DUMP,
};
constexpr std::array<uint32_t, 3> kFilterBits{TRACE_ENTRY, TRACE_EXIT, TRACE_DEBUG};

struct Menu {
    FILE* stream;  // the caller's: TTRACE lines, and the "batch_out" choice
    FILE* in;
    FILE* out;
    char line[kInputLineSize];
    bool advanced;

    // One typed line is one answer, as at the manual test menu: the tail of
    // a long file name can never be taken as the next selection (a tail of
    // "23" would clear the driver's trace table). End of input, or a stop
    // signal, answers no prompt (one that came before the prompt is not
    // waited on), so every caller leaves the menu on false.
    bool read_line() { return !stop_requested() && read_answer_line(in, line, sizeof line) && !stop_requested(); }
    Next read_or_leave() { return read_line() ? Next::stay : Next::leave; }
    bool line_empty() const { return line[0] == '\n' || line[0] == '\0'; }
    long answer_number() const { return strtol(line, nullptr, 10); }
    int32_t answer_int() const { return static_cast<int32_t>(answer_number()); }

    Next message(const char* text) {
        fprintf(out, "%s\n", text);
        return read_or_leave();
    }
    Next show_rc(int rc) {
        fprintf(out, "rc = %ld  enter to continue: ", static_cast<long>(rc));
        return read_or_leave();
    }
};

void show_menu(const Menu& m) {
    const TraceState& s = trace_state;
    FILE* out = m.out;
    fprintf(out, "Trace Operations Menu\n\n");
    fprintf(out, " current trace output file is <%s>\n", s.output_file_name);
    if (m.advanced) {
        fprintf(out, "  trace filter mask 0x%08lx\n", static_cast<unsigned long>(s.filter_mask));
        fprintf_trace_flag(out, "ENTRY:    ", s.filter_mask, TRACE_ENTRY);
        fprintf_trace_flag(out, "EXIT:     ", s.filter_mask, TRACE_EXIT);
        fprintf_trace_flag(out, "DEBUG:    ", s.filter_mask, TRACE_DEBUG);
        fprintf(out, "\n");
        fprintf_trace_argument(out, s.record);
        fprintf(out, "\nTrace Flag Operations:\n");
        fprintf(out, "  1 : get flags from kernel\n");
        fprintf(out, "  2 : apply flags to kernel\n");
        fprintf(out, "  3 : set local flags\n\n");
        fprintf(out, "Trace Report Operations:\n");
        fprintf(out, "  4 : set report bytes requested\n");
        fprintf(out, "  5 : request report from kernel\n");
        fprintf(out, "  6 : set report filter mask\n");
        fprintf(out, "  7 : format report\n");
        fprintf(out, "  8 : set trace output\n");
        fprintf(out, "  9 : append raw  report to trace file\n");
        fprintf(out, " 10 : append cook report to trace file\n\n");
    } else {
        fprintf(out, "\n");
    }
    fprintf(out, " 19 : start device driver trace \n");
    fprintf(out, " 20 : start detailed device driver trace \n");
    fprintf(out, " 21 : end   device driver trace \n");
    fprintf(out, " 22 : write driver trace data to file <%s>\n", s.output_file_name);
    fprintf(out, " 23 : clear trace table\n");
    fprintf(out, "\n");
    fprintf(out, " 50 : advanced trace options\n\n");
    fprintf(out, " 99 : return to test menu\n\n");
    fprintf(out, "enter selection: ");
}

Next set_local_flags(Menu& m) {
    fprintf(m.out, " Destinations: (1) printf   (2) pserr     (3) ps   \n");
    fprintf(m.out, "               (4) cc                              \n");
    fprintf(m.out, " Macros:       (5) entry    (6) exit      (7) debug\n");
    fprintf(m.out, " Controls:     (8) pause    (9) compress (10) dump \n");
    fprintf(m.out, "enter flag to change or return to continue: ");
    if (!m.read_line()) return Next::leave;
    int32_t choice = m.answer_int();
    fprintf(m.out, "flag value (0/1): ");
    if (!m.read_line()) return Next::leave;
    if (choice < 1 || choice > static_cast<int32_t>(kChoiceBits.size())) return Next::stay;
    uint32_t bits = kChoiceBits[static_cast<std::size_t>(choice - 1)];
    uint32_t& flags = trace_state.record.flags;
    flags = m.line[0] == '1' ? flags | bits : flags & ~bits;
    return Next::stay;
}

Next set_bytes_requested(Menu& m) {
    fprintf(m.out, "enter bytes requested or return to continue: ");
    if (!m.read_line()) return Next::leave;
    if (m.line_empty()) return Next::stay;
    TraceState& s = trace_state;
    uint32_t bytes = static_cast<uint32_t>(m.answer_number());
    // The driver writes as much as it is asked for into the raw buffer, so
    // no request may name more than the buffer holds.
    if (bytes > s.raw_size) {
        bytes = static_cast<uint32_t>(s.raw_size);
        fprintf(m.out, "bytes requested capped at %u, the size of the report buffer\n", bytes);
    }
    s.record.bytes_requested = bytes;
    return Next::stay;
}

void clear_raw_buffer() {
    std::span<uint8_t> raw = trace_state.raw();
    std::fill(raw.begin(), raw.end(), ' ');
}

Next request_report(Menu& m) {
    clear_raw_buffer();
    return m.show_rc(dd_trace_request(m.stream, DD_TRACE_REPORT));
}

Next set_filter_mask(Menu& m) {
    fprintf(m.out, " Macros:       (1) entry     (2) exit    (3) debug\n");
    fprintf(m.out, "enter flag to change or return to continue: ");
    if (!m.read_line()) return Next::leave;
    int32_t choice = m.answer_int();
    fprintf(m.out, "flag value (0/1): ");
    if (!m.read_line()) return Next::leave;
    if (choice < 1 || choice > static_cast<int32_t>(kFilterBits.size())) return Next::stay;
    uint64_t bit = kFilterBits[static_cast<std::size_t>(choice - 1)];
    uint64_t& mask = trace_state.filter_mask;
    mask = m.line[0] == '1' ? mask | bit : mask & ~bit;
    return Next::stay;
}

void format_report() {
    TraceState& s = trace_state;
    dd_trace_format_report(s.record, s.filter_mask, s.raw(), s.cooked(), s.cooked_bytes);
}

Next set_trace_output(Menu& m) {
    TraceState& s = trace_state;
    fprintf(m.out, "enter (1)stdout (2)stderr (3)batch_out (4)trace_out\n");
    fprintf(m.out, "or return to continue: ");
    if (!m.read_line()) return Next::leave;
    int32_t choice = m.answer_int();
    if (choice < 1 || choice > 4) return Next::stay;
    if (choice == 4) {
        // Asked before the old output is closed, so that end of input here
        // leaves the output as it was rather than closed under the menu.
        fprintf(m.out, "enter trace output file name or return for default: ");
        if (!m.read_line()) return Next::leave;
    }
    trace_close_output();
    switch (choice) {
        case 1: s.output_stream = stdout; break;
        case 2: s.output_stream = stderr; break;
        case 3:
            s.batch_stream = m.stream;
            s.output_stream = m.stream;
            break;
        default: {
            const char* name = m.line_empty() ? "trace.out" : m.line;
            snprintf(s.output_file_name, sizeof s.output_file_name, "%s", name);
            s.output_file_name[strcspn(s.output_file_name, "\n")] = '\0';
            s.output_stream = open_output(s.output_file_name, "w+");
            s.output_owned = s.output_stream != nullptr;
            if (s.output_stream == nullptr) {
                fprintf(stderr, "plimsor error opening file >%s<\n", s.output_file_name);
            }
            break;
        }
    }
    return Next::stay;
}

// Start (19), start detailed (20).
Next start_tracing(Menu& m, bool detailed) {
    TraceArgumentRecord& r = trace_state.record;
    ttrace(m.stream, detailed ? "TTRACE start detailed tracing, get flags \n" : "TTRACE start tracing, get flags \n");
    if (dd_trace_request(m.stream, DD_TRACE_GET_FLAGS) != 0) {
        return m.message("tracing start failed get flags, return to continue");
    }
    ttrace(m.stream, "TTRACE flags 0x%02X \n", r.flags);
    if (detailed) {
        r.flags |= TRACE_CC | TRACE_ENTRY | TRACE_EXIT | TRACE_DEBUG;
    } else {
        r.flags = (r.flags | TRACE_CC | TRACE_DEBUG) & ~(TRACE_ENTRY | TRACE_EXIT);
    }
    ttrace(m.stream, "TTRACE set cc trace on 0x%x \n", 1);
    if (dd_trace_request(m.stream, DD_TRACE_SET_FLAGS) != 0) {
        return m.message("trace start failed, return to continue");
    }
    return Next::stay;
}

Next end_tracing(Menu& m) {
    TraceArgumentRecord& r = trace_state.record;
    ttrace(m.stream, "TTRACE end tracing, get flags \n");
    if (dd_trace_request(m.stream, DD_TRACE_GET_FLAGS) != 0) {
        return m.message("tracing end failed get flags, return to continue");
    }
    ttrace(m.stream, "TTRACE flags 0x%02X \n", r.flags);
    r.flags &= ~(TRACE_PS | TRACE_CC);
    ttrace(m.stream, "TTRACE set cc trace off 0x%x \n", 1);
    if (dd_trace_request(m.stream, DD_TRACE_SET_FLAGS) != 0) {
        return m.message("trace end failed, return to continue");
    }
    return Next::stay;
}

Next snapshot(Menu& m) {
    TraceState& s = trace_state;
    TraceArgumentRecord& r = s.record;
    ttrace(m.stream, "TTRACE begin snapshot, get flags \n");
    if (dd_trace_request(m.stream, DD_TRACE_GET_FLAGS) != 0) {
        return m.message("snapshot failed get flags, return to continue");
    }
    // Only a running common-code trace is held still while it is copied out;
    // one the driver already had paused stays as it was.
    bool paused_here = false;
    if ((r.flags & TRACE_CC) != 0 && (r.flags & TRACE_PAUSE) == 0) {
        r.flags |= TRACE_PAUSE;
        ttrace(m.stream, "TTRACE set pause 0x%x \n", 1);
        if (dd_trace_request(m.stream, DD_TRACE_SET_FLAGS) != 0) {
            return m.message("snapshot failed pause on, return to continue");
        }
        paused_here = true;
    }
    r.bytes_requested = static_cast<uint32_t>(s.raw_size);
    clear_raw_buffer();
    ttrace(m.stream, "TTRACE request report 0x%x \n", DD_TRACE_REPORT);
    if (dd_trace_request(m.stream, DD_TRACE_REPORT) != 0) {
        return m.message("snapshot failed get report, return to continue");
    }
    if (paused_here) {
        r.flags &= ~TRACE_PAUSE;
        ttrace(m.stream, "TTRACE set unpause 0x%x \n", 1);
        if (dd_trace_request(m.stream, DD_TRACE_SET_FLAGS) != 0) {
            return m.message("snapshot failed pause off, return to continue");
        }
    }
    ttrace(m.stream, "TTRACE calling dd_trace_format_report \n");
    format_report();
    ttrace(m.stream, "TTRACE cook_report_bytes = %ld \n", static_cast<long>(s.cooked_bytes));
    // With no output (a failed open) the report stays formatted for a later
    // selection 10 once an output is chosen.
    if (s.output_stream != nullptr) write_cooked_report(s.output_stream, s);
    return Next::stay;
}

Next carry_out(Menu& m, int32_t selection) {
    TraceState& s = trace_state;
    switch (selection) {
        case 1: return m.show_rc(dd_trace_request(m.stream, DD_TRACE_GET_FLAGS));
        case 2: return m.show_rc(dd_trace_request(m.stream, DD_TRACE_SET_FLAGS));
        case 3: return set_local_flags(m);
        case 4: return set_bytes_requested(m);
        case 5: return request_report(m);
        case 6: return set_filter_mask(m);
        case 7: format_report(); return Next::stay;
        case 8: return set_trace_output(m);
        case 9:
            if (s.output_stream != nullptr) write_raw_report(s.output_stream, s);
            return Next::stay;
        case 10:
            if (s.output_stream != nullptr) write_cooked_report(s.output_stream, s);
            return Next::stay;
        case 19: return start_tracing(m, false);
        case 20: return start_tracing(m, true);
        case 21: return end_tracing(m);
        case 22: return snapshot(m);
        case 23:
            if (dd_trace_request(m.stream, DD_TRACE_CLEAR) != 0) {
                return m.message("clear trace failed, return to continue");
            }
            return Next::stay;
        case 50: m.advanced = !m.advanced; return Next::stay;
        case 99: return Next::leave;
        default: return m.message("invalid input, return to continue");
    }
}

}  // namespace

int trace_menu_session(FILE* stream, FILE* input, FILE* output) {
    TraceState& s = trace_state;
    ttrace(stream, "TTRACE trace_menu entered.\n");
    if (s.record_initialised == 0) {
        TraceArgumentRecord& r = s.record;
        r.command = 0;
        r.flags = 0;
        r.kernel_addr = 0;
        r.user_addr = reinterpret_cast<uint64_t>(s.raw_buffer.get());
        r.bytes_requested = 0;
        r.bytes_reported = 0;
        r.usage = 0;
        r.capacity = 0;
        r.entry_count = 0;
        r.first_offset = 0;
        r.last_offset = 0;
        s.record_initialised = 1;
    }
    Menu m{stream, input, output, {}, false};
    for (;;) {
        show_menu(m);
        if (!m.read_line()) return 99;
        if (carry_out(m, m.answer_int()) == Next::leave) return 99;
    }
}

int trace_menu(FILE* stream) { return trace_menu_session(stream, stdin, stdout); }
