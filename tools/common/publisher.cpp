#include "publisher.h"

#include "looper.h"
#include "svcmgr_client.h"

#include <chrono>
#include <cstdio>
#include <vector>

namespace hmisvc::tools {

Publisher::Publisher(binder_connection *bs) : bs_(bs)
{
    record_.on_death = &Publisher::died;
    record_.user = this;
}

Publisher::~Publisher()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

int Publisher::publish(const std::string &name, void *object)
{
    int status = bs_ ? svcmgr_publish(bs_, SVCMGR_HANDLE, name.c_str(), object) : 0;
    if (status == 0) {
        claim(name);
        std::lock_guard<std::mutex> lock(mutex_);
        names_[name] = object;
    }
    return status;
}

bool Publisher::claim(const std::string &name)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!claiming_ || !bs_)
            return true;
    }
    // -1: a service manager without claims, which keeps nothing anyway.
    if (svcmgr_claim(bs_, name.c_str()) != 1)
        return true;
    std::fprintf(stderr, "cannot claim \"%s\": the service manager says another process holds it\n", name.c_str());
    return false;
}

std::string Publisher::claim_names()
{
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        claiming_ = true;
        for (const auto &entry : names_)
            names.push_back(entry.first);
    }
    for (const std::string &name : names)
        if (!claim(name))
            return name;
    return {};
}

int Publisher::unpublish(const std::string &name, void *object)
{
    int status = bs_ ? svcmgr_unpublish(bs_, name.c_str(), object) : 0;
    if (status == -1)
        std::fprintf(stderr, "unpublish \"%s\": the service manager does not take unpublish requests\n",
                     name.c_str());
    std::lock_guard<std::mutex> lock(mutex_);
    if (status == 0 || status == 1)
        names_.erase(name);  // 1: it was not there any more
    return status == 1 ? 0 : status;
}

bool Publisher::published(const std::string &name) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return names_.count(name) != 0;
}

void Publisher::watch()
{
    tools::watch(bs_, SVCMGR_HANDLE, &record_);
    if (!thread_.joinable())
        thread_ = std::thread(&Publisher::run, this);
}

void Publisher::died(binder_connection *, void *self)
{
    auto *p = static_cast<Publisher *>(self);
    {
        std::lock_guard<std::mutex> lock(p->mutex_);
        p->dead_ = true;
    }
    p->wake_.notify_all();
}

void Publisher::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return dead_ || stopping_; });
        if (stopping_)
            return;
        // Drop the reference on the dead manager, so that handle 0 names
        // the next one when it is taken again.
        binder_release(bs_, SVCMGR_HANDLE);
        std::vector<std::pair<std::string, void *>> names(names_.begin(), names_.end());
        lock.unlock();
        auto start = std::chrono::steady_clock::now();
        std::size_t done = 0;
        while (done < names.size()) {
            int status = svcmgr_publish(bs_, SVCMGR_HANDLE, names[done].first.c_str(), names[done].second);
            if (status != -1) {
                // Answered: published, or refused for good (another living
                // process took the name meanwhile), which no retry mends.
                if (status == 0) {
                    claim(names[done].first);
                } else {
                    std::fprintf(stderr, "service manager restarted: \"%s\" refused (status %d); no longer published\n",
                                 names[done].first.c_str(), status);
                    std::lock_guard<std::mutex> hold(mutex_);
                    names_.erase(names[done].first);
                }
                ++done;
                continue;
            }
            lock.lock();
            bool stop = wake_.wait_for(lock, std::chrono::milliseconds(kRetryMs), [this] { return stopping_; });
            lock.unlock();
            if (stop)
                return;
        }
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        std::fprintf(stderr, "service manager restarted: %zu services published again after %lld ms\n",
                     names.size(), static_cast<long long>(ms.count()));
        lock.lock();
        dead_ = false;
        tools::watch(bs_, SVCMGR_HANDLE, &record_);
    }
}

}  // namespace hmisvc::tools
