// Test seam: while a handler is installed, every ioctl of the test process
// goes to it instead of the kernel, so driver replies (hostile ones too) can
// be crafted byte by byte.
#pragma once

#include <functional>

using FakeIoctl = std::function<int(int descriptor, unsigned long request, void* record)>;

void set_fake_ioctl(FakeIoctl handler);  // an empty handler restores the real call

struct ScopedFakeIoctl {
    explicit ScopedFakeIoctl(FakeIoctl handler) { set_fake_ioctl(std::move(handler)); }
    ~ScopedFakeIoctl() { set_fake_ioctl({}); }
    ScopedFakeIoctl(const ScopedFakeIoctl&) = delete;
    ScopedFakeIoctl& operator=(const ScopedFakeIoctl&) = delete;
};
