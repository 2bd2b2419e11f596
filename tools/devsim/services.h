// The simulated device's services: one table entry per service name, its
// methods in code order, and the dispatcher that serves a transaction.
#ifndef HMISVC_DEVSIM_SERVICES_H
#define HMISVC_DEVSIM_SERVICES_H

#include "broadcast_hub.h"
#include "call_log.h"
#include "device_state.h"
#include "settings_store.h"
#include "wire.h"

#include <hmisvc/binder.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hmisvc::devsim {

// Reply area of each serving thread: the largest answer is a dump of the
// state, which therefore must fit it.
constexpr std::size_t kReplyArea = 256 * 1024;

struct Device {
    explicit Device(std::string settings_file = {}) : settings(std::move(settings_file)) {}

    // SetValue and SetLongValue: the store's answer, or
    // SettingsStore::kTooLarge (nothing changed) when the state would no
    // longer fit a dump.
    int32_t set_setting(const std::string &section, const std::string &key, const std::string &value);

    SettingsStore settings;
    Backlight backlight;
    Clock clock;
    Network network;  // "ethinfo", "4ginfo", "wifiinfo", "netchanage"
    SystemInfo system;
    RemoteAccess remote;
    Vpn vpn;
    Beeper beeper;
    BroadcastHub broadcasts;
};

// Puts a query's answer (to these arguments) where the state document keeps
// what it comes from, so that a simulator started from the document answers
// the same.
using Keep = std::function<void(Json &state, const Json &args, const Json &answer)>;

// One remote method: its name, its argument types in request order, and
// whether it is a query (answers without changing anything), which a
// snapshot of the device may call freely. A query also says how its answer
// is read from a reply and kept in the state (no keep: the answer follows
// from other queries' answers).
struct Method {
    const char *name;
    Handler run;  // empty for a code the service does not use
    std::vector<const char *> arg_types;
    bool query = false;
    Json (*answer)(binder_io &reply) = nullptr;
    Keep keep;
    // The arguments as JSON, and an answer given as JSON written (or, with
    // no reply, only checked) as the method answers; `answers` names its
    // result type.
    Json (*args)(Request &in) = nullptr;
    bool (*answer_with)(const Json &value, binder_io *reply, std::string &why) = nullptr;
    const char *answers = nullptr;
};

// The method `name` running f(state, arguments...), see serve().
template <class State, class F> Method method_of(State &state, const char *name, F f, bool query = false)
{
    using Sig = detail::signature<F>;
    Method m{name, serve(state, f), Sig::arg_types(), query, nullptr, {}};
    m.args = &args_json<typename Sig::args>;
    m.answer_with = &answer_with<typename Sig::result>;
    m.answers = answer_type<typename Sig::result>();
    return m;
}

// Its address is the binder object published under its name.
struct Service {
    const char *name;
    std::vector<Method> methods;  // index = transaction code
};

// All services of the device, in a vector that is never resized once built
// (the published objects point into it).
std::vector<Service> make_services(Device &device);

// Writes trace lines on a thread of its own, so that a slow trace file (a
// pipe, a network file system) does not hold up the calls.
class TraceWriter;

// What `hmisvc sim fail` makes a service do with its next calls.
struct Fault {
    static constexpr int32_t kFailCall = 0;
    // kFailCall: the caller's transaction fails, as with a broken service
    // (the proxy prints its failure line and returns its failure value);
    // otherwise the reply is this status word, which the proxy decodes as
    // its answer.
    int32_t status = kFailCall;
    int32_t calls = -1;    // how many calls; below 0: all until healed
    int32_t delay_ms = 0;  // with a delay, calls are answered normally, late
};

// A scripted answer of `hmisvc sim reply`, used once by the method's next
// call: a value of its result type, a failed transaction, a status reply,
// or the state's own answer, late.
struct Answer {
    enum Kind { kValue, kFail, kStatus, kDelay } kind = kValue;
    Json value;      // kValue
    int32_t n = 0;   // kStatus: the word; kDelay: ms
    // As `sim reply` takes it and `sim dump` shows it.
    std::string text() const;
};

// Why the device's state cannot be answered whole: the first query answer
// larger than the mapping its proxy takes replies in, or a dump of the
// state larger than kReplyArea. "" when all fits.
std::string unanswerable(Device &device);
// The same for the dump alone.
std::string undumpable(Device &device);

// The word the driver carries for a published Service.
binder_uintptr_t object_word(const Service *s);

class Simulator {
public:
    // Requests are recorded to `record` and traced, one JSON line each, to
    // `trace` when given.
    Simulator(Device &device, std::FILE *record = nullptr, std::FILE *trace = nullptr);
    ~Simulator();

    const std::vector<Service> &services() const { return services_; }
    const Service *find(const std::string &name) const;
    // The service that has a method of this name, or null.
    const Service *find_method(const std::string &method) const;

    // Serves one transaction whose target is one of services() or the
    // extra service: 0 with the answer written into reply, otherwise the
    // error status to send (or tools::kFailTransaction). Safe to call from
    // several threads: the device is served under one lock, delays are
    // waited out without it.
    int handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);

    // Another object served here (the control service), outside the lock
    // and the trace.
    void add_extra(const Service *service) { extra_ = service; }

    void fail(const Service &service, Fault fault);
    // Also releases, at once, the calls the service's fault is delaying.
    bool heal(const Service &service);

    // Calls delayed at once, over all services; a call past them is failed
    // at once instead (and said so on standard error).
    static constexpr int kMaxDelayed = 32;
    // Told when a serving thread starts (true) and ends (false) waiting out
    // a delay, under the device's lock, so that the program can keep a
    // thread free to serve: a reply goes out on the thread that took the
    // transaction, so a delayed call keeps its thread. Set it before
    // serving starts.
    void on_delay(std::function<void(bool waiting)> f) { on_delay_ = std::move(f); }
    // Asked, under the device's lock, once a delay is over: false when the
    // call is no longer wanted (its service's process ended meanwhile, so
    // its caller had the dead reply). Such a call is failed unserved: a
    // crashed service's late calls change nothing.
    void on_late(std::function<bool()> f) { on_late_ = std::move(f); }
    // For a method that may wait long for something besides the device
    // (SendBroadcast, for room in an endpoint's queue), on its serving
    // thread: with true before it waits, lets go of the device's lock and
    // has another thread serve meanwhile, as a delay does; with false
    // after, takes the lock back. Does nothing outside a call.
    static void waiting(bool starts);

    // Called after each call to a device service with its trace record, and
    // with null after each request to the extra service (which may have
    // changed anything); on the serving thread, outside the lock. Set it
    // before serving starts.
    using Observer = std::function<void(const Json *call)>;
    void observe(Observer observer) { observer_ = std::move(observer); }
    // The faults in force, by service name.
    std::map<std::string, Fault> faults();

    // Queues answers for a method's next calls (after those queued), or
    // with none empties its queue. All queues together hold at most
    // kMaxAnswers answers and kAnswerBytes of their texts, so that a dump
    // showing them still fits its reply: past that all are refused, and
    // the answer says why ("" when queued).
    static constexpr std::size_t kMaxAnswers = 256;
    static constexpr std::size_t kAnswerBytes = 64 * 1024;
    std::string queue(const Method &method, std::vector<Answer> answers);
    // The queued answers, by "service.method", as their texts.
    std::map<std::string, std::vector<std::string>> queued();
    // With the device's lock held (see lock()): no fault, no queued answer,
    // every delayed call released.
    void clear_locked();
    std::map<const Service *, Fault> &faults_locked() { return faults_; }

    // Every call served, and the trace line of something else the
    // simulator did (a scenario's step, a broadcast of its own): to the
    // trace and the observer, not the log.
    CallLog &calls() { return calls_; }
    void note(Json line);
    // Told when a control request starts (true) and ends (false) holding
    // its serving thread (a wait), as with delays: see on_delay.
    void holding(bool starts);

    // Held while the device's state is read or changed.
    std::mutex &lock() { return mutex_; }

private:
    const Service *target(const binder_transaction_data &txn) const;
    void record(const char *service, uint32_t code, const binder_io &msg);
    // The fault to apply to this call, after counting it.
    bool take_fault(const Service *service, Fault &fault);

    Device &device_;
    std::vector<Service> services_;
    const Service *extra_ = nullptr;
    std::FILE *record_;
    std::FILE *trace_;
    std::unique_ptr<TraceWriter> trace_writer_;
    std::mutex mutex_;
    std::map<const Service *, Fault> faults_;
    // Heals per service, so that a delayed call sees the one that releases it.
    std::map<const Service *, uint64_t> heals_;
    std::condition_variable healed_;
    int delayed_ = 0;
    std::function<void(bool)> on_delay_;
    std::function<bool()> on_late_;
    Observer observer_;
    std::map<const Method *, std::deque<Answer>> answers_;
    std::size_t queued_answers_ = 0, queued_bytes_ = 0;
    CallLog calls_;
};

}  // namespace hmisvc::devsim

#endif
