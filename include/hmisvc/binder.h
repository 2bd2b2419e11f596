/**
 * @file
 * The binder layer: transaction buffer, driver connection and the
 * service-manager requests. Plain C functions; failures are reported through
 * return values, the buffer's flags and fixed lines on stderr. Nothing here
 * locks or allocates after binder_open().
 *
 * The protocol width is fixed at build time (HMISVC_BINDER_IPC_32BIT): the
 * device speaks the 32-bit protocol, every current kernel the 64-bit one.
 * Everything below is written once over binder_uintptr_t / binder_size_t.
 * Applications rarely need this header: the proxies of proxies.h use it.
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
typedef uint32_t binder_uintptr_t; /**< A pointer as the driver carries it (32 bits on the device). */
typedef uint32_t binder_size_t;    /**< A size as the driver carries it (32 bits on the device). */
#else
typedef uint64_t binder_uintptr_t; /**< A pointer as the driver carries it (64-bit protocol). */
typedef uint64_t binder_size_t;    /**< A size as the driver carries it (64-bit protocol). */
#endif

/* ---- Wire structures of the driver interface ---- */

/** Argument of the BINDER_WRITE_READ ioctl: commands to write, room to read returns. */
struct binder_write_read {
    binder_size_t write_size;      /**< bytes of commands at write_buffer */
    binder_size_t write_consumed;  /**< bytes the driver has taken */
    binder_uintptr_t write_buffer; /**< address of the commands */
    binder_size_t read_size;       /**< bytes of room at read_buffer */
    binder_size_t read_consumed;   /**< bytes the driver has filled */
    binder_uintptr_t read_buffer;  /**< address of the room for returns */
};

/** One transaction or reply as the driver passes it (40 bytes on the device). */
struct binder_transaction_data {
    /** Whom the transaction is for. */
    union {
        uint32_t handle;      /**< sent: the target's handle */
        binder_uintptr_t ptr; /**< received: the pointer of the local object it names */
    } target;
    binder_uintptr_t cookie; /**< received: the object's cookie (0 for the library's objects) */
    uint32_t code;           /**< the method code */
    uint32_t flags;          /**< TF_ONE_WAY, TF_STATUS_CODE */
    int32_t sender_pid;      /**< received: the sending process */
    uint32_t sender_euid;    /**< received: the sender's effective user id */
    binder_size_t data_size;    /**< bytes of payload */
    binder_size_t offsets_size; /**< bytes of object offsets */
    /** Where payload and offsets lie. */
    union {
        /** Their addresses. */
        struct {
            binder_uintptr_t buffer;  /**< the payload */
            binder_uintptr_t offsets; /**< the offsets of the objects in it */
        } ptr;
        uint8_t buf[8]; /**< a payload of up to 8 bytes inline (not used by the library) */
    } data;
};

/** Payload of the reference-count returns (BR_INCREFS and the like). */
struct binder_ptr_cookie {
    binder_uintptr_t ptr;    /**< the local object's pointer */
    binder_uintptr_t cookie; /**< its cookie */
};

/** A binder object inside a payload: a local object or a reference (16 bytes on the device). */
struct flat_binder_object {
    uint32_t type;  /**< BINDER_TYPE_BINDER or BINDER_TYPE_HANDLE */
    uint32_t flags; /**< always written 0x17f: priority 0x7f and FLAT_BINDER_FLAG_ACCEPTS_FDS */
    union {
        binder_uintptr_t binder; /**< BINDER_TYPE_BINDER: the object's pointer */
        uint32_t handle;         /**< BINDER_TYPE_HANDLE: the reference's handle */
    };
    binder_uintptr_t cookie; /**< always written 0 */
};

/** Object type: a local object (bio_put_obj()). */
#define BINDER_TYPE_BINDER 0x73622a85u
/** Object type: a reference by handle (bio_put_ref(), bio_get_ref()). */
#define BINDER_TYPE_HANDLE 0x73682a85u
/** Bits of flat_binder_object::flags holding the minimum priority. */
#define FLAT_BINDER_FLAG_PRIORITY_MASK 0xffu
/** flat_binder_object::flags bit: the object accepts file descriptors. */
#define FLAT_BINDER_FLAG_ACCEPTS_FDS 0x100u
/** Transaction flag: no reply expected. Served like any other: every transaction gets a reply. */
#define TF_ONE_WAY 0x01u
/** Reply flag: the reply holds only a 32-bit status (a handler returned non-zero). */
#define TF_STATUS_CODE 0x08u

/** ioctl: write commands and read returns (0xc0186201 on the device). */
#define BINDER_WRITE_READ _IOWR('b', 1, struct binder_write_read)
/** ioctl: become the service manager (0x40046207 on the device). */
#define BINDER_SET_CONTEXT_MGR _IOW('b', 7, int32_t)
/** ioctl: the driver's protocol version (never queried by the library). */
#define BINDER_VERSION _IOWR('b', 9, int32_t)

/* Commands written to the driver. */
/** Command: send a transaction; a binder_transaction_data follows. */
#define BC_TRANSACTION _IOW('c', 0, struct binder_transaction_data)
/** Command: send a reply; a binder_transaction_data follows. */
#define BC_REPLY _IOW('c', 1, struct binder_transaction_data)
/** Command: give a received buffer back; its address follows. */
#define BC_FREE_BUFFER _IOW('c', 3, binder_uintptr_t)
/** Command: take a strong reference; the handle follows. */
#define BC_ACQUIRE _IOW('c', 5, uint32_t)
/** Command: drop a strong reference; the handle follows. */
#define BC_RELEASE _IOW('c', 6, uint32_t)
/** Command: this thread now serves transactions. */
#define BC_ENTER_LOOPER _IO('c', 12)
/* payload: handle (u32) then cookie (binder_uintptr_t), packed */
/** Command: report the death of a handle; the handle and a binder_death_record address follow. */
#define BC_REQUEST_DEATH_NOTIFICATION \
    _IOW('c', 14, char[sizeof(uint32_t) + sizeof(binder_uintptr_t)])

/* Returns read from the driver. */
/** Return: an incoming transaction; a binder_transaction_data follows. */
#define BR_TRANSACTION _IOR('r', 2, struct binder_transaction_data)
/** Return: the reply to the thread's transaction; a binder_transaction_data follows. */
#define BR_REPLY _IOR('r', 3, struct binder_transaction_data)
/** Return: the target is dead; the call fails. */
#define BR_DEAD_REPLY _IO('r', 5)
/** Return: the driver took the transaction or reply. */
#define BR_TRANSACTION_COMPLETE _IO('r', 6)
/** Return: take a weak reference on a local object (skipped by the library). */
#define BR_INCREFS _IOR('r', 7, struct binder_ptr_cookie)
/** Return: take a strong reference on a local object (skipped). */
#define BR_ACQUIRE _IOR('r', 8, struct binder_ptr_cookie)
/** Return: drop a strong reference on a local object (skipped). */
#define BR_RELEASE _IOR('r', 9, struct binder_ptr_cookie)
/** Return: drop a weak reference on a local object (skipped). */
#define BR_DECREFS _IOR('r', 10, struct binder_ptr_cookie)
/** Return: nothing. */
#define BR_NOOP _IO('r', 12)
/** Return: a watched handle died; the binder_death_record address follows. */
#define BR_DEAD_BINDER _IOR('r', 15, binder_uintptr_t)
/** Return: the transaction failed; the call fails. */
#define BR_FAILED_REPLY _IO('r', 17)

/* ---- Transaction buffer ---- */

/** binder_io::flags: the areas lie in the driver's mapping; give them back
 * with binder_done() (or the reply). */
#define BIO_FLAG_DRIVER_BUFFER 1u
/** binder_io::flags: a put did not fit or a get read past the end. Sticky
 * until bio_init(); binder_call() refuses such a request. */
#define BIO_FLAG_OVERFLOW 2u
/** binder_io::flags: set by binder_call() on the reply of a failed call. */
#define BIO_FLAG_IO_ERROR 4u

/**
 * The transaction buffer: a cursor over a data area and an offsets area (one
 * binder_size_t entry per object in the data). Every item is 4-byte aligned
 * and padded to a multiple of 4; strings and blocks carry a 32-bit length
 * before them, and 0xFFFFFFFF stands for a null string or block. Puts that
 * do not fit and gets past the end set BIO_FLAG_OVERFLOW instead of failing.
 * One binder_io belongs to one call on one thread; keep it on the stack.
 */
struct binder_io {
    char *cursor;                  /**< next byte to write or read */
    binder_size_t *offsets_cursor; /**< next offsets entry */
    uint32_t data_left;            /**< bytes left in the data area */
    uint32_t offsets_left;         /**< entries left in the offsets area */
    char *data_start;              /**< start of the data area */
    binder_size_t *offsets_start;  /**< start of the offsets area */
    uint32_t flags;                /**< BIO_FLAG_DRIVER_BUFFER, BIO_FLAG_OVERFLOW, BIO_FLAG_IO_ERROR */
    uint32_t reserved;             /**< not used */
};

/** Sets @p bio up over @p area: its first @p max_offsets entries become the
 * offsets area, the rest the data area. Offsets that do not fit set
 * BIO_FLAG_OVERFLOW and leave no room. The library always passes 4. */
HMISVC_API void bio_init(struct binder_io *bio, void *area, uint32_t area_size,
                         uint32_t max_offsets);
/** Sets @p bio up to read a received transaction or reply; marks it
 * BIO_FLAG_DRIVER_BUFFER. */
HMISVC_API void bio_init_from_txn(struct binder_io *bio,
                                  struct binder_transaction_data *txn);

/** Puts one 32-bit word. */
HMISVC_API void bio_put_uint32(struct binder_io *bio, uint32_t n);
/** Puts a local object (BINDER_TYPE_BINDER, flags 0x17f, cookie 0) whose
 * pointer is @p ptr, and records its offset. */
HMISVC_API void bio_put_obj(struct binder_io *bio, void *ptr);
/** Puts a reference to @p handle; handle 0 takes 16 plain bytes and no offset
 * entry (a null reference is no object for the driver). */
HMISVC_API void bio_put_ref(struct binder_io *bio, uint32_t handle);
/** Puts a 0-terminated 16-bit string: length in units, the units, a 0 unit.
 * Null (or 2^29 units and more) puts the null marker 0xFFFFFFFF. */
HMISVC_API void bio_put_string16(struct binder_io *bio, const uint16_t *s);
/** Puts the 8-bit C string @p s as a 16-bit string, each byte widened to one
 * unit (no UTF-8 decoding). How service names travel. Null: the null marker. */
HMISVC_API void bio_put_string16_x(struct binder_io *bio, const char *s);
/** Puts an 8-bit C string: length without the terminator, the bytes, a NUL.
 * Null (or 2^30 bytes and more) puts the null marker. */
HMISVC_API void bio_put_string(struct binder_io *bio, const char *s);
/** Puts a block: @p len, then @p len bytes of @p p. Null @p p (or 2^30 bytes
 * and more) puts the null marker. */
HMISVC_API void bio_put_mem(struct binder_io *bio, const void *p, uint32_t len);

/** Takes one 32-bit word; 0 when the data is exhausted. */
HMISVC_API uint32_t bio_get_uint32(struct binder_io *bio);
/** Takes a 16-bit string; its length in units goes to @p len (if not null).
 * Null when the data is exhausted. For a null item @p len is 0xFFFFFFFF and
 * the pointer is not null: test the length first. */
HMISVC_API const uint16_t *bio_get_string16(struct binder_io *bio, uint32_t *len);
/** Takes an 8-bit string; its length goes to @p len (if not null). Null when
 * the data is exhausted; for a null item @p len is 0xFFFFFFFF and the pointer
 * is not null: test the length first. Points into the buffer. */
HMISVC_API const char *bio_get_string(struct binder_io *bio, uint32_t *len);
/** Takes a block; its length goes to @p len (if not null). Null when the data
 * is exhausted; for a null item @p len is 0xFFFFFFFF and the pointer is not
 * null: test the length first. Points into the buffer. */
HMISVC_API const void *bio_get_mem(struct binder_io *bio, uint32_t *len);
/** Takes an object and returns its handle if it is a reference, else 0. An
 * object not listed in the offsets gives 0 and sets BIO_FLAG_OVERFLOW. */
HMISVC_API uint32_t bio_get_ref(struct binder_io *bio);

/* ---- Driver connection ---- */

/** One open "/dev/binder" with its read-only mapping. Returned by
 * binder_open(), owned by the caller, freed by binder_close(). Each proxy and
 * each broadcast endpoint owns one. */
struct binder_connection {
    int fd;                /**< the device's descriptor */
    void *mapping;         /**< where replies and incoming transactions arrive */
    uint32_t mapping_size; /**< its size in bytes: bounds what can be received at once */
};

/** What to call when a watched handle dies (binder_link_to_death()). Owned by
 * the caller. */
struct binder_death_record {
    void (*on_death)(struct binder_connection *bs, void *user); /**< the callback */
    void *user; /**< passed back to it */
};

/** Serves one incoming transaction: read @p msg, write the answer into
 * @p reply, return 0 to send it or a status to send instead. @p txn and
 * @p msg are valid only until the handler returns. */
typedef int (*binder_txn_handler)(struct binder_connection *bs,
                                  struct binder_transaction_data *txn,
                                  struct binder_io *msg, struct binder_io *reply);
/** binder_txn_handler with the user pointer given to binder_loop2() as fifth argument. */
typedef int (*binder_txn_handler2)(struct binder_connection *bs,
                                   struct binder_transaction_data *txn,
                                   struct binder_io *msg, struct binder_io *reply,
                                   void *arg);

/** Opens "/dev/binder" and maps @p mapsize bytes of it read-only: the room in
 * which every reply and incoming transaction of this connection arrives.
 * Null on failure, after "binder: cannot open device (<reason>)" or
 * "binder: cannot map device (<reason>)" on stderr. Free with binder_close(). */
HMISVC_API struct binder_connection *binder_open(uint32_t mapsize);
/** Unmaps, closes and frees the connection; closing ends every reference it
 * holds in the driver. */
HMISVC_API void binder_close(struct binder_connection *bs);
/** Makes this connection the service manager (handle 0); the ioctl's result.
 * For service managers; the library never calls it. */
HMISVC_API int binder_become_context_manager(struct binder_connection *bs);
/** Writes @p len bytes of commands to the driver; the ioctl's result. On
 * failure "binder_write: ioctl failed (<reason>)" on stderr. */
HMISVC_API int binder_write(struct binder_connection *bs, const void *data, uint32_t len);
/**
 * One synchronous transaction with @p code to @p target, waiting for the reply
 * with no time limit. 0 with @p reply set up over the reply (give it back
 * with binder_done()); -1 on failure, with @p reply zeroed and marked
 * BIO_FLAG_IO_ERROR. A @p msg marked BIO_FLAG_OVERFLOW is not sent:
 * "binder: txn buffer overflow" on stderr and -1. A reply holding only a
 * status (TF_STATUS_CODE) counts as success; the status is its first word.
 * Uses a 40960-byte area on the caller's stack: the thread needs more than
 * 40 KB of stack. Any number of threads may call on one connection.
 */
HMISVC_API int binder_call(struct binder_connection *bs, struct binder_io *msg,
                           struct binder_io *reply, uint32_t target, uint32_t code);
/** Gives the reply buffer of a successful binder_call() back to the driver;
 * nothing for a buffer that is not the driver's. @p msg is not used. */
HMISVC_API void binder_done(struct binder_connection *bs, struct binder_io *msg,
                            struct binder_io *reply);
/** Gives @p buffer_to_free back and replies: with what the handler wrote into
 * @p reply when @p status is 0, otherwise with @p status alone (TF_STATUS_CODE). */
HMISVC_API void binder_send_reply(struct binder_connection *bs, struct binder_io *reply,
                                  binder_uintptr_t buffer_to_free, int status);
/** Takes a strong reference on @p handle. */
HMISVC_API void binder_acquire(struct binder_connection *bs, uint32_t handle);
/** Drops a strong reference on @p handle. */
HMISVC_API void binder_release(struct binder_connection *bs, uint32_t handle);
/** Asks to be told when @p handle dies: @p death's callback runs inside a
 * loop or call of this connection. @p death must outlive the notification. */
HMISVC_API void binder_link_to_death(struct binder_connection *bs, uint32_t handle,
                                     struct binder_death_record *death);
/** Walks @p size bytes of returns read from the driver. A reply is set up in
 * @p bio (if not null); each incoming transaction is served by @p func (if
 * given) with a 40960-byte reply area, and replied to. 1: nothing final seen;
 * 0: a reply was taken; -1: a failed or dead reply, or an unknown return
 * ("svcmgr: parse: OOPS <n>" on stderr). */
HMISVC_API int binder_parse(struct binder_connection *bs, struct binder_io *bio,
                            const uint32_t *ptr, uint32_t size, binder_txn_handler func);
/** binder_parse() for a binder_txn_handler2, which also gets @p arg; the reply
 * area is 256 bytes. */
HMISVC_API int binder_parse2(struct binder_connection *bs, struct binder_io *bio,
                             const uint32_t *ptr, uint32_t size, binder_txn_handler2 func,
                             void *arg);
/** Serves incoming transactions on this thread with @p func until an error,
 * which it prints ("svcmgr: binder_loop: ..." on stderr) before returning. */
HMISVC_API void binder_loop(struct binder_connection *bs, binder_txn_handler func);
/** binder_loop() for a binder_txn_handler2, which also gets @p arg. The
 * broadcast endpoints run on it. */
HMISVC_API void binder_loop2(struct binder_connection *bs, binder_txn_handler2 func,
                             void *arg);
/** The name of a driver return ("BR_REPLY", ...), or "???"; for tracing. */
HMISVC_API const char *cmd_name(uint32_t cmd);

/* ---- Service-manager requests ---- */

/** Handle of the service manager (the context manager): always 0. */
#define SVCMGR_HANDLE 0u
/** Service-manager code: look a name up. */
#define SVCMGR_CODE_LOOKUP 2u
/** Service-manager code: publish an object under a name. */
#define SVCMGR_CODE_PUBLISH 3u

/** Looks @p name up in the service manager at @p target (always SVCMGR_HANDLE).
 * The service's handle, on which a strong reference is taken for the
 * connection's lifetime; 0 when the name is unknown or the call failed.
 * @p bs must not be null. */
HMISVC_API uint32_t svcmgr_lookup(struct binder_connection *bs, uint32_t target,
                                  const char *name);
/** Publishes a local object whose pointer is @p ptr under @p name. The
 * service manager's status word (0: done); -1 when @p bs is null or the call
 * failed. Incoming transactions for it name @p ptr as their target. */
HMISVC_API int svcmgr_publish(struct binder_connection *bs, uint32_t target,
                              const char *name, void *ptr);

#ifdef __cplusplus
}
#endif

#endif
