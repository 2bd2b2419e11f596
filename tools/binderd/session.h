// The driver's sockets: the listening socket in a private directory, one
// connection per process and per calling thread, packets in and out.
#ifndef HMISVC_BINDERD_SESSION_H
#define HMISVC_BINDERD_SESSION_H

#include "engine.h"

#include <string>

namespace binderd {

// Listens on `path`, whose directory must be one only this user can enter
// (it is made so when missing). -1 with `error` set on failure.
int listen_on(const std::string &path, std::string &error);

// Serves connections on `listener` until `stop_fd` (a pidfd, or -1 for
// never) becomes readable.
void serve(Handler &driver, int listener, int stop_fd);

} // namespace binderd

#endif
