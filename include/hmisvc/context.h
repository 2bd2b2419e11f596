/**
 * @file
 * Service access: the proxy base class and the Context facade that names the
 * system services and hands out proxies. Failure lines go to standard
 * output, one whole line each; nothing is thrown for a missing service.
 */
#ifndef HMISVC_CONTEXT_H
#define HMISVC_CONTEXT_H

#include <memory>
#include <string>

#include <hmisvc/binder.h>
#include <hmisvc/export.h>

class BroadcastService;
class Intent;

/// Base of every service proxy: owns one binder connection and the handle of
/// its service, looked up by name once at construction.
class HMISVC_API ServiceManager {
public:
    /// Opens a connection with a mapping of @p map_size bytes and looks
    /// @p name up in the service manager. A service that is not registered
    /// prints "Failed to find service: <name>" and leaves the proxy unusable
    /// (every call fails); it never throws for that.
    ServiceManager(std::string name, unsigned int map_size);
    /// Closes the connection, which ends every reference it holds.
    virtual ~ServiceManager();

    ServiceManager(const ServiceManager &) = delete;            ///< A proxy owns its connection: not copied.
    ServiceManager &operator=(const ServiceManager &) = delete; ///< Not assigned.

    /// One synchronous transaction with the service. 0 on success with
    /// @p reply readable (give it back with BinderDone), -1 on failure; -1 at
    /// once, leaving @p reply untouched, when the proxy has no service.
    int BinderCall(binder_io *msg, binder_io *reply, unsigned int code);
    /// Gives the reply buffer of a successful BinderCall back to the driver.
    void BinderDone(binder_io *msg, binder_io *reply);

protected:
    binder_connection *connection; ///< the proxy's own connection, owned; null if the open failed
    int handle;                    ///< the service's handle; valid only when greater than 0
    std::string service_name;      ///< the name the proxy was built for
    unsigned int map_size;         ///< bytes of the connection's mapping
};

/// Entry point of the library: the names of the system services, a proxy for
/// a name, and the broadcast entries.
class HMISVC_API Context {
public:
    Context() = delete; ///< Static members only.

    static std::string SETTINGS_SERVICE;   ///< "settings"
    static std::string BACKLIGHT_SERVICE;  ///< "backlight"
    static std::string ETHINFO_SERVICE;    ///< "ethinfo"
    static std::string P4GINFO_SERVICE;    ///< "4ginfo"
    static std::string WIFIINFO_SERVICE;   ///< "wifiinfo"
    static std::string NETCHANAGE_SERVICE; ///< "netchanage"
    static std::string VNCFRPVPN_SERVICE;  ///< "vncfrpvpn"
    static std::string BROADCAST_SERVICE;  ///< "broadcast"
    static std::string DATE_SERVICE;       ///< "date"
    static std::string VPN_SERVICE;        ///< "vpn"
    static std::string SYSTEM_SERVICE;     ///< "system"
    static std::string BEEP_SERVICE;       ///< "beep"

    /// A new proxy for one of the names above (exact, case-sensitive match),
    /// or null for any other name. Every call builds a new proxy with its own
    /// connection; keep it if you call often. Cast it to the concrete class
    /// with std::dynamic_pointer_cast.
    static std::shared_ptr<ServiceManager> getSystemService(std::string name);

    /// Creates a broadcast service and starts its receiving endpoint on a
    /// thread of its own. The service lives for the rest of the process.
    static BroadcastService *CreateBroadcastService();

    /// Sends one broadcast through a fresh proxy of the broadcast service.
    static void SendBroadcast(Intent &intent);
};

#endif
