#include "service_registry.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace hmisvc::tools {

namespace {

// A holder that has exited (reaped, or a zombie, whose driver connection is
// closed already) holds nothing, though the driver may not have told us of
// its objects' deaths yet: a restarted publisher must not be refused then.
bool gone(pid_t pid)
{
    if (pid <= 0)
        return false;
    if (kill(pid, 0) != 0)
        return errno == ESRCH;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line))
        return false;
    auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() &&
           (line[close + 2] == 'Z' || line[close + 2] == 'X');
}

}  // namespace

ServiceRegistry::ServiceRegistry(binder_connection *bs) : bs_(bs) {}

bool ServiceRegistry::publish(const std::u16string &name, uint32_t handle, pid_t pid, pid_t &holder)
{
    auto it = names_.find(name);
    if (it != names_.end() && it->second.pid != pid && !gone(it->second.pid)) {
        holder = it->second.pid;
        return false;
    }
    // Take the new reference before dropping the old one: a publisher
    // republishing the same object must not lose it in between.
    binder_acquire(bs_, handle);
    auto &link = links_[handle];
    if (!link) {
        link.reset(new Link{{&ServiceRegistry::died_cb, nullptr}, this, handle, 0});
        link->record.user = link.get();
        binder_link_to_death(bs_, handle, &link->record);
    }
    ++link->names;

    if (it == names_.end()) {
        names_.emplace(name, Entry{handle, pid});
        return true;
    }
    uint32_t old = it->second.handle;
    it->second = Entry{handle, pid};
    unref(old);
    return true;
}

bool ServiceRegistry::remove(const std::u16string &name, uint32_t handle)
{
    auto it = names_.find(name);
    if (it == names_.end() || it->second.handle != handle)
        return false;
    names_.erase(it);
    unref(handle);
    return true;
}

uint32_t ServiceRegistry::lookup(const std::u16string &name) const
{
    auto it = names_.find(name);
    return it == names_.end() ? 0 : it->second.handle;
}

bool ServiceRegistry::name_at(std::size_t n, std::u16string &name) const
{
    if (n >= names_.size())
        return false;
    name = std::next(names_.begin(), static_cast<std::ptrdiff_t>(n))->first;
    return true;
}

void ServiceRegistry::unref(uint32_t handle)
{
    binder_release(bs_, handle);
    auto it = links_.find(handle);
    // The last release ends the driver reference and its death notification
    // with it, so the record may go.
    if (it != links_.end() && --it->second->names == 0)
        links_.erase(it);
}

void ServiceRegistry::died(Link &link)
{
    uint32_t handle = link.handle;
    std::vector<std::u16string> gone;
    for (const auto &[name, entry] : names_)
        if (entry.handle == handle)
            gone.push_back(name);
    for (const auto &name : gone) {
        names_.erase(name);
        if (death_hook_)
            death_hook_(name, handle);
    }
    // Drop the references the names held; the driver then forgets the
    // handle, which may later be handed out again for another object.
    for (std::size_t i = 0; i < link.names; ++i)
        binder_release(bs_, handle);
    links_.erase(handle);
}

void ServiceRegistry::died_cb(binder_connection *, void *user)
{
    auto *link = static_cast<Link *>(user);
    link->registry->died(*link);
}

std::string printable(const std::u16string &s)
{
    std::string out;
    for (char16_t c : s) {
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned>(c));
            out += esc;
        }
    }
    return out;
}

}  // namespace hmisvc::tools
