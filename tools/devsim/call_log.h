// Every call the simulated device served, kept in memory for the tests of
// an application: read back with filters, counted, waited for. Bounded in
// count and in bytes: a text in a call longer than kTextBytes is kept as its
// start, marked {"cut": START, "bytes": WHOLE}, arguments or answer still
// beyond kCallBytes as the start of their JSON the same way; the oldest
// calls make room for new ones, counted (dropped()) and said on stderr.
// Sequence numbers only grow, also across clear(), so that a mark taken
// before stays meaningful.
#ifndef HMISVC_DEVSIM_CALL_LOG_H
#define HMISVC_DEVSIM_CALL_LOG_H

#include "json_values.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace hmisvc::devsim {

// Which calls: every given part must match; args compares the decoded
// arguments whole.
struct CallFilter {
    std::string service, method, program;
    uint64_t since = 0;  // calls after this sequence number
    std::optional<Json> args;
};

class CallLog {
public:
    static constexpr std::size_t kDefaultKeep = 10000;
    static constexpr std::size_t kTextBytes = 1024;
    static constexpr std::size_t kCallBytes = 8 * 1024;
    static constexpr std::size_t kDefaultKeepBytes = 8 * 1024 * 1024;
    explicit CallLog(std::size_t keep = kDefaultKeep, std::size_t keep_bytes = kDefaultKeepBytes)
        : keep_(keep ? keep : 1), keep_bytes_(keep_bytes)
    {
    }

    // Takes a call's trace record (service, method, args, reply or
    // status/error...), gives it its sequence number and the caller's
    // program name, and wakes the waits; answers the sequence number.
    uint64_t add(Json call, const std::string &program);
    // The kept calls that match, oldest first, as compact JSON texts; with
    // max_bytes, as many as fit in that many bytes (at least one), `more`
    // set when others match after them.
    std::vector<std::string> find(const CallFilter &filter, std::size_t max_bytes = 0, bool *more = nullptr) const;
    // The sequence number of the last call so far (0: none yet).
    uint64_t mark() const;
    void clear();
    std::size_t size() const;
    // The bytes the kept calls take, and how many calls made room so far.
    std::size_t bytes() const;
    uint64_t dropped() const;
    std::size_t keep() const { return keep_; }
    // Before the calls come: how many to keep.
    void keep(std::size_t n) { keep_ = n ? n : 1; }

    // Waits until `count` calls match or the deadline passes; true when
    // they did. `matched` gets the matching calls (all of them, however
    // many came), woken by add(), never polled. stop() ends every wait at
    // once (false), and so does `ended` once set and poke()d.
    bool wait(const CallFilter &filter, std::size_t count, std::chrono::steady_clock::time_point deadline,
              std::vector<std::string> &matched, const std::atomic<bool> *ended = nullptr);
    // Waits for any call after `seq` or until the deadline; the sequence
    // number of the last call then.
    uint64_t wait_after(uint64_t seq, std::chrono::steady_clock::time_point deadline,
                        const std::atomic<bool> *ended = nullptr);
    // Wakes the waits without a call (to look again at something else).
    void poke();
    void stop();

    // The name of the program of a process (its comm), "" when gone.
    static std::string program_of(int pid);

private:
    struct Entry {
        uint64_t seq;
        std::string service, method, program;
        std::string args;  // compact JSON of the arguments ("" for none given)
        std::string text;  // the whole record
        std::size_t bytes() const { return sizeof(Entry) + service.size() + method.size() + program.size() + args.size() + text.size(); }
    };
    static bool matches(const Entry &e, const CallFilter &f, const std::string &args);
    std::vector<std::string> find_locked(const CallFilter &filter, std::size_t max_bytes = 0,
                                         bool *more = nullptr) const;

    std::size_t keep_;
    std::size_t keep_bytes_;
    std::size_t bytes_ = 0;
    uint64_t dropped_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable added_;
    std::deque<Entry> calls_;
    uint64_t last_ = 0;
    uint64_t pokes_ = 0;
    bool stopping_ = false;
};

}  // namespace hmisvc::devsim

#endif
