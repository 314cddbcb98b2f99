// libFuzzer target over the simulator's topology files: parsing any text ends without a fault,
// and a topology it accepts makes a state that passes every state check.
#include <cstdlib>
#include <cstring>
#include <string>

#include "driver.h"

using namespace vpathsim;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static SharedState state;
    std::memset(&state, 0, sizeof state);
    state.topology = default_topology();
    std::string error;
    if (!parse_config(std::string(reinterpret_cast<const char*>(data), size), &state.topology, &error)) return 0;
    std::memcpy(state.magic, kStateMagic, sizeof kStateMagic);
    state.version = kStateVersion, state.size = sizeof state;
    if (!check_state(state).empty()) abort();
    return 0;
}
