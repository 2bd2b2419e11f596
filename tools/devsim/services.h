// The simulated device's services: one table entry per service name, its
// methods in code order, and the dispatcher that serves a transaction.
#ifndef HMISVC_DEVSIM_SERVICES_H
#define HMISVC_DEVSIM_SERVICES_H

#include "broadcast_hub.h"
#include "device_state.h"
#include "settings_store.h"
#include "wire.h"

#include <hmisvc/binder.h>

#include <cstdio>
#include <string>
#include <vector>

namespace hmisvc::devsim {

struct Device {
    explicit Device(std::string settings_file = {}) : settings(std::move(settings_file)) {}

    SettingsStore settings;
    Backlight backlight;
    Clock clock;
    Network network;  // "ethinfo", "4ginfo", "wifiinfo", "netchanage"
    SystemInfo system;
    RemoteAccess remote;
    Vpn vpn;
    Beeper beeper;
    BroadcastHub broadcasts;
};

struct Method {
    const char *name;
    Handler run;  // empty for a code the service does not use
};

// Its address is the binder object published under its name.
struct Service {
    const char *name;
    std::vector<Method> methods;  // index = transaction code
};

// All services of the device, in a vector that is never resized once built
// (the published objects point into it).
std::vector<Service> make_services(Device &device);

class Simulator {
public:
    // Requests are recorded to `record` and traced to `trace` when given.
    Simulator(Device &device, std::FILE *record = nullptr, std::FILE *trace = nullptr);

    const std::vector<Service> &services() const { return services_; }
    const Service *find(const std::string &name) const;

    // Serves one transaction whose target is one of services(): 0 with the
    // answer written into reply, otherwise the error status to send.
    int handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);

private:
    const Service *target(const binder_transaction_data &txn) const;
    void record(const char *service, uint32_t code, const binder_io &msg);

    std::vector<Service> services_;
    std::FILE *record_;
    std::FILE *trace_;
};

}  // namespace hmisvc::devsim

#endif
