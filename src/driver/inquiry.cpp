// INQUIRY command: fetches a device's INQUIRY data, keeps it in the test
// context for later `if` statements, and prints it.
#include <cstring>

#include "context/context.h"
#include "driver/driver.h"
#include "driver/request.h"

namespace {
// The trace dump shows only the standard INQUIRY part of the record.
constexpr int64_t kInquiryTraceLength = 56;
}  // namespace

void get_inquiry(FILE* stream, const CommandClause& clause, CommandOutcome& outcome) {
    InquiryRecord record{};
    keyword_argument(stream, clause, 1, "device", "get device state", record.device);
    // An armed address override is meant for a data transfer or another
    // request; the inquiry always uses its own record.
    send_request_own_record(stream, outcome, DD_GET_INQUIRY, &record, kInquiryTraceLength);
    if (outcome.return_code == -1) {
        fputs("tarnwick error getting logical inquiry\n", stream);
        return;
    }
    std::memcpy(test_context.inquiry_data, &record.data, sizeof test_context.inquiry_data);
    fprintf_inquiry_data(stream, test_context.inquiry_data);
}

void fprintf_inquiry_data(FILE* stream, const uint8_t* data) {
    InquiryData inquiry;
    std::memcpy(&inquiry, data, sizeof inquiry);

    ttrace(stream, "TTRACE: fprintf_inquiry_data entered.\n");
    fputs("INQUIRY data:\n", stream);
    fprintf(stream, "  devtype           %3x \n", inquiry.device_type);
    fprintf(stream, "  flags     %3x\n", inquiry.flags);
    fprintf(stream, "  additional_length %3x flags2 %3x \n", inquiry.additional_length, inquiry.flags2);
    // Identification bytes go out unfiltered, NULs and all, so a transcript
    // shows exactly what the device reported.
    fputs("  vendor id:               ", stream);
    fwrite(inquiry.vendor_id, 1, sizeof inquiry.vendor_id, stream);
    fputs("\n  product id:              ", stream);
    fwrite(inquiry.product_id, 1, sizeof inquiry.product_id, stream);
    fputs("\n  firmware revision level: ", stream);
    fwrite(inquiry.firmware_revision_level, 1, sizeof inquiry.firmware_revision_level, stream);
    fputs("\n  vendor specific: \n", stream);

    fputs("    ", stream);
    for (const uint8_t byte : inquiry.vendor_specific) fprintf(stream, " %2x", byte);
    char printable[sizeof inquiry.vendor_specific + 1];
    printable_copy(inquiry.vendor_specific, printable, static_cast<int32_t>(sizeof inquiry.vendor_specific));
    fputc('\n', stream);
    fprintf(stream, "     (%s) \n", printable);
    ttrace(stream, "TTRACE: fprintf_inquiry_data exit.\n");
}
