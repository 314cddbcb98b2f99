// Topology: the built-in default and the line-oriented description.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "driver.h"

namespace vpathsim {
namespace {

void copy_text(char* field, size_t size, const std::string& text) {
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

// INQUIRY text fields are blank-padded, never NUL-terminated.
void copy_padded(uint8_t* field, size_t size, const std::string& text) {
    std::memset(field, ' ', size);
    std::memcpy(field, text.data(), std::min(text.size(), size));
}

void set_inquiry_defaults(DeviceConfig& device, int number) {
    std::memset(device.inquiry, 0, sizeof device.inquiry);
    device.inquiry[2] = 0x05;                  // SPC-3
    device.inquiry[3] = 0x02;                  // response data format
    device.inquiry[4] = sizeof(InquiryData) - 5;  // additional length
    device.inquiry[7] = 0x02;                  // command queuing
    copy_padded(device.inquiry + kInquiryVendorOffset, 8, "NEWCO");
    copy_padded(device.inquiry + kInquiryProductOffset, 16, "VDISK-2107");
    copy_padded(device.inquiry + kInquiryRevisionOffset, 4, "1.00");
    char specific[21];
    std::snprintf(specific, sizeof specific, "SIM-VPATH-%010d", number);
    copy_padded(device.inquiry + kInquiryVendorSpecificOffset, 20, specific);
}

void new_device(Topology& topology) {
    int number = topology.device_count++;
    DeviceConfig& device = topology.devices[number];
    std::memset(&device, 0, sizeof device);
    char serial[33];
    std::snprintf(serial, sizeof serial, "750228110%02d", number);
    copy_text(device.serial, sizeof device.serial, serial);
    std::memcpy(device.type, "2107900 ", 8);
    device.policy = 4;  // Optimized
    device.controllers = 2;
    device.size = 64ull << 20;
    set_inquiry_defaults(device, number);
}

bool parse_size(const std::string& text, uint64_t* out) {
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || text[0] == '-') return false;
    unsigned shift = 0;
    switch (*end) {
        case '\0': break;
        case 'K': case 'k': shift = 10; ++end; break;
        case 'M': case 'm': shift = 20; ++end; break;
        case 'G': case 'g': shift = 30; ++end; break;
        case 'T': case 't': shift = 40; ++end; break;
        default: return false;
    }
    // Past 2^31 sectors (1 TiB) so that large-device tests have room; 8 TiB
    // is still a sparse file ext4 and tmpfs take.
    if (*end != '\0' || value == 0 || value > (1ull << 43) >> shift) return false;
    value <<= shift;
    if (value % kSectorSize != 0) return false;
    *out = value;
    return true;
}

bool parse_int(const std::string& text, long low, long high, long* out) {
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value < low || value > high) return false;
    *out = value;
    return true;
}

bool device_key(DeviceConfig& device, const std::string& key, const std::string& value, std::string* error) {
    long number = 0;
    if (key == "serial") {
        copy_text(device.serial, sizeof device.serial, value);
    } else if (key == "type") {
        std::memset(device.type, ' ', sizeof device.type);
        std::memcpy(device.type, value.data(), std::min(value.size(), sizeof device.type));
    } else if (key == "policy") {
        if (!parse_int(value, 1, 7, &number)) return *error = "policy must be 1 to 7", false;
        device.policy = static_cast<uint32_t>(number);
    } else if (key == "controllers") {
        if (!parse_int(value, 1, 8, &number)) return *error = "controllers must be 1 to 8", false;
        device.controllers = static_cast<int32_t>(number);
    } else if (key == "size") {
        if (!parse_size(value, &device.size)) return *error = "bad size (a multiple of 512 up to 8T, K/M/G/T allowed)", false;
    } else if (key == "devtype") {
        if (!parse_int(value, 0, 255, &number)) return *error = "devtype must be 0 to 255", false;
        device.inquiry[0] = static_cast<uint8_t>(number);
    } else if (key == "vendor") {
        copy_padded(device.inquiry + kInquiryVendorOffset, 8, value);
    } else if (key == "product") {
        copy_padded(device.inquiry + kInquiryProductOffset, 16, value);
    } else if (key == "revision") {
        copy_padded(device.inquiry + kInquiryRevisionOffset, 4, value);
    } else if (key == "vendor_specific") {
        copy_padded(device.inquiry + kInquiryVendorSpecificOffset, 20, value);
    } else {
        return *error = "unknown device key '" + key + "'", false;
    }
    return true;
}

}  // namespace

Topology default_topology() {
    Topology topology{};
    topology.adapter_count = 2;
    copy_text(topology.adapter_names[0], 16, "scsi0");
    copy_text(topology.adapter_names[1], 16, "scsi1");
    const char* names = "abcdefgh";
    for (int d = 0; d < 2; ++d) {
        new_device(topology);
        DeviceConfig& device = topology.devices[d];
        device.path_count = 4;
        for (int p = 0; p < 4; ++p) {
            device.paths[p].adapter = p % 2;
            char name[15];
            std::snprintf(name, sizeof name, "sd%c", names[d * 4 + p]);
            copy_text(device.paths[p].name, sizeof device.paths[p].name, name);
        }
    }
    return topology;
}

bool parse_config(const std::string& text, Topology* out, std::string* error) {
    Topology topology{};
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto fail = [&](const std::string& why) {
        *error = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    while (std::getline(lines, line)) {
        ++number;
        if (auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string word;
        if (!(words >> word)) continue;
        if (word == "adapter") {
            std::string name;
            if (!(words >> name)) return fail("adapter needs a name");
            if (topology.adapter_count == kMaxAdapterEntries) return fail("too many adapters");
            copy_text(topology.adapter_names[topology.adapter_count++], 16, name);
            if (words >> word) return fail("unexpected '" + word + "'");
        } else if (word == "device") {
            if (topology.device_count == kMaxDevices) return fail("too many devices");
            new_device(topology);
            DeviceConfig& device = topology.devices[topology.device_count - 1];
            while (words >> word) {
                auto equals = word.find('=');
                if (equals == std::string::npos) return fail("expected key=value, got '" + word + "'");
                std::string why;
                if (!device_key(device, word.substr(0, equals), word.substr(equals + 1), &why)) return fail(why);
            }
        } else if (word == "path") {
            if (topology.device_count == 0) return fail("path before any device");
            DeviceConfig& device = topology.devices[topology.device_count - 1];
            std::string name, adapter;
            long index = 0;
            if (!(words >> name >> adapter) || adapter.rfind("adapter=", 0) != 0)
                return fail("path needs a name and adapter=N");
            if (!parse_int(adapter.substr(8), 0, topology.adapter_count - 1, &index))
                return fail("path names an adapter that is not declared");
            if (device.path_count == kMaxPathEntries) return fail("too many paths");
            PathConfig& path = device.paths[device.path_count++];
            path.adapter = static_cast<int32_t>(index);
            copy_text(path.name, sizeof path.name, name);
            if (words >> word) return fail("unexpected '" + word + "'");
        } else {
            return fail("unknown keyword '" + word + "'");
        }
    }
    if (topology.device_count == 0) return *error = "no device declared", false;
    for (int d = 0; d < topology.device_count; ++d) {
        if (topology.devices[d].path_count == 0) {
            *error = "device " + std::to_string(d) + " has no path";
            return false;
        }
    }
    *out = topology;
    return true;
}

bool read_config(const std::string& file, Topology* out, std::string* error) {
    FILE* in = std::fopen(file.c_str(), "re");
    if (in == nullptr) return *error = file + ": " + std::strerror(errno), false;
    std::string text;
    char chunk[4096];
    size_t n = 0;
    while (text.size() <= kMaxConfigBytes && (n = std::fread(chunk, 1, sizeof chunk, in)) > 0) text.append(chunk, n);
    const bool failed = std::ferror(in) != 0;
    const int number = errno;
    std::fclose(in);
    if (failed) return *error = file + ": " + std::strerror(number), false;
    if (text.size() > kMaxConfigBytes)
        return *error = file + ": larger than " + std::to_string(kMaxConfigBytes) + " bytes, no topology", false;
    if (!parse_config(text, out, error)) return *error = file + ": " + *error, false;
    return true;
}

}  // namespace vpathsim
