/**
 * @file
 * Waiting for the other side: the library's proxies and endpoints never wait
 * for a service or an endpoint to be ready; these helpers do, with a limit.
 */
#ifndef HMISVC_WAIT_H
#define HMISVC_WAIT_H

#include <chrono>
#include <string>

#include <hmisvc/export.h>

class BroadcastService;

/// Additions beside the designed classes.
namespace hmisvc {

/// Waits until @p name is registered with the service manager.
///
/// Polls the service manager (every 10 ms) on a binder connection of its own
/// and prints nothing. Use it before Context::getSystemService() when the
/// service may still be starting: a proxy built too early stays unusable.
///
/// @param name service name, e.g. Context::SYSTEM_SERVICE.
/// @param timeout how long to wait at most.
/// @return true as soon as the name is registered; false when @p timeout
///         passed first or the binder driver cannot be opened.
HMISVC_API bool waitForService(const std::string &name, std::chrono::milliseconds timeout);

/// Waits until the endpoint that feeds @p service receives broadcasts.
///
/// Context::CreateBroadcastService() returns before its endpoint has
/// registered with the broadcast service and published itself; a broadcast
/// sent in that window is lost. This helper returns once a probe broadcast
/// sent through the broadcast service has come back to @p service, so that a
/// broadcast sent afterwards arrives.
///
/// The probe goes to every endpoint of the device with the action
/// "hmisvc.wait.PROBE" (no filter of the applications accepts it), and is
/// answered by a receiver that the first call registers on @p service for
/// the rest of the process (it shows in BroadcastService::receivers). Like
/// registerReceiver(), call it before broadcasts are expected.
///
/// @param service a service returned by Context::CreateBroadcastService().
/// @param timeout how long to wait at most.
/// @return true once @p service has received the probe; false when
///         @p timeout passed first (also when its endpoint has ended or the
///         broadcast service is not running) or @p service is null.
HMISVC_API bool waitForReceiving(BroadcastService *service, std::chrono::milliseconds timeout);

} // namespace hmisvc

#endif
