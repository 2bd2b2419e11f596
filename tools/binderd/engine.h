// The driver for one protocol width: the ioctls, the commands written and
// the returns read, and the translation of objects between processes.
#ifndef HMISVC_BINDERD_ENGINE_H
#define HMISVC_BINDERD_ENGINE_H

#include <sys/socket.h>

#include <cstddef>
#include <memory>

namespace binderd {

// What the socket side hands the driver.
class Handler {
public:
    virtual ~Handler() = default;
    // One packet from `fd`, whose peer is `cred`.
    virtual void packet(int fd, const ucred &cred, const unsigned char *data, size_t size) = 0;
    // `fd`'s peer hung up; the driver closes it.
    virtual void hangup(int fd) = 0;
    // Processes and buffers held now (for the driver's own accounting).
    virtual size_t processes() const = 0;
};

// The 64-bit protocol, or the device's 32-bit one when `bits` is 32.
std::unique_ptr<Handler> make_engine(int bits);

// Sends one packet to `fd`, passing `pass_fd` along when it is not -1.
void send_packet(int fd, const void *data, size_t size, int pass_fd = -1);

// Closes a connection the driver is done with.
void close_connection(int fd);

} // namespace binderd

#endif
