// Names published with a service manager and the driver references behind
// them. Shared by the programs that act as the binder context manager.
#ifndef HMISVC_TOOLS_SERVICE_REGISTRY_H
#define HMISVC_TOOLS_SERVICE_REGISTRY_H

#include <hmisvc/binder.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>

namespace hmisvc::tools {

// Each published name holds one strong reference on the publisher's object
// and belongs to the process that published it: while that process lives,
// only it may publish the name anew (dropping the reference on the object it
// replaces). The death of the object drops all of its names, which frees
// them for anyone; so does the holder's exit, before that news arrives.
class ServiceRegistry {
public:
    // Told of each name the registry drops because its publisher died.
    using DeathHook = std::function<void(const std::u16string &name, uint32_t handle)>;

    explicit ServiceRegistry(binder_connection *bs);
    ServiceRegistry(const ServiceRegistry &) = delete;
    ServiceRegistry &operator=(const ServiceRegistry &) = delete;

    // `handle` must be a reference this connection holds while the call
    // runs (e.g. one that arrived in the request being served); `pid` is
    // the publishing process. False, with the holder's pid in `holder`,
    // when another process holds the name: nothing changes then.
    bool publish(const std::u16string &name, uint32_t handle, pid_t pid, pid_t &holder);
    // Drops the name if `handle` is what it is published as (only its
    // publisher can send that object); false otherwise.
    bool remove(const std::u16string &name, uint32_t handle);
    // 0 when the name is unknown.
    uint32_t lookup(const std::u16string &name) const;
    std::size_t size() const { return names_.size(); }
    // The n-th name in sorted order; false past the last.
    bool name_at(std::size_t n, std::u16string &name) const;

    void on_death(DeathHook hook) { death_hook_ = std::move(hook); }

private:
    // One per referenced object: the driver accepts one death notification
    // per reference, however many names share it.
    struct Link {
        binder_death_record record;
        ServiceRegistry *registry;
        uint32_t handle;
        unsigned names;
    };

    void unref(uint32_t handle);
    void died(Link &link);
    static void died_cb(binder_connection *bs, void *link);

    struct Entry {
        uint32_t handle;
        pid_t pid;
    };

    binder_connection *bs_;
    std::map<std::u16string, Entry> names_;
    std::map<uint32_t, std::unique_ptr<Link>> links_;
    DeathHook death_hook_;
};

// Narrow text for diagnostics: ASCII kept, anything else as \uXXXX.
std::string printable(const std::u16string &s);

}  // namespace hmisvc::tools

#endif
