#include "call_log.h"

#include <fstream>

namespace hmisvc::devsim {

uint64_t CallLog::add(Json call, const std::string &program)
{
    Entry e;
    e.service = call.value("service", "");
    e.method = call["method"].is_string() ? call["method"].get<std::string>() : std::string();
    e.program = program;
    if (auto a = call.find("args"); a != call.end())
        e.args = tools::dump_json(*a);
    uint64_t seq;
    {
        std::lock_guard<std::mutex> hold(mutex_);
        seq = e.seq = ++last_;
        // seq first, so that a reader sees the order at a glance.
        Json out = {{"seq", e.seq}};
        out.update(call);
        out["program"] = tools::to_json_text(program);
        e.text = tools::dump_json(out);
        calls_.push_back(std::move(e));
        while (calls_.size() > keep_)
            calls_.pop_front();
    }
    added_.notify_all();
    return seq;
}

bool CallLog::matches(const Entry &e, const CallFilter &f, const std::string &args)
{
    return e.seq > f.since && (f.service.empty() || e.service == f.service) &&
           (f.method.empty() || e.method == f.method) && (f.program.empty() || e.program == f.program) &&
           (!f.args || e.args == args);
}

std::vector<std::string> CallLog::find_locked(const CallFilter &filter) const
{
    std::string args = filter.args ? tools::dump_json(*filter.args) : std::string();
    std::vector<std::string> out;
    for (const Entry &e : calls_)
        if (matches(e, filter, args))
            out.push_back(e.text);
    return out;
}

std::vector<std::string> CallLog::find(const CallFilter &filter) const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return find_locked(filter);
}

uint64_t CallLog::mark() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return last_;
}

void CallLog::clear()
{
    std::lock_guard<std::mutex> hold(mutex_);
    calls_.clear();
}

std::size_t CallLog::size() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_.size();
}

bool CallLog::wait(const CallFilter &filter, std::size_t count, std::chrono::steady_clock::time_point deadline,
                   std::vector<std::string> &matched, const std::atomic<bool> *ended)
{
    auto over = [&] { return stopping_ || (ended && *ended); };
    std::unique_lock<std::mutex> hold(mutex_);
    uint64_t seen = last_;
    for (;;) {
        matched = find_locked(filter);
        if (matched.size() >= count)
            return true;
        if (over() || std::chrono::steady_clock::now() >= deadline)
            return false;
        added_.wait_until(hold, deadline, [&] { return over() || last_ != seen; });
        seen = last_;
    }
}

uint64_t CallLog::wait_after(uint64_t seq, std::chrono::steady_clock::time_point deadline,
                             const std::atomic<bool> *ended)
{
    std::unique_lock<std::mutex> hold(mutex_);
    uint64_t pokes = pokes_;
    added_.wait_until(hold, deadline,
                      [&] { return stopping_ || (ended && *ended) || last_ > seq || pokes_ != pokes; });
    return last_;
}

void CallLog::poke()
{
    {
        std::lock_guard<std::mutex> hold(mutex_);
        ++pokes_;
    }
    added_.notify_all();
}

void CallLog::stop()
{
    {
        std::lock_guard<std::mutex> hold(mutex_);
        stopping_ = true;
    }
    added_.notify_all();
}

std::string CallLog::program_of(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

}  // namespace hmisvc::devsim
