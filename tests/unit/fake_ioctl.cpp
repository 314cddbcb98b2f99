#include <dlfcn.h>

#include <cstdarg>

#include "support.h"

static FakeIoctl& handler() { static FakeIoctl h; return h; }
void set_fake_ioctl(FakeIoctl h) { handler() = std::move(h); }

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* record = va_arg(args, void*);
    va_end(args);
    static auto* real = reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
    return handler() ? handler()(descriptor, request, record) : real(descriptor, request, record);
}
