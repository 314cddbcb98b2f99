#include "fake_ioctl.h"

#include <dlfcn.h>
#include <sys/ioctl.h>

#include <cstdarg>

namespace {
FakeIoctl& handler() {
    static FakeIoctl h;
    return h;
}
}  // namespace

void set_fake_ioctl(FakeIoctl h) { handler() = std::move(h); }

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* record = va_arg(args, void*);
    va_end(args);
    if (handler()) return handler()(descriptor, request, record);
    using Real = int (*)(int, unsigned long, ...);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "ioctl"));
    return real(descriptor, request, record);
}
