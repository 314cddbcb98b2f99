// Path selection: which functioning path of a device a transfer takes, when
// it is issued and when a request in flight is retried after its path
// failed. The spread shows in each path's "times used".
#include "driver.h"

namespace vpathsim {
namespace {

// Failover-only policies keep to one path while it functions; the others
// go round the paths, one transfer each.
bool stays_on_path(uint32_t policy) { return policy == 3 || policy == 6 || policy == 7; }

}  // namespace

int Sim::choose_path(int device) {
    const DeviceConfig& config = state_->topology.devices[device];
    const int last = state_->devices[device].last_path;
    const int first = stays_on_path(config.policy) ? 0 : 1;
    for (int step = first; step < first + config.path_count; ++step) {
        int candidate = (last + step) % config.path_count;
        if (path_functions(device, candidate)) return candidate;
    }
    return -1;
}

}  // namespace vpathsim
