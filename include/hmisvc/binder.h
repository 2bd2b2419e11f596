/*
 * The binder layer: transaction buffer, driver connection and the
 * service-manager requests. Plain C functions; failures are reported through
 * return values, the buffer's flags and fixed lines on stderr.
 *
 * The protocol width is fixed at build time (HMISVC_BINDER_IPC_32BIT): the
 * device speaks the 32-bit protocol, every current kernel the 64-bit one.
 * Everything below is written once over binder_uintptr_t / binder_size_t.
 */
#ifndef HMISVC_BINDER_H
#define HMISVC_BINDER_H

#include <stddef.h>
#include <stdint.h>
#include <sys/ioctl.h>

#include <hmisvc/config.h>
#include <hmisvc/export.h>

#ifdef __cplusplus
extern "C" {
#endif

#if HMISVC_BINDER_IPC_32BIT
typedef uint32_t binder_uintptr_t;
typedef uint32_t binder_size_t;
#else
typedef uint64_t binder_uintptr_t;
typedef uint64_t binder_size_t;
#endif

/* ---- Wire structures of the driver interface ---- */

struct binder_write_read {
    binder_size_t write_size;
    binder_size_t write_consumed;
    binder_uintptr_t write_buffer;
    binder_size_t read_size;
    binder_size_t read_consumed;
    binder_uintptr_t read_buffer;
};

struct binder_transaction_data {
    union {
        uint32_t handle;
        binder_uintptr_t ptr;
    } target;
    binder_uintptr_t cookie;
    uint32_t code;
    uint32_t flags;
    int32_t sender_pid;
    uint32_t sender_euid;
    binder_size_t data_size;
    binder_size_t offsets_size;
    union {
        struct {
            binder_uintptr_t buffer;
            binder_uintptr_t offsets;
        } ptr;
        uint8_t buf[8];
    } data;
};

struct binder_ptr_cookie {
    binder_uintptr_t ptr;
    binder_uintptr_t cookie;
};

struct flat_binder_object {
    uint32_t type;
    uint32_t flags;
    union {
        binder_uintptr_t binder;
        uint32_t handle;
    };
    binder_uintptr_t cookie;
};

#define BINDER_TYPE_BINDER 0x73622a85u
#define BINDER_TYPE_HANDLE 0x73682a85u
#define FLAT_BINDER_FLAG_PRIORITY_MASK 0xffu
#define FLAT_BINDER_FLAG_ACCEPTS_FDS 0x100u
#define TF_ONE_WAY 0x01u
#define TF_STATUS_CODE 0x08u

#define BINDER_WRITE_READ _IOWR('b', 1, struct binder_write_read)
#define BINDER_SET_CONTEXT_MGR _IOW('b', 7, int32_t)
#define BINDER_VERSION _IOWR('b', 9, int32_t)

/* Commands written to the driver. */
#define BC_TRANSACTION _IOW('c', 0, struct binder_transaction_data)
#define BC_REPLY _IOW('c', 1, struct binder_transaction_data)
#define BC_FREE_BUFFER _IOW('c', 3, binder_uintptr_t)
#define BC_ACQUIRE _IOW('c', 5, uint32_t)
#define BC_RELEASE _IOW('c', 6, uint32_t)
#define BC_ENTER_LOOPER _IO('c', 12)
/* payload: handle (u32) then cookie (binder_uintptr_t), packed */
#define BC_REQUEST_DEATH_NOTIFICATION \
    _IOW('c', 14, char[sizeof(uint32_t) + sizeof(binder_uintptr_t)])

/* Returns read from the driver. */
#define BR_TRANSACTION _IOR('r', 2, struct binder_transaction_data)
#define BR_REPLY _IOR('r', 3, struct binder_transaction_data)
#define BR_DEAD_REPLY _IO('r', 5)
#define BR_TRANSACTION_COMPLETE _IO('r', 6)
#define BR_INCREFS _IOR('r', 7, struct binder_ptr_cookie)
#define BR_ACQUIRE _IOR('r', 8, struct binder_ptr_cookie)
#define BR_RELEASE _IOR('r', 9, struct binder_ptr_cookie)
#define BR_DECREFS _IOR('r', 10, struct binder_ptr_cookie)
#define BR_NOOP _IO('r', 12)
#define BR_DEAD_BINDER _IOR('r', 15, binder_uintptr_t)
#define BR_FAILED_REPLY _IO('r', 17)

/* ---- Transaction buffer ---- */

#define BIO_FLAG_DRIVER_BUFFER 1u
#define BIO_FLAG_OVERFLOW 2u
#define BIO_FLAG_IO_ERROR 4u

/* A cursor over a data area and an offsets area (one binder_size_t entry per
 * object in the data). Every item is 4-byte aligned. */
struct binder_io {
    char *cursor;
    binder_size_t *offsets_cursor;
    uint32_t data_left;
    uint32_t offsets_left;
    char *data_start;
    binder_size_t *offsets_start;
    uint32_t flags;
    uint32_t reserved;
};

HMISVC_API void bio_init(struct binder_io *bio, void *area, uint32_t area_size,
                         uint32_t max_offsets);
HMISVC_API void bio_init_from_txn(struct binder_io *bio,
                                  struct binder_transaction_data *txn);

HMISVC_API void bio_put_uint32(struct binder_io *bio, uint32_t n);
HMISVC_API void bio_put_obj(struct binder_io *bio, void *ptr);
HMISVC_API void bio_put_ref(struct binder_io *bio, uint32_t handle);
HMISVC_API void bio_put_string16(struct binder_io *bio, const uint16_t *s);
HMISVC_API void bio_put_string16_x(struct binder_io *bio, const char *s);
HMISVC_API void bio_put_string(struct binder_io *bio, const char *s);
HMISVC_API void bio_put_mem(struct binder_io *bio, const void *p, uint32_t len);

HMISVC_API uint32_t bio_get_uint32(struct binder_io *bio);
HMISVC_API const uint16_t *bio_get_string16(struct binder_io *bio, uint32_t *len);
HMISVC_API const char *bio_get_string(struct binder_io *bio, uint32_t *len);
HMISVC_API const void *bio_get_mem(struct binder_io *bio, uint32_t *len);
HMISVC_API uint32_t bio_get_ref(struct binder_io *bio);

/* ---- Driver connection ---- */

struct binder_connection {
    int fd;
    void *mapping;
    uint32_t mapping_size;
};

struct binder_death_record {
    void (*on_death)(struct binder_connection *bs, void *user);
    void *user;
};

typedef int (*binder_txn_handler)(struct binder_connection *bs,
                                  struct binder_transaction_data *txn,
                                  struct binder_io *msg, struct binder_io *reply);
typedef int (*binder_txn_handler2)(struct binder_connection *bs,
                                   struct binder_transaction_data *txn,
                                   struct binder_io *msg, struct binder_io *reply,
                                   void *arg);

HMISVC_API struct binder_connection *binder_open(uint32_t mapsize);
HMISVC_API void binder_close(struct binder_connection *bs);
HMISVC_API int binder_become_context_manager(struct binder_connection *bs);
HMISVC_API int binder_write(struct binder_connection *bs, const void *data, uint32_t len);
HMISVC_API int binder_call(struct binder_connection *bs, struct binder_io *msg,
                           struct binder_io *reply, uint32_t target, uint32_t code);
HMISVC_API void binder_done(struct binder_connection *bs, struct binder_io *msg,
                            struct binder_io *reply);
HMISVC_API void binder_send_reply(struct binder_connection *bs, struct binder_io *reply,
                                  binder_uintptr_t buffer_to_free, int status);
HMISVC_API void binder_acquire(struct binder_connection *bs, uint32_t handle);
HMISVC_API void binder_release(struct binder_connection *bs, uint32_t handle);
HMISVC_API void binder_link_to_death(struct binder_connection *bs, uint32_t handle,
                                     struct binder_death_record *death);
HMISVC_API int binder_parse(struct binder_connection *bs, struct binder_io *bio,
                            const uint32_t *ptr, uint32_t size, binder_txn_handler func);
HMISVC_API int binder_parse2(struct binder_connection *bs, struct binder_io *bio,
                             const uint32_t *ptr, uint32_t size, binder_txn_handler2 func,
                             void *arg);
HMISVC_API void binder_loop(struct binder_connection *bs, binder_txn_handler func);
HMISVC_API void binder_loop2(struct binder_connection *bs, binder_txn_handler2 func,
                             void *arg);
HMISVC_API const char *cmd_name(uint32_t cmd);

/* ---- Service-manager requests ---- */

#define SVCMGR_HANDLE 0u
#define SVCMGR_CODE_LOOKUP 2u
#define SVCMGR_CODE_PUBLISH 3u

HMISVC_API uint32_t svcmgr_lookup(struct binder_connection *bs, uint32_t target,
                                  const char *name);
HMISVC_API int svcmgr_publish(struct binder_connection *bs, uint32_t target,
                              const char *name, void *ptr);

#ifdef __cplusplus
}
#endif

#endif
