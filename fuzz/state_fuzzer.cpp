// libFuzzer target: a state file is untrusted input (dd may have written it). The input patches a
// fresh state in groups of a three-byte offset (little-endian, modulo the state's size), a length
// byte and that many bytes; a state check_state passes then carries a control request (the first
// byte picks it, the input is its record), a transfer and the listing without a fault or a hang.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "driver.h"

using namespace vpathsim;

// The state lives in memory (it is rewritten every run), in a folder named by
// the process: a normal end removes it, and a fuzzer ended by a crash or a
// signal (which skip atexit) has its folder removed by the next one.
static const std::string& state_folder() {
    static const std::string dir = "/dev/shm/vpathsim-fuzz." + std::to_string(getpid());
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename();
        const bool ours = name.rfind("vpathsim-fuzz.", 0) == 0 && name.find_first_not_of("0123456789", 14) == std::string::npos;
        if (ours && kill(std::atoi(name.c_str() + 14), 0) != 0 && errno == ESRCH)
            std::filesystem::remove_all(entry.path());
    }
    std::filesystem::create_directory(dir);
    std::atexit([] { std::filesystem::remove_all(dir); });
    return dir;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Sim& sim = *new Sim;
    static const bool attached = [] { std::string error; return sim.attach(state_folder(), "", &error); }();
    if (!attached) abort();
    static const SharedState clean = *sim.state();
    static std::vector<uint8_t> report(kTraceRawSize);
    static FILE* sink = std::fopen("/dev/null", "w");
    SharedState& state = *sim.state() = clean;
    auto* bytes = reinterpret_cast<uint8_t*>(&state);
    for (size_t i = 0; i + 4 <= size; i += 4 + data[i + 3]) {
        const size_t at = (data[i] | data[i + 1] << 8 | data[i + 2] << 16) % sizeof state;
        std::memcpy(bytes + at, data + i + 4, std::min({size_t{data[i + 3]}, size - i - 4, sizeof state - at}));
    }
    if (!check_state(state).empty()) return 0;
    alignas(8) uint8_t record[8192] = {};
    std::memcpy(record, data, std::min(size, sizeof record));
    const uint32_t code = DD_TRACE + (size > 0 ? data[0] % (DD_SET_CONTROLLER - DD_TRACE + 1) : 0);
    if (code == DD_TRACE) reinterpret_cast<TraceArgumentRecord*>(record)->user_addr = reinterpret_cast<uintptr_t>(report.data());
    sim.request(code, record);
    sim.transfer(size > 1 ? data[1] % state.topology.device_count : 0, size > 2 && (data[2] & 1) != 0, 0, 4096,
                 [] { return ssize_t{4096}; });
    sim.show(sink);
    return 0;
}
