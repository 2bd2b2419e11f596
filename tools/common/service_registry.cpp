#include "service_registry.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace hmisvc::tools {

namespace {

long long now_s()
{
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return ts.tv_sec;
}

// State letter and start time (clock ticks after boot) from /proc/PID/stat;
// false when there is no such process.
bool proc_stat(pid_t pid, char &state, unsigned long long &start)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line))
        return false;
    // The name in parentheses may hold anything, so fields count from the
    // last ')': the state is field 3, the start time field 22.
    auto close = line.rfind(')');
    if (close == std::string::npos)
        return false;
    std::istringstream fields(line.substr(close + 1));
    std::string field;
    fields >> state;
    for (int i = 4; i < 22 && fields >> field; ++i) {
    }
    return static_cast<bool>(fields >> start);
}

}  // namespace

Process Process::of(pid_t pid, uid_t euid)
{
    Process p;
    p.pid = pid;
    p.euid = euid;
    char state = 0;
    proc_stat(pid, state, p.start);
    char path[PATH_MAX];
    ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path - 1);
    if (n > 0) {
        p.exe.assign(path, static_cast<std::size_t>(n));
        // A program rebuilt while it runs is still that program.
        const std::string deleted = " (deleted)";
        if (p.exe.size() > deleted.size() && p.exe.compare(p.exe.size() - deleted.size(), deleted.size(), deleted) == 0)
            p.exe.resize(p.exe.size() - deleted.size());
    }
    return p;
}

// An exited process (reaped, or a zombie, whose driver connection is closed
// already) holds nothing, though the driver may not have told us of its
// objects' deaths yet: a restarted publisher must not be refused then.
bool Process::gone() const
{
    if (pid <= 0)
        return true;
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return true;
    char state = 0;
    unsigned long long now_start = 0;
    if (!proc_stat(pid, state, now_start))
        return true;
    return state == 'Z' || state == 'X' || (start != 0 && now_start != start);
}

ServiceRegistry::ServiceRegistry(binder_connection *bs, std::string file) : bs_(bs), file_(std::move(file))
{
    if (!file_.empty())
        load();
}

bool ServiceRegistry::open_to(std::map<std::u16string, Entry>::iterator it, const Process &by)
{
    Entry &e = it->second;
    if (e.owner.same(by))
        return true;
    if (!e.owner.gone())
        return false;
    if (e.claimed && e.until == 0)
        e.until = now_s() + kClaimSeconds;
    if (e.claimed && now_s() < e.until)
        return e.owner.same_program(by);
    // Lapsed: free for anyone.
    if (e.handle)
        unref(e.handle, true);
    names_.erase(it);
    return true;
}

bool ServiceRegistry::publish(const std::u16string &name, uint32_t handle, const Process &by, Process &holder)
{
    auto it = names_.find(name);
    if (it != names_.end() && !open_to(it, by)) {
        holder = it->second.owner;
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

    // A claim stays with the name when its program takes it up again.
    Entry &e = names_[name];
    uint32_t old = e.handle;
    bool old_gone = old && !e.owner.same(by) && e.owner.gone();
    e.handle = handle;
    e.owner = by;
    e.until = 0;
    if (old)
        unref(old, old_gone);
    save();
    return true;
}

bool ServiceRegistry::remove(const std::u16string &name, uint32_t handle, const Process &by, Process &holder)
{
    auto it = names_.find(name);
    if (it == names_.end() || it->second.handle == 0) {
        holder = Process{};
        return false;
    }
    Entry &e = it->second;
    if (!e.owner.same(by) || e.handle != handle) {
        holder = e.owner;
        return false;
    }
    unref(handle);
    // A claimed name stays reserved for its holder, to publish again.
    if (e.claimed)
        e.handle = 0;
    else
        names_.erase(it);
    save();
    return true;
}

bool ServiceRegistry::claim(const std::u16string &name, const Process &by, Process &holder)
{
    auto it = names_.find(name);
    if (it == names_.end() || it->second.handle == 0 || !it->second.owner.same(by)) {
        holder = it == names_.end() ? Process{} : it->second.owner;
        return false;
    }
    it->second.claimed = true;
    save();
    return true;
}

uint32_t ServiceRegistry::lookup(const std::u16string &name) const
{
    auto it = names_.find(name);
    return it == names_.end() ? 0 : it->second.handle;
}

bool ServiceRegistry::holder(const std::u16string &name, Process &holder)
{
    auto it = names_.find(name);
    // Nobody's process is ours: open_to() only drops what has lapsed.
    if (it == names_.end() || open_to(it, Process{}))
        return false;
    holder = it->second.owner;
    return true;
}

bool ServiceRegistry::name_at(std::size_t n, std::u16string &name) const
{
    for (const auto &[key, entry] : names_)
        if (entry.handle != 0 && n-- == 0) {
            name = key;
            return true;
        }
    return false;
}

void ServiceRegistry::unref(uint32_t handle, bool owner_gone)
{
    binder_release(bs_, handle);
    auto it = links_.find(handle);
    if (it == links_.end() || --it->second->names != 0)
        return;
    // The last release ends the driver reference and its death notification
    // with it, so the record may go; unless the death came before and waits
    // to be read: then the record must outlive it.
    if (owner_gone) {
        it->second->retired = true;
        if (retired_.size() == kRetired)
            retired_.erase(retired_.begin());
        retired_.push_back(std::move(it->second));
    }
    links_.erase(it);
}

void ServiceRegistry::died(Link &link)
{
    uint32_t handle = link.handle;
    std::vector<std::u16string> gone;
    for (auto &[name, entry] : names_)
        if (entry.handle == handle) {
            entry.handle = 0;
            if (entry.claimed)
                entry.until = now_s() + kClaimSeconds;
            else
                gone.push_back(name);
        }
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
    save();
}

void ServiceRegistry::died_cb(binder_connection *, void *user)
{
    auto *link = static_cast<Link *>(user);
    ServiceRegistry *registry = link->registry;
    // A released link's handle may name another object by now.
    if (link->retired) {
        auto &retired = registry->retired_;
        auto it = std::find_if(retired.begin(), retired.end(), [&](const auto &l) { return l.get() == link; });
        if (it != retired.end())
            retired.erase(it);
        return;
    }
    registry->died(*link);
}

// One line per name: its UTF-16 units in hex, owner pid, euid and start,
// claimed (0 or 1), the second a claim lapses (0: not yet counting), then
// the owner's program to the end of the line.
void ServiceRegistry::load()
{
    std::ifstream in(file_);
    std::string line;
    long long now = now_s();
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string hex;
        Entry e;
        if (!(fields >> hex >> e.owner.pid >> e.owner.euid >> e.owner.start >> e.claimed >> e.until) ||
            hex.empty() || hex.size() % 4 != 0)
            continue;
        std::getline(fields >> std::ws, e.owner.exe);
        std::u16string name;
        for (std::size_t i = 0; i < hex.size(); i += 4)
            name += static_cast<char16_t>(std::strtoul(hex.substr(i, 4).c_str(), nullptr, 16));
        if (e.owner.gone()) {
            if (!e.claimed)
                continue;
            if (e.until == 0)
                e.until = now + kClaimSeconds;
            if (now >= e.until)
                continue;
        }
        // Not published here yet: no reference, until its holder comes.
        e.handle = 0;
        names_[name] = e;
    }
}

void ServiceRegistry::save()
{
    if (file_.empty())
        return;
    std::string text;
    for (const auto &[name, e] : names_) {
        char unit[8];
        for (char16_t c : name) {
            std::snprintf(unit, sizeof unit, "%04x", static_cast<unsigned>(c));
            text += unit;
        }
        text += " " + std::to_string(e.owner.pid) + " " + std::to_string(e.owner.euid) + " " +
                std::to_string(e.owner.start) + " " + (e.claimed ? "1 " : "0 ") + std::to_string(e.until) + " " +
                e.owner.exe + "\n";
    }
    // Written aside and renamed over, so that a service manager killed
    // meanwhile leaves the last whole table to its successor.
    std::string partial = file_ + ".partial";
    std::string error;
    int fd = open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        error = "cannot write " + partial + ": " + std::strerror(errno);
    if (fd >= 0 && close(fd) != 0 && error.empty())
        error = "cannot write " + partial + ": " + std::strerror(errno);
    if (error.empty() && std::rename(partial.c_str(), file_.c_str()) != 0)
        error = "cannot write " + file_ + ": " + std::strerror(errno);
    if (!error.empty() && error != file_error_)
        std::fprintf(stderr, "svcmgr: %s; names are not kept across a restart\n", error.c_str());
    file_error_ = error;
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
