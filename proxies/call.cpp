#include "proxies/call.h"

#include <stdexcept>

namespace hmisvc::proxy {

// One insertion, so lines from threads failing at once stay whole; the bytes
// are those of "<< label << std::endl".
void report_failure(const char *label) {
    std::cout << (std::string("Fail binder call ") + label + '\n') << std::flush;
}

void throw_null_string() { throw std::logic_error("basic_string::_M_construct null not valid"); }

namespace {
constexpr uint32_t kNullItem = 0xFFFFFFFFu;
}

std::string take_block(binder_io *reply) {
    uint32_t len = 0;
    const void *p = bio_get_mem(reply, &len);
    if (len == kNullItem)
        return {};
    if (p == nullptr)
        throw_null_string();
    return std::string(static_cast<const char *>(p), len);
}

std::string take_string(binder_io *reply) {
    uint32_t len = 0;
    const char *s = bio_get_string(reply, &len);
    if (s == nullptr || len == kNullItem)
        throw_null_string();
    return std::string(s);
}

} // namespace hmisvc::proxy
