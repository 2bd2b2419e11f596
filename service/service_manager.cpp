#include <iostream>
#include <utility>

#include <hmisvc/context.h>

ServiceManager::ServiceManager(std::string name, unsigned int map_size)
    : connection(nullptr), handle(0), service_name(std::move(name)), map_size(map_size) {
    connection = binder_open(map_size);
    // Without a connection there is nothing to look up with: leave the handle
    // at 0 so the proxy reports itself unusable like any missing service.
    if (connection != nullptr)
        handle = static_cast<int>(svcmgr_lookup(connection, SVCMGR_HANDLE, service_name.c_str()));
    if (handle <= 0)
        // One insertion, so lines from threads failing at once stay whole;
        // the bytes are those of "<< name << std::endl".
        std::cout << ("Failed to find service: " + service_name + '\n') << std::flush;
}

ServiceManager::~ServiceManager() {
    // Closing the descriptor ends every reference the connection holds.
    if (connection != nullptr)
        binder_close(connection);
}

int ServiceManager::BinderCall(binder_io *msg, binder_io *reply, unsigned int code) {
    if (handle <= 0)
        return -1;
    return binder_call(connection, msg, reply, static_cast<uint32_t>(handle), code);
}

void ServiceManager::BinderDone(binder_io *msg, binder_io *reply) { binder_done(connection, msg, reply); }
