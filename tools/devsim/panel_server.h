// The simulator's browser panel: an HTTP server on loopback that serves one
// page, pushes the device's state and each call to it as Server-Sent Events,
// and takes the same steering requests as `hmisvc sim`, through Control.
//
// Every request that changes something must carry the token printed at
// start (header X-Hmisvc-Token), so that another web page open in the
// developer's browser cannot drive the device through loopback; requests
// whose Host is a domain name other than localhost are refused as well, so
// that a rebound DNS name cannot read the panel either.
#ifndef HMISVC_DEVSIM_PANEL_SERVER_H
#define HMISVC_DEVSIM_PANEL_SERVER_H

#include "control.h"
#include "json_values.h"

#include <memory>
#include <string>

namespace hmisvc::devsim {

// `[ADDR:]PORT` of --http; false with `why` set when it is not one.
struct HttpAddress {
    std::string host = "127.0.0.1";
    int port = 0;
    static bool parse(const std::string &text, HttpAddress &out, std::string &why);
};

// Whether a Host header names this machine by address or as localhost
// (and not by a domain name that could be rebound to it).
bool panel_host_allowed(const std::string &host_header);

class PanelServer {
public:
    PanelServer(Control &control, Simulator &simulator, tools::Publisher &publisher);
    ~PanelServer();
    PanelServer(const PanelServer &) = delete;
    PanelServer &operator=(const PanelServer &) = delete;

    // Binds and starts serving in threads of its own; an empty string when
    // it serves, otherwise why not.
    std::string start(const HttpAddress &address);
    // The port bound (the one picked when 0 was asked for).
    int port() const;
    const std::string &token() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace hmisvc::devsim

#endif
