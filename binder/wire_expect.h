/*
 * The driver interface's numbers in both protocol widths: (name, 32-bit,
 * 64-bit). Checked against our header in every build and against the
 * kernel's uapi header where that describes the same width (64-bit).
 * Deliberately includes nothing: each checking file brings its own header.
 */
#ifndef HMISVC_BINDER_WIRE_EXPECT_H
#define HMISVC_BINDER_WIRE_EXPECT_H

#define HMISVC_WIRE_VALUES(X)                                   \
    X(BINDER_WRITE_READ, 0xc0186201u, 0xc0306201u)              \
    X(BINDER_SET_CONTEXT_MGR, 0x40046207u, 0x40046207u)         \
    X(BINDER_VERSION, 0xc0046209u, 0xc0046209u)                 \
    X(BC_TRANSACTION, 0x40286300u, 0x40406300u)                 \
    X(BC_REPLY, 0x40286301u, 0x40406301u)                       \
    X(BC_FREE_BUFFER, 0x40046303u, 0x40086303u)                 \
    X(BC_ACQUIRE, 0x40046305u, 0x40046305u)                     \
    X(BC_RELEASE, 0x40046306u, 0x40046306u)                     \
    X(BC_ENTER_LOOPER, 0x630cu, 0x630cu)                        \
    X(BC_REQUEST_DEATH_NOTIFICATION, 0x4008630eu, 0x400c630eu)  \
    X(BR_NOOP, 0x720cu, 0x720cu)                                \
    X(BR_TRANSACTION_COMPLETE, 0x7206u, 0x7206u)                \
    X(BR_INCREFS, 0x80087207u, 0x80107207u)                     \
    X(BR_ACQUIRE, 0x80087208u, 0x80107208u)                     \
    X(BR_RELEASE, 0x80087209u, 0x80107209u)                     \
    X(BR_DECREFS, 0x8008720au, 0x8010720au)                     \
    X(BR_TRANSACTION, 0x80287202u, 0x80407202u)                 \
    X(BR_REPLY, 0x80287203u, 0x80407203u)                       \
    X(BR_DEAD_BINDER, 0x8004720fu, 0x8008720fu)                 \
    X(BR_FAILED_REPLY, 0x7211u, 0x7211u)                        \
    X(BR_DEAD_REPLY, 0x7205u, 0x7205u)                          \
    X(BINDER_TYPE_BINDER, 0x73622a85u, 0x73622a85u)             \
    X(BINDER_TYPE_HANDLE, 0x73682a85u, 0x73682a85u)             \
    X(FLAT_BINDER_FLAG_ACCEPTS_FDS, 0x100u, 0x100u)             \
    X(TF_STATUS_CODE, 0x08u, 0x08u)

/* (struct, 32-bit size, 64-bit size) */
#define HMISVC_WIRE_SIZES(X)                        \
    X(binder_write_read, 24, 48)                    \
    X(binder_transaction_data, 40, 64)              \
    X(binder_ptr_cookie, 8, 16)                     \
    X(flat_binder_object, 16, 24)

/* (struct, member, 32-bit offset, 64-bit offset) */
#define HMISVC_WIRE_OFFSETS(X)                                   \
    X(binder_write_read, write_size, 0, 0)                       \
    X(binder_write_read, write_consumed, 4, 8)                   \
    X(binder_write_read, write_buffer, 8, 16)                    \
    X(binder_write_read, read_size, 12, 24)                      \
    X(binder_write_read, read_consumed, 16, 32)                  \
    X(binder_write_read, read_buffer, 20, 40)                    \
    X(binder_transaction_data, target.handle, 0, 0)              \
    X(binder_transaction_data, cookie, 4, 8)                     \
    X(binder_transaction_data, code, 8, 16)                      \
    X(binder_transaction_data, flags, 12, 20)                    \
    X(binder_transaction_data, sender_pid, 16, 24)               \
    X(binder_transaction_data, sender_euid, 20, 28)              \
    X(binder_transaction_data, data_size, 24, 32)                \
    X(binder_transaction_data, offsets_size, 28, 40)             \
    X(binder_transaction_data, data.ptr.buffer, 32, 48)          \
    X(binder_transaction_data, data.ptr.offsets, 36, 56)         \
    X(binder_ptr_cookie, cookie, 4, 8)                           \
    X(flat_binder_object, flags, 4, 4)                           \
    X(flat_binder_object, handle, 8, 8)                          \
    X(flat_binder_object, cookie, 12, 16)

#endif
