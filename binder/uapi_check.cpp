// The kernel's own description of the 64-bit protocol, checked against the
// same expectations as our header (built only when we speak that width).
// Kept apart from our header: both declare the same names.

#include "binder/wire_expect.h"

#include <linux/android/binder.h>

#include <cstddef>

namespace {

#define HMISVC_CHECK_VALUE(name, v32, v64) static_assert((name) == (v64), #name);
#define HMISVC_CHECK_SIZE(type, s32, s64) \
    static_assert(sizeof(struct type) == (s64), "sizeof " #type);
#define HMISVC_CHECK_OFFSET(type, member, o32, o64) \
    static_assert(offsetof(struct type, member) == (o64), #type "." #member);

HMISVC_WIRE_VALUES(HMISVC_CHECK_VALUE)
HMISVC_WIRE_SIZES(HMISVC_CHECK_SIZE)
HMISVC_WIRE_OFFSETS(HMISVC_CHECK_OFFSET)

} // namespace
