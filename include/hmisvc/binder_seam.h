/**
 * @file
 * The binder layer's driver calls for programs that talk to the driver
 * beyond the designed functions (service managers, simulators): the same
 * ioctl on /dev/binder, or on the userspace driver (hmisvc-binderd) when
 * the environment's HMISVC_BINDER_SOCKET names its socket.
 */
#ifndef HMISVC_BINDER_SEAM_H_PUBLIC
#define HMISVC_BINDER_SEAM_H_PUBLIC

#include <hmisvc/binder.h>

#ifdef __cplusplus
extern "C" {
#endif

/** ioctl(@p bs's descriptor, @p request, @p arg), made for the calling thread. */
HMISVC_API int binder_ioctl(struct binder_connection *bs, unsigned long request, void *arg);
/** Whether binder_open() would reach a driver: /dev/binder opens read-write,
 * or the userspace driver's socket accepts. Asked silently. */
HMISVC_API int binder_driver_reachable(void);

#ifdef __cplusplus
}
#endif

#endif
