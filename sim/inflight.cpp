// Requests in flight: the service time a transfer spends on its path with
// no lock held, the retry of requests whose path failed under them (after
// the device's failover delay), and writes lost with their path. See
// docs/simulator.md, "Requests in flight".
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "driver.h"

namespace vpathsim {
namespace {

void pause_for(uint64_t microseconds) {
    timespec left{static_cast<time_t>(microseconds / 1000000), static_cast<long>(microseconds % 1000000) * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {}
}

bool in_flight_state(uint8_t state) { return state == kSlotOnPath || state == kSlotRequeue || state == kSlotLost; }

// A slot left behind by a process that ended in the middle of a transfer.
bool abandoned(const InFlight& slot) { return kill(slot.pid, 0) != 0 && errno == ESRCH; }

}  // namespace

bool valid_in_flight(const SharedState& state) {
    const Topology& topology = state.topology;
    const InFlightTable& table = state.flight;
    for (const DeviceTiming& timing : table.timing)
        if (timing.latency_us > kMaxLatencyUs || timing.failover_delay_ms > kMaxFailoverDelayMs) return false;
    for (const InFlight& slot : table.slots) {
        if (slot.state >= kSlotStates) return false;
        if (slot.state == kSlotFree) continue;
        if (slot.device < 0 || slot.device >= topology.device_count || slot.write > 1) return false;
        int lowest = slot.state == kSlotTaken ? -1 : 0;
        if (slot.path < lowest || slot.path >= topology.devices[slot.device].path_count) return false;
    }
    return true;
}

bool Sim::set_latency(int device, long long microseconds, std::string* error) {
    SimLock guard(*this);
    if (!guard.held()) return *error = dir_ + "/state: cut short while in use", false;
    if (device < 0 || device >= state_->topology.device_count)
        return *error = "no device vpath" + std::to_string(device), false;
    if (microseconds < 0 || microseconds > kMaxLatencyUs)
        return *error = "latency: expected microseconds from 0 to " + std::to_string(kMaxLatencyUs), false;
    state_->flight.timing[device].latency_us = static_cast<uint32_t>(microseconds);
    trace("vpath%d latency %lld us\n", device, microseconds);
    return true;
}

bool Sim::set_failover_delay(int device, long long milliseconds, std::string* error) {
    SimLock guard(*this);
    if (!guard.held()) return *error = dir_ + "/state: cut short while in use", false;
    if (device < 0 || device >= state_->topology.device_count)
        return *error = "no device vpath" + std::to_string(device), false;
    if (milliseconds < 0 || milliseconds > kMaxFailoverDelayMs)
        return *error = "failover-delay: expected milliseconds from 0 to " + std::to_string(kMaxFailoverDelayMs), false;
    state_->flight.timing[device].failover_delay_ms = static_cast<uint32_t>(milliseconds);
    trace("vpath%d failover delay %lld ms\n", device, milliseconds);
    return true;
}

int Sim::in_flight(int device) {
    SimLock guard(*this);
    if (!guard.held()) return 0;
    return static_cast<int>(in_flight_count(device, -1, -1));
}

uint32_t Sim::in_flight_count(int device, int adapter, int write) const {
    uint32_t count = 0;
    for (const InFlight& slot : state_->flight.slots) {
        if (!in_flight_state(slot.state) || (device >= 0 && slot.device != device) ||
            (write >= 0 && slot.write != write))
            continue;
        if (adapter >= 0 && state_->topology.devices[slot.device].paths[slot.path].adapter != adapter) continue;
        ++count;
    }
    return count;
}

void Sim::show_timing(FILE* out, int device) {
    const DeviceTiming& timing = state_->flight.timing[device];
    uint32_t flying = in_flight_count(device, -1, -1);
    if (timing.latency_us == 0 && timing.failover_delay_ms == 0 && flying == 0) return;
    std::fprintf(out, "  latency %u us  failover-delay %u ms  in flight %u\n", timing.latency_us,
                 timing.failover_delay_ms, flying);
}

bool Sim::take_slot(Flight* flight) {
    InFlightTable& table = state_->flight;
    for (;;) {
        InFlight* free_slot = nullptr;
        for (int pass = 0; pass < 2 && free_slot == nullptr; ++pass) {
            for (int i = 0; i < kMaxInFlight; ++i) {
                InFlight& slot = table.slots[i];
                if (pass == 1 && slot.state != kSlotFree && abandoned(slot)) slot.state = kSlotFree;
                if (slot.state == kSlotFree && free_slot == nullptr) free_slot = &slot, flight->slot = i;
                if (free_slot != nullptr && pass == 0) break;
            }
        }
        if (free_slot != nullptr) {
            if (++table.next_ticket == 0) ++table.next_ticket;
            *free_slot = InFlight{};
            free_slot->state = kSlotTaken;
            free_slot->write = flight->write;
            free_slot->device = static_cast<int16_t>(flight->device);
            free_slot->path = -1;
            free_slot->pid = getpid();
            free_slot->ticket = flight->ticket = table.next_ticket;
            free_slot->position = flight->position;
            free_slot->length = flight->length;
            return true;
        }
        // Every slot busy: wait for one, as a full queue makes a request wait.
        unlock();
        pause_for(1000);
        if (!lock()) return flight->locked = false;
    }
}

void Sim::aboard(Flight* flight) {
    InFlight& slot = state_->flight.slots[flight->slot];
    slot.path = static_cast<int16_t>(flight->path);
    slot.state = kSlotOnPath;
    // Counted as issued, once on its path: which requests a fault by count
    // finds in flight then depends on the order they were issued in, not on
    // how their service times happen to end.
    advance_schedule(flight->device, flight->length);
    flight->counted = true;
}

int Sim::fly(Flight* flight) {
    const int device = flight->device;
    const char* what = flight->write ? "write" : "read";
    const DeviceConfig& config = state_->topology.devices[device];
    auto relock = [&]() -> InFlight* {
        if (!lock()) return flight->locked = false, nullptr;
        InFlight& slot = state_->flight.slots[flight->slot];
        // Not ours any more: the state was started over meanwhile.
        if (slot.pid != getpid() || slot.ticket != flight->ticket) return nullptr;
        return &slot;
    };
    for (;;) {
        uint32_t service = latency(device);
        unlock();
        pause_for(service);
        InFlight* slot = relock();
        if (slot == nullptr) return flight->slot = -1, flight->path = -1, EIO;
        if (slot->state == kSlotOnPath) return 0;
        const int from = slot->path;
        if (slot->state == kSlotLost) {
            trace("vpath%d write via path %d (%s): path failed in flight, write lost\n", device, from,
                  config.paths[from].name);
            flight->lost = true;
            return 0;
        }
        // The failed try counts against its path and adapter as a flaky
        // path's does.
        PathRuntime& runtime = state_->devices[device].paths[from];
        AdapterRuntime& adapter = state_->adapters[config.paths[from].adapter];
        ++runtime.times_used;
        ++runtime.recovered_errors;
        ++adapter.count;
        ++adapter.errors;
        ++state_->flight.requeued[device][from];
        if (uint32_t delay = state_->flight.timing[device].failover_delay_ms; delay > 0) {
            unlock();
            pause_for(uint64_t{delay} * 1000);
            slot = relock();
            if (slot == nullptr) return flight->slot = -1, flight->path = -1, EIO;
        }
        int to = choose_path(device);
        flight->path = -1;  // counted above; no path carries the failure
        if (to < 0) {
            trace("vpath%d %s via path %d (%s): path failed in flight, no path left\n", device, what, from,
                  config.paths[from].name);
            return EIO;
        }
        trace("vpath%d %s via path %d (%s): path failed in flight, retried on path %d\n", device, what, from,
              config.paths[from].name, to);
        state_->devices[device].last_path = to;
        slot->path = static_cast<int16_t>(to);
        slot->state = kSlotOnPath;
        flight->path = to;
    }
}

void Sim::land(Flight* flight) {
    if (flight->slot < 0) return;
    InFlight& slot = state_->flight.slots[flight->slot];
    if (slot.pid == getpid() && slot.ticket == flight->ticket) slot.state = kSlotFree;
    flight->slot = -1;
}

void Sim::ground_in_flight(int device, int path, int adapter, bool lose) {
    for (InFlight& slot : state_->flight.slots) {
        if (slot.state != kSlotOnPath || (device >= 0 && slot.device != device) || (path >= 0 && slot.path != path))
            continue;
        if (adapter >= 0 && state_->topology.devices[slot.device].paths[slot.path].adapter != adapter) continue;
        slot.state = lose && slot.write ? kSlotLost : kSlotRequeue;
    }
}

}  // namespace vpathsim
