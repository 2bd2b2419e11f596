// Our wire structures and command numbers, checked at compile time against
// the driver's numbers for the width this build speaks.

#include "binder/wire_expect.h"

#include <hmisvc/binder.h>

#include <cstddef>

namespace {

#if HMISVC_BINDER_IPC_32BIT
#define HMISVC_PICK(v32, v64) (v32)
#else
#define HMISVC_PICK(v32, v64) (v64)
#endif

#define HMISVC_CHECK_VALUE(name, v32, v64) \
    static_assert((name) == HMISVC_PICK(v32, v64), #name);
#define HMISVC_CHECK_SIZE(type, s32, s64) \
    static_assert(sizeof(struct type) == HMISVC_PICK(s32, s64), "sizeof " #type);
#define HMISVC_CHECK_OFFSET(type, member, o32, o64) \
    static_assert(offsetof(struct type, member) == HMISVC_PICK(o32, o64), #type "." #member);

HMISVC_WIRE_VALUES(HMISVC_CHECK_VALUE)
HMISVC_WIRE_SIZES(HMISVC_CHECK_SIZE)
HMISVC_WIRE_OFFSETS(HMISVC_CHECK_OFFSET)

// Ours alone: the object's type word and the buffer (eight words).
static_assert(offsetof(flat_binder_object, type) == 0, "flat_binder_object.type");
static_assert(sizeof(binder_io) == 4 * sizeof(void *) + 4 * sizeof(uint32_t), "sizeof binder_io");
#if HMISVC_BINDER_IPC_32BIT
static_assert(sizeof(binder_io) == 32, "sizeof binder_io");
#endif

} // namespace
