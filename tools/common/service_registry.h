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
#include <vector>
#include <sys/types.h>

namespace hmisvc::tools {

// A process as the service manager knows it: pid and euid as the driver
// gives them with a request, and, read from /proc, when it started (so that
// a reused pid is not taken for the process) and its program.
struct Process {
    pid_t pid = 0;
    uid_t euid = 0;
    unsigned long long start = 0;
    std::string exe;

    static Process of(pid_t pid, uid_t euid);
    bool same(const Process &o) const { return pid == o.pid && euid == o.euid && start == o.start; }
    bool same_program(const Process &o) const { return euid == o.euid && !exe.empty() && exe == o.exe; }
    // Exited (reaped, a zombie, or its pid taken by another process).
    bool gone() const;
};

// Each published name holds one strong reference on the publisher's object
// and belongs to the process that published it: while that process lives,
// only it may publish the name anew (dropping the reference on the object it
// replaces) or drop it. The holder's death frees its names at once, unless
// it claimed them for its program: a claimed name waits kClaimSeconds for a
// process of the same program and euid (the holder restarted) and is
// refused to any other meanwhile.
class ServiceRegistry {
public:
    static constexpr int kClaimSeconds = 30;

    // Told of each name the registry drops because its publisher died.
    using DeathHook = std::function<void(const std::u16string &name, uint32_t handle)>;

    // With a file, what the registry holds is kept there after each change
    // and taken up again at start: names whose holder still lives, or which
    // are claimed, stay reserved for it across a restart of the service
    // manager, until it publishes them again.
    explicit ServiceRegistry(binder_connection *bs, std::string file = {});
    ServiceRegistry(const ServiceRegistry &) = delete;
    ServiceRegistry &operator=(const ServiceRegistry &) = delete;

    // Why the file could not be read or written last ("" when it could).
    const std::string &file_error() const { return file_error_; }

    // `handle` must be a reference this connection holds while the call
    // runs (e.g. one that arrived in the request being served). False, with
    // the holder in `holder`, when the name is another's: nothing changes.
    bool publish(const std::u16string &name, uint32_t handle, const Process &by, Process &holder);
    // Drops the name if `by` published it as `handle`; false, with the
    // holder (pid 0 for none), otherwise.
    bool remove(const std::u16string &name, uint32_t handle, const Process &by, Process &holder);
    // Keeps the name for its holder's program after the holder dies; false
    // unless `by` holds it.
    bool claim(const std::u16string &name, const Process &by, Process &holder);
    // 0 when the name is not published.
    uint32_t lookup(const std::u16string &name) const;
    // Who holds or reserves the name; false when nobody does.
    bool holder(const std::u16string &name, Process &holder);
    // The n-th published name in sorted order; false past the last.
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
        bool retired = false;  // released while its death may still come
    };

    // handle 0: reserved for its owner (or claimed and its owner gone) but
    // not published.
    struct Entry {
        uint32_t handle = 0;
        Process owner;
        bool claimed = false;
        long long until = 0;  // claimed and owner gone: CLOCK_BOOTTIME second it lapses
    };

    // Whether `by` may take the entry; drops it when it has lapsed.
    bool open_to(std::map<std::u16string, Entry>::iterator it, const Process &by);
    // `owner_gone`: the object's process has ended, so its death may be on
    // its way to us already.
    void unref(uint32_t handle, bool owner_gone = false);
    void died(Link &link);
    static void died_cb(binder_connection *bs, void *link);
    void load();
    void save();

    binder_connection *bs_;
    std::string file_;
    std::string file_error_;
    std::map<std::u16string, Entry> names_;
    std::map<uint32_t, std::unique_ptr<Link>> links_;
    // Links released after their process ended: the driver may still hand
    // us their death, with the record's address, so they are kept until it
    // does (at most kRetired, the oldest let go first).
    static constexpr std::size_t kRetired = 1024;
    std::vector<std::unique_ptr<Link>> retired_;
    DeathHook death_hook_;
};

// Narrow text for diagnostics: ASCII kept, anything else as \uXXXX.
std::string printable(const std::u16string &s);

}  // namespace hmisvc::tools

#endif
