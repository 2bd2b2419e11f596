/*
 * Internal (not installed): the messages between the binder layer's seam and
 * a userspace binder driver (hmisvc-binderd) on a SOCK_SEQPACKET Unix socket.
 * One request, one answer, each a single packet.
 *
 * The first socket of a process (binder_open) carries kOpen and kMap and is
 * also the opening thread's; every other thread of the process attaches a
 * socket of its own with kAttach, so the driver knows the calling thread as
 * the kernel does. The process lives as long as its first socket.
 *
 * kIoctl carries the ioctl's argument as the caller's struct. For
 * BINDER_WRITE_READ it is followed by the unconsumed write bytes and, for
 * each BC_TRANSACTION / BC_REPLY among them in order, an Attachment with the
 * data and offsets the command points to: the driver cannot read the
 * caller's memory. The answer carries the argument back, then the bytes read.
 */
#ifndef HMISVC_BINDER_SEAM_WIRE_H
#define HMISVC_BINDER_SEAM_WIRE_H

#include <cstdint>
#include <cstring>
#include <sys/socket.h>

namespace hmisvc::binder::seam {

/* The environment variable naming a userspace driver's socket. */
constexpr const char *kSocketEnv = "HMISVC_BINDER_SOCKET";

/* Largest packet either side sends. A larger request goes whole in a
 * memory file passed with a kLarge packet; at most kMaxRequest bytes (a
 * transaction's data is bounded by the receiver's mapping, at most 4 MB). */
constexpr uint32_t kMaxPacket = 256 * 1024;
constexpr uint64_t kMaxRequest = 8 * 1024 * 1024;

enum Op : uint32_t {
    kOpen = 1,   // value: the mapping size; answered with the mapping's memfd
    kMap = 2,    // value: where the caller mapped it
    kAttach = 3, // value: the process's token (from kOpen's answer)
    kIoctl = 4,  // request: the ioctl number; value: kPosted, kNonBlock or 0
    kLarge = 5,  // value: the size of the request in the memory file it carries
};

/* A BINDER_WRITE_READ that only writes commands which cannot fail the ioctl
 * (well-formed, known, a transaction or reply only last) is posted: the
 * driver sends no answer and the caller goes on at once, as the kernel
 * would have taken every byte and returned 0. Saves a round trip for each
 * BC_FREE_BUFFER and each reply a server writes. */
constexpr uint64_t kPosted = 1;

/* Set beside kPosted when the caller's connection is non-blocking: a read
 * with nothing to read is answered EAGAIN at once, as the kernel does. From
 * then on the driver makes the connection readable whenever its thread has
 * something to read, so that poll() on it behaves as on the device: it sends
 * a wake-up (an Answer whose error is kWakeUp), at most one between two
 * requests, which the seam skips before the next request's answer. */
constexpr uint64_t kNonBlock = 2;
constexpr int32_t kWakeUp = -1;

struct Request {
    uint32_t op;
    uint32_t request;
    uint64_t value;
};

struct Answer {
    int32_t error;  // 0 or an errno value
    int32_t result; // the ioctl's result when error is 0
    uint64_t value; // kOpen: the process's token
};

struct Attachment {
    uint64_t data_size;
    uint64_t offsets_size;
};

/* Room for one descriptor passed beside a packet. */
struct PassedFd {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
};

/* Makes `msg` pass `fd` along (SCM_RIGHTS), its control data in `room`. */
inline void pass_fd(msghdr &msg, PassedFd &room, int fd)
{
    msg.msg_control = room.control;
    msg.msg_controllen = sizeof room.control;
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
}

} // namespace hmisvc::binder::seam

#endif
