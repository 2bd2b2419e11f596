/*
 * Internal to the binder layer: the one place through which it reaches the
 * driver. Where HMISVC_BINDER_SOCKET names a userspace driver's socket, the
 * connection goes there; otherwise these are open, mmap, ioctl and close on
 * /dev/binder, exactly as the calls they stand for.
 */
#ifndef HMISVC_BINDER_SEAM_H
#define HMISVC_BINDER_SEAM_H

#include <cstddef>

namespace hmisvc::binder {

/* open("/dev/binder", O_RDWR), or a connection to the userspace driver. */
int seam_open();
/* mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0), or the userspace
 * driver's buffer mapped read-only. MAP_FAILED with errno on failure. */
void *seam_map(int fd, size_t size);
/* ioctl(fd, request, arg) on the calling thread's behalf. */
int seam_ioctl(int fd, unsigned long request, void *arg);
/* munmap(map, size) (none when map is null), then close(fd) and every
 * thread's connection. */
void seam_close(int fd, void *map, size_t size);

} // namespace hmisvc::binder

#endif
