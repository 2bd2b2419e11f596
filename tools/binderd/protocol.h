// The driver protocol for one width, written once: P is the type of a
// pointer or size on the wire (uint32_t for the device's 32-bit protocol,
// uint64_t for the 64-bit one). Command and return values follow from the
// _IO* encoding of each payload's size, as the kernel's header derives them.
#ifndef HMISVC_BINDERD_PROTOCOL_H
#define HMISVC_BINDERD_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace binderd {

constexpr uint32_t ioc(uint32_t dir, char type, uint32_t nr, size_t size)
{
    return (dir << 30) | (static_cast<uint32_t>(size) << 16) |
           (static_cast<uint32_t>(type) << 8) | nr;
}
constexpr uint32_t io(char t, uint32_t nr) { return ioc(0, t, nr, 0); }
constexpr uint32_t iow(char t, uint32_t nr, size_t s) { return ioc(1, t, nr, s); }
constexpr uint32_t ior(char t, uint32_t nr, size_t s) { return ioc(2, t, nr, s); }
constexpr uint32_t iowr(char t, uint32_t nr, size_t s) { return ioc(3, t, nr, s); }
constexpr size_t ioc_size(uint32_t cmd) { return (cmd >> 16) & 0x3fff; }

constexpr uint32_t pack_type(char a, char b, char c) { return (a << 24) | (b << 16) | (c << 8) | 0x85; }
constexpr uint32_t kTypeBinder = pack_type('s', 'b', '*');
constexpr uint32_t kTypeWeakBinder = pack_type('w', 'b', '*');
constexpr uint32_t kTypeHandle = pack_type('s', 'h', '*');
constexpr uint32_t kTypeWeakHandle = pack_type('w', 'h', '*');

constexpr uint32_t kOneWay = 0x01;

template <typename T>
T load(const unsigned char *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <typename T>
void store(unsigned char *p, const T &v)
{
    std::memcpy(p, &v, sizeof v);
}

template <typename P>
struct Protocol {
    using Ptr = P;
    struct WriteRead {
        P write_size, write_consumed, write_buffer, read_size, read_consumed, read_buffer;
    };
    struct TxnData {
        P target; // handle (u32) when sent, the node's pointer when received
        P cookie;
        uint32_t code, flags;
        int32_t sender_pid;
        uint32_t sender_euid;
        P data_size, offsets_size, buffer, offsets;
    };
    struct PtrCookie {
        P ptr, cookie;
    };
    struct FlatObject {
        uint32_t type, flags;
        P binder; // or the handle in its first 4 bytes
        P cookie;
    };
    static constexpr size_t kHandleCookie = sizeof(uint32_t) + sizeof(P); // packed

    static constexpr uint32_t kVersion = sizeof(P) == 4 ? 7 : 8;

    static constexpr uint32_t WRITE_READ = iowr('b', 1, sizeof(WriteRead));
    static constexpr uint32_t SET_MAX_THREADS = iow('b', 5, 4);
    static constexpr uint32_t SET_CONTEXT_MGR = iow('b', 7, 4);
    static constexpr uint32_t THREAD_EXIT = iow('b', 8, 4);
    static constexpr uint32_t VERSION = iowr('b', 9, 4);

    static constexpr uint32_t BC_TRANSACTION = iow('c', 0, sizeof(TxnData));
    static constexpr uint32_t BC_REPLY = iow('c', 1, sizeof(TxnData));
    static constexpr uint32_t BC_FREE_BUFFER = iow('c', 3, sizeof(P));
    static constexpr uint32_t BC_INCREFS = iow('c', 4, 4);
    static constexpr uint32_t BC_ACQUIRE = iow('c', 5, 4);
    static constexpr uint32_t BC_RELEASE = iow('c', 6, 4);
    static constexpr uint32_t BC_DECREFS = iow('c', 7, 4);
    static constexpr uint32_t BC_INCREFS_DONE = iow('c', 8, sizeof(PtrCookie));
    static constexpr uint32_t BC_ACQUIRE_DONE = iow('c', 9, sizeof(PtrCookie));
    static constexpr uint32_t BC_REGISTER_LOOPER = io('c', 11);
    static constexpr uint32_t BC_ENTER_LOOPER = io('c', 12);
    static constexpr uint32_t BC_EXIT_LOOPER = io('c', 13);
    static constexpr uint32_t BC_REQUEST_DEATH = iow('c', 14, kHandleCookie);
    static constexpr uint32_t BC_CLEAR_DEATH = iow('c', 15, kHandleCookie);
    static constexpr uint32_t BC_DEAD_BINDER_DONE = iow('c', 16, sizeof(P));

    static constexpr uint32_t BR_TRANSACTION = ior('r', 2, sizeof(TxnData));
    static constexpr uint32_t BR_REPLY = ior('r', 3, sizeof(TxnData));
    static constexpr uint32_t BR_DEAD_REPLY = io('r', 5);
    static constexpr uint32_t BR_TRANSACTION_COMPLETE = io('r', 6);
    static constexpr uint32_t BR_INCREFS = ior('r', 7, sizeof(PtrCookie));
    static constexpr uint32_t BR_ACQUIRE = ior('r', 8, sizeof(PtrCookie));
    static constexpr uint32_t BR_NOOP = io('r', 12);
    static constexpr uint32_t BR_SPAWN_LOOPER = io('r', 13);
    static constexpr uint32_t BR_DEAD_BINDER = ior('r', 15, sizeof(P));
    static constexpr uint32_t BR_CLEAR_DEATH_DONE = ior('r', 16, sizeof(P));
    static constexpr uint32_t BR_FAILED_REPLY = io('r', 17);
};

} // namespace binderd

#endif
