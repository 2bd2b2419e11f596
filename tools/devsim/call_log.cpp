#include "call_log.h"

#include <cstdio>
#include <fstream>

namespace hmisvc::devsim {

namespace {

// The first `n` bytes of a UTF-8 text, not splitting a character.
std::string start_of(const std::string &text, std::size_t n)
{
    while (n > 0 && n < text.size() && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        --n;
    return text.substr(0, n);
}

Json cut_marker(const std::string &text, std::size_t keep)
{
    return {{"cut", start_of(text, keep)}, {"bytes", text.size()}};
}

// Every text beyond `keep` bytes in `v` as its marked start.
void cut_texts(Json &v, std::size_t keep)
{
    if (v.is_string() && v.get_ref<const std::string &>().size() > keep)
        v = cut_marker(v.get_ref<const std::string &>(), keep);
    else if (v.is_structured())
        for (Json &e : v)
            cut_texts(e, keep);
}

}  // namespace

uint64_t CallLog::add(Json call, const std::string &program)
{
    for (const char *part : {"args", "reply"})
        if (auto at = call.find(part); at != call.end()) {
            cut_texts(*at, kTextBytes);
            // Many short texts (an intent of many extras): the JSON's start.
            if (std::string whole = tools::dump_json(*at); whole.size() > kCallBytes / 2)
                *at = cut_marker(whole, kTextBytes);
        }
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
        bytes_ += e.bytes();
        calls_.push_back(std::move(e));
        while (calls_.size() > keep_ || (bytes_ > keep_bytes_ && calls_.size() > 1)) {
            bytes_ -= calls_.front().bytes();
            calls_.pop_front();
            // Said at the first and then every thousandth: a busy device
            // fills the log in normal use.
            if (dropped_++ % 1000 == 0)
                std::fprintf(stderr,
                             "hmisvc-devsim: call log full (%zu calls, %zu bytes kept at most): the oldest make "
                             "room, %llu so far\n",
                             keep_, keep_bytes_, static_cast<unsigned long long>(dropped_));
        }
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

std::vector<std::string> CallLog::find_locked(const CallFilter &filter, std::size_t max_bytes, bool *more) const
{
    std::string args = filter.args ? tools::dump_json(*filter.args) : std::string();
    std::vector<std::string> out;
    std::size_t bytes = 0;
    if (more)
        *more = false;
    for (const Entry &e : calls_)
        if (matches(e, filter, args)) {
            if (max_bytes && !out.empty() && bytes + e.text.size() > max_bytes) {
                if (more)
                    *more = true;
                break;
            }
            bytes += e.text.size();
            out.push_back(e.text);
        }
    return out;
}

std::vector<std::string> CallLog::find(const CallFilter &filter, std::size_t max_bytes, bool *more) const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return find_locked(filter, max_bytes, more);
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
    bytes_ = 0;
}

std::size_t CallLog::bytes() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return bytes_;
}

uint64_t CallLog::dropped() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return dropped_;
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
