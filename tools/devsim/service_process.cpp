#include "service_process.h"

#include "looper.h"
#include "svcmgr_client.h"

#include <binder/protocol.h>

#include <atomic>
#include <csignal>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hmisvc::devsim {

namespace {

// What goes between a service's process and the main process, each a frame:
// its length (32 bits, host order: both ends are one program), this head,
// then data_size bytes of data and offsets_count binder_size_t offsets.
enum Kind : uint32_t {
    kReady = 1,   // process -> main: the process serves (code 1: has published, status)
    kCall,        // process -> main: a transaction to answer
    kReply,       // main -> process: the answer (status, then data)
    kPublish,     // main -> process: publish the name
    kUnpublish,   // main -> process: drop the name
    kAnswer,      // process -> main: a command's status
};

struct Head {
    uint32_t kind = 0;
    uint32_t id = 0;
    uint32_t code = 0;
    uint32_t flags = 0;
    int32_t pid = 0;
    uint32_t euid = 0;
    int32_t status = 0;
    uint32_t data_size = 0;
    uint32_t offsets_count = 0;
};

struct Frame {
    Head head;
    std::vector<char> data;
    std::vector<binder_size_t> offsets;
};

bool write_all(int fd, const void *p, std::size_t n)
{
    auto *c = static_cast<const char *>(p);
    while (n) {
        ssize_t w = send(fd, c, n, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        c += w, n -= static_cast<std::size_t>(w);
    }
    return true;
}

bool read_all(int fd, void *p, std::size_t n)
{
    auto *c = static_cast<char *>(p);
    while (n) {
        ssize_t r = ::read(fd, c, n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        c += r, n -= static_cast<std::size_t>(r);
    }
    return true;
}

// One frame whole, under the sender's lock (several threads send on one
// socket).
bool send_frame(int fd, std::mutex &lock, Head head, const void *data, const binder_size_t *offsets)
{
    uint32_t length = static_cast<uint32_t>(sizeof head + head.data_size + head.offsets_count * sizeof(binder_size_t));
    std::vector<char> out(sizeof length + length);
    char *p = out.data();
    std::memcpy(p, &length, sizeof length), p += sizeof length;
    std::memcpy(p, &head, sizeof head), p += sizeof head;
    if (head.data_size)
        std::memcpy(p, data, head.data_size), p += head.data_size;
    if (head.offsets_count)
        std::memcpy(p, offsets, head.offsets_count * sizeof(binder_size_t));
    std::lock_guard<std::mutex> hold(lock);
    return write_all(fd, out.data(), out.size());
}

// Frames are at most a transaction's size (the driver's mapping) and a head.
constexpr uint32_t kMaxFrame = 4u * 1024 * 1024;

bool read_frame(int fd, Frame &frame)
{
    uint32_t length = 0;
    if (!read_all(fd, &length, sizeof length) || length < sizeof frame.head || length > kMaxFrame ||
        !read_all(fd, &frame.head, sizeof frame.head))
        return false;
    std::size_t rest = length - sizeof frame.head;
    std::size_t offsets_bytes = std::size_t{frame.head.offsets_count} * sizeof(binder_size_t);
    if (frame.head.data_size > rest || rest - frame.head.data_size != offsets_bytes)
        return false;
    frame.data.resize(frame.head.data_size);
    frame.offsets.resize(frame.head.offsets_count);
    return read_all(fd, frame.data.data(), frame.data.size()) &&
           read_all(fd, frame.offsets.data(), offsets_bytes);
}

// Threads kept free to serve in a service's process. A call the main
// process delays (`sim fail --delay-ms`) keeps the thread that took it (its
// reply goes out on it), so a thread is added whenever fewer than these are
// free, up to one for each call the main process may delay at once.
constexpr int kServiceLoopers = 4;
constexpr int kMaxServiceThreads = kServiceLoopers + Simulator::kMaxDelayed;

// The pid of a process running now, as /proc/PID/stat tells it: its state
// and parent. False when it has gone (or is a zombie: it holds nothing).
bool running(pid_t pid, pid_t *parent = nullptr)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    std::FILE *f = std::fopen(path, "r");
    if (!f)
        return false;
    char text[512];
    std::size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    text[n] = '\0';
    // The name in parentheses may hold anything: read past its last ')'.
    char state = 0;
    int ppid = 0;
    const char *rest = std::strrchr(text, ')');
    if (!rest || std::sscanf(rest + 1, " %c %d", &state, &ppid) != 2 || state == 'Z' || state == 'X')
        return false;
    if (parent)
        *parent = ppid;
    return true;
}

// Whether PID runs this program: 1 yes, 0 no, -1 cannot tell (a process
// ending has no program any more).
int this_program(pid_t pid)
{
    struct stat ours {}, theirs {};
    if (stat("/proc/self/exe", &ours) != 0 || stat(("/proc/" + std::to_string(pid) + "/exe").c_str(), &theirs) != 0)
        return -1;
    return ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
}

// How long a new simulator waits for the process of a stopped one that
// still holds a name; it ends within moments (its main process has gone,
// see run_service_process), this only bounds a process that does not.
constexpr int kOrphanWaitMs = 5000;

// Publishes the service's name. Held by a service's process of a simulator
// that has stopped (its parent is no running simulator: one that was
// killed, its processes ending a moment later), its end is waited for, on
// the event, and the name published then. One of a running simulator, or
// another program's, keeps the name: refused at once.
int publish_name(binder_connection *bs, tools::Publisher &publisher, const std::string &name, void *object)
{
    int status = publisher.publish(name, object);
    if (status == 0 || status == -1)
        return status;
    pid_t holder = tools::svcmgr_holder(bs, name.c_str());
    if (holder <= 0 || holder == getpid())
        return status;
    pid_t parent = 0;
    if (!running(holder, &parent))  // ended since
        return publisher.publish(name, object);
    bool simulator_runs = running(parent) && this_program(parent) == 1;
    if (simulator_runs || this_program(holder) == 0)
        return status;
#ifdef SYS_pidfd_open
    int ended = static_cast<int>(syscall(SYS_pidfd_open, holder, 0));
    if (ended < 0)
        return errno == ESRCH ? publisher.publish(name, object) : status;
    std::fprintf(stderr, "hmisvc-devsim: \"%s\" is held by pid %d, a process of a simulator that stopped: "
                 "waiting for it to end\n", name.c_str(), static_cast<int>(holder));
    pollfd p{ended, POLLIN, 0};
    while (poll(&p, 1, kOrphanWaitMs) < 0 && errno == EINTR) {
    }
    close(ended);
    return publisher.publish(name, object);
#else
    return status;
#endif
}

}  // namespace

// ---- the service's process ----

int run_service_process(const std::string &name, int fd, bool publish)
{
    // A terminal's signals go to the whole group: the main process's death
    // ends this one (its socket closes), not a Ctrl-C of its own that the
    // main process would take for a fault and restart.
    for (int sig : {SIGINT, SIGQUIT, SIGHUP})
        std::signal(sig, SIG_IGN);
    std::signal(SIGTERM, SIG_DFL);  // not the main process's stop (a fork inherits it)
    // Nor does it outlive the main process when that is killed outright
    // while this one does not run (stopped, or starved of CPU): until it
    // would read its socket's end, it would hold the service's name and
    // the next simulator could not publish it. (The main process forks its
    // processes from threads that live as long as it does.)
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    binder_connection *bs = binder_open(1024 * 1024);
    if (!bs)
        return 1;
    tools::Publisher publisher(bs);
    publisher.claim_names();  // kept for this program across the process's restart
    static char object;       // the service's address; its answers come from the main process
    std::mutex send_lock, replies_lock;
    std::condition_variable replied;
    std::map<uint32_t, Frame> replies;
    std::atomic<uint32_t> next_id{1};

    std::mutex threads_lock;
    int serving = kServiceLoopers, busy = 0;
    tools::TxnHandler handler;
    auto serve_more = [&] {
        std::thread([&] { tools::serve(bs, handler, kReplyArea, false); }).detach();
    };
    handler = [&](const binder_transaction_data &txn, binder_io &msg, binder_io &reply) {
        {
            std::lock_guard<std::mutex> hold(threads_lock);
            if (serving - ++busy < kServiceLoopers && serving < kMaxServiceThreads) {
                ++serving;
                serve_more();
            }
        }
        struct Done {
            std::mutex &lock;
            int &busy;
            ~Done()
            {
                std::lock_guard<std::mutex> hold(lock);
                --busy;
            }
        } done{threads_lock, busy};
        Head head;
        head.kind = kCall;
        head.id = next_id++;
        head.code = txn.code;
        head.flags = txn.flags;
        head.pid = txn.sender_pid;
        head.euid = txn.sender_euid;
        head.data_size = static_cast<uint32_t>(txn.data_size);
        head.offsets_count = static_cast<uint32_t>(txn.offsets_size / sizeof(binder_size_t));
        (void)msg;
        if (!send_frame(fd, send_lock, head, binder::native_ptr<char>(txn.data.ptr.buffer),
                        binder::native_ptr<binder_size_t>(txn.data.ptr.offsets)))
            std::_Exit(0);  // the main process is gone: so is the simulator
        std::unique_lock<std::mutex> lock(replies_lock);
        replied.wait(lock, [&] { return replies.count(head.id) != 0; });
        Frame answer = std::move(replies[head.id]);
        replies.erase(head.id);
        lock.unlock();
        if (answer.head.status != 0)
            return static_cast<int>(answer.head.status);
        if (answer.data.size() > reply.data_left || answer.offsets.size() > reply.offsets_left)
            return tools::kFailTransaction;
        std::memcpy(reply.cursor, answer.data.data(), answer.data.size());
        reply.cursor += answer.data.size();
        reply.data_left -= static_cast<uint32_t>(answer.data.size());
        for (binder_size_t off : answer.offsets)
            *reply.offsets_cursor++ = off, --reply.offsets_left;
        return 0;
    };
    // Replies as large as the main process's own.
    std::thread([&] { tools::serve(bs, handler, kReplyArea, true); }).detach();
    for (int i = 1; i < kServiceLoopers; ++i)
        serve_more();
    publisher.watch();

    Head ready;
    ready.kind = kReady;
    ready.pid = getpid();
    if (publish) {
        ready.code = 1;
        ready.status = publish_name(bs, publisher, name, &object);
    }
    send_frame(fd, send_lock, ready, nullptr, nullptr);
    for (Frame frame; read_frame(fd, frame);) {
        if (frame.head.kind == kReply) {
            std::lock_guard<std::mutex> lock(replies_lock);
            replies[frame.head.id] = std::move(frame);
            replied.notify_all();
        } else if (frame.head.kind == kPublish || frame.head.kind == kUnpublish) {
            Head answer;
            answer.kind = kAnswer;
            answer.id = frame.head.id;
            answer.status = frame.head.kind == kPublish ? publish_name(bs, publisher, name, &object)
                                                        : publisher.unpublish(name, &object);
            send_frame(fd, send_lock, answer, nullptr, nullptr);
        }
    }
    // The main process ended: the simulator with it.
    std::_Exit(0);
}

// ---- the main process's side ----

// One process's socket: closed when the last thread answering on it lets go,
// so that its number is not reused (by the next process's socket) while a
// late answer may still be sent on it.
struct ServiceLink {
    int fd;
    std::mutex send_lock;
    bool ended = false;  // its process: set under the simulator's lock
    explicit ServiceLink(int f) : fd(f) {}
    ~ServiceLink() { close(fd); }
    bool send(const Head &head, const void *data = nullptr, const binder_size_t *offsets = nullptr)
    {
        return send_frame(fd, send_lock, head, data, offsets);
    }
};

namespace {

// The main process's stop (SIGTERM, SIGINT, SIGHUP): its services'
// processes are killed and reaped before it ends, so that once its parent
// sees it gone they are gone too, their names free for the next
// simulator. Read by the signal handler: lock-free atomics only.
constexpr std::size_t kMaxProcesses = 64;
std::atomic<pid_t> running_pids[kMaxProcesses];
std::atomic<pid_t> main_pid{0};
std::atomic<bool> stopped{false};

void kill_and_reap()
{
    // Not in a fork that has yet to become a service's process.
    if (getpid() != main_pid.load())
        return;
    stopped = true;
    for (auto &p : running_pids)
        if (pid_t pid = p.load(); pid > 0)
            kill(pid, SIGKILL);
    // One its reading thread reaps meanwhile is gone as well (ECHILD).
    for (auto &p : running_pids)
        if (pid_t pid = p.load(); pid > 0)
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
}

void stop_on_signal(int sig)
{
    kill_and_reap();
    std::signal(sig, SIG_DFL);
    raise(sig);  // ends the process as the signal would have
}

}  // namespace

void ServiceProcesses::end_all() { kill_and_reap(); }

struct ServiceProcesses::Child {
    std::string name;
    std::size_t slot = 0;  // in running_pids
    const Service *service = nullptr;
    pid_t pid = 0;  // 0: down
    std::shared_ptr<ServiceLink> link;
    bool ready = false;
    bool want_published = false;
    bool republished = false;  // published as wanted since its launch (or told why not)
    int published_status = 0;  // the service manager's answer to that
    bool crashed = false;    // killed by `sim crash`: down until restarted
    uint64_t generation = 0;  // launches, so that a scheduled restart finds out it is stale
    int restarts = 0;
    std::atomic<int> calls{0};  // forwarded and not answered yet
    std::map<uint32_t, int> answers;
};

ServiceProcesses::ServiceProcesses(binder_connection *bs, Simulator &simulator, std::string program)
    : tools::Publisher(bs), simulator_(simulator), program_(std::move(program))
{
    // Every device service, the broadcast service too (its requests carry
    // names, not binder objects); the control service stays here.
    simulator_.on_late(&ServiceProcesses::call_wanted);
    for (const Service &s : simulator_.services()) {
        auto child = std::make_unique<Child>();
        child->slot = children_.size() % kMaxProcesses;
        child->name = s.name;
        child->service = &s;
        children_[s.name] = std::move(child);
    }
}

ServiceProcesses::~ServiceProcesses()
{
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (auto &entry : children_)
        if (entry.second->pid > 0)
            kill(entry.second->pid, SIGKILL);
    changed_.notify_all();
    launch_.notify_all();
}

namespace {

// In a child of the main process: closes every descriptor past the standard
// ones but `keep`; nothing else of the main process's (its binder
// connection least of all: the driver must see the main process end when it
// does, and the other services' sockets theirs).
void close_except(int keep)
{
    auto close_from_to = [](unsigned first, unsigned last) {
        if (first <= last && syscall(SYS_close_range, first, last, 0u) != 0)
            for (unsigned fd = first; fd <= last && fd < 4096; ++fd)
                close(static_cast<int>(fd));
    };
    close_from_to(3, static_cast<unsigned>(keep) - 1);
    close_from_to(static_cast<unsigned>(keep) + 1, ~0u);
}

// Whether the calling process runs one thread. Its fork may then go on as a
// service's process: no other thread can hold a lock the child would find
// taken. Started while the main process has more (a restart, once it
// serves), a service's process is the program started afresh.
bool one_thread()
{
    std::FILE *status = std::fopen("/proc/self/status", "r");
    if (!status)
        return false;
    char line[256];
    int threads = 0;
    while (std::fgets(line, sizeof line, status))
        if (std::sscanf(line, "Threads: %d", &threads) == 1)
            break;
    std::fclose(status);
    return threads == 1;
}

}  // namespace

std::string ServiceProcesses::start(const std::set<std::string> &publish)
{
    std::unique_lock<std::mutex> lock(mutex_);
    main_pid = getpid();
    // As it was, when the shell ignores it (a background job's SIGINT).
    for (int sig : {SIGTERM, SIGINT, SIGHUP})
        if (struct sigaction was {}; sigaction(sig, nullptr, &was) == 0 && was.sa_handler != SIG_IGN)
            std::signal(sig, stop_on_signal);
    // Each publishes its name as soon as it serves, all at once.
    for (auto &entry : children_)
        entry.second->want_published = publish.count(entry.first) != 0;
    // All forked before the first thread that reads them starts, so that
    // each is a fork of a process with one thread (see one_thread()).
    bool alone = one_thread();
    for (auto &entry : children_)
        launch(*entry.second, alone, false);
    for (auto &entry : children_)
        if (Child &c = *entry.second; c.link)
            std::thread(&ServiceProcesses::read_loop, this, &c, c.link, c.pid).detach();
    // Each process says when it serves; a bound only against one that hangs.
    changed_.wait_for(lock, std::chrono::seconds(30), [this] {
        for (auto &entry : children_)
            if (!entry.second->ready || !entry.second->republished)
                return false;
        return true;
    });
    for (auto &entry : children_)
        if (!entry.second->ready)
            return "the process of \"" + entry.first + "\" did not start within 30 s";
    return {};
}

// With mutex_ held.
void ServiceProcesses::launch(Child &child, bool fork_only, bool read)
{
    if (stopped)
        return;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        std::fprintf(stderr, "hmisvc-devsim: cannot start the process of \"%s\": %s\n", child.name.c_str(),
                     std::strerror(errno));
        return;
    }
    // Built before the fork: the child of a threaded process may only make
    // async-signal-safe calls until it execs.
    std::string arg = child.name + ",3";
    const char *argv[] = {program_.c_str(), kServiceProcessOption, arg.c_str(), nullptr};
    pid_t pid = fork();
    if (pid == 0 && fork_only) {
        // Nothing else of the main process's, as below; the child serves at
        // once, without loading the program again, and publishes its name
        // itself (no round trip through this process).
        close_except(fds[1]);
        std::_Exit(run_service_process(child.name, fds[1], child.want_published));
    }
    if (pid == 0) {
        if (fds[1] != 3)
            dup2(fds[1], 3);
        fcntl(3, F_SETFD, 0);
        close_except(3);
        execv(program_.c_str(), const_cast<char **>(argv));
        _exit(127);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        std::fprintf(stderr, "hmisvc-devsim: cannot start the process of \"%s\": %s\n", child.name.c_str(),
                     std::strerror(errno));
        return;
    }
    child.pid = pid;
    running_pids[child.slot] = pid;
    if (stopped)  // forked as the stop's handler ran: killed as it would have
        kill(pid, SIGKILL);
    child.link = std::make_shared<ServiceLink>(fds[0]);
    child.ready = child.republished = child.crashed = false;
    if (child.generation++ > 0)
        ++child.restarts;
    if (read)
        std::thread(&ServiceProcesses::read_loop, this, &child, child.link, pid).detach();
}

namespace {

// Answers one forwarded call from the one state.
void answer(Simulator &simulator, const Service *service, const std::shared_ptr<ServiceLink> &link, Frame frame)
{
    binder_transaction_data txn{};
    txn.target.ptr = object_word(service);
    txn.code = frame.head.code;
    txn.flags = frame.head.flags;
    txn.sender_pid = frame.head.pid;
    txn.sender_euid = frame.head.euid;
    txn.data_size = frame.data.size();
    txn.offsets_size = frame.offsets.size() * sizeof(binder_size_t);
    txn.data.ptr.buffer = binder::wire_ptr(frame.data.data());
    txn.data.ptr.offsets = binder::wire_ptr(frame.offsets.data());
    binder_io msg, reply;
    bio_init_from_txn(&msg, &txn);
    // Not zeroed: only the pages the reply reaches are touched.
    std::unique_ptr<char[]> area(new char[kReplyArea]);
    bio_init(&reply, area.get(), static_cast<uint32_t>(kReplyArea), 4);
    Head head;
    head.kind = kReply;
    head.id = frame.head.id;
    head.status = simulator.handle(txn, msg, reply);
    binder_transaction_data out = binder::txn_over(&reply);
    if (head.status == 0) {
        head.data_size = static_cast<uint32_t>(out.data_size);
        head.offsets_count = static_cast<uint32_t>(out.offsets_size / sizeof(binder_size_t));
    }
    // Sent on the process's own socket: if it died meanwhile, nobody reads.
    link->send(head, reply.data_start, reinterpret_cast<const binder_size_t *>(reply.offsets_start));
}

}  // namespace

namespace {

// Set while a thread reading a service's process answers one of its calls:
// hands the reading on to a new thread.
thread_local std::function<void()> *hand_on = nullptr;
// And the link it answers on.
thread_local ServiceLink *answering = nullptr;

}  // namespace

bool ServiceProcesses::call_wanted() { return !answering || !answering->ended; }

bool ServiceProcesses::delaying(bool starts)
{
    if (!hand_on)
        return false;
    if (starts && *hand_on) {
        (*hand_on)();
        *hand_on = nullptr;
    }
    return true;
}

void ServiceProcesses::read_loop(Child *child, std::shared_ptr<ServiceLink> link, pid_t pid)
{
    for (Frame frame; read_frame(link->fd, frame);) {
        if (frame.head.kind == kCall) {
            // Answered here, as the main process's own threads answer: a
            // call that is delayed keeps this thread and a new one reads
            // on, so that a thread is added only for a call that waits.
            bool handed_on = false;
            std::function<void()> hand = [&] {
                handed_on = true;
                std::thread(&ServiceProcesses::read_loop, this, child, link, pid).detach();
            };
            ++child->calls;
            hand_on = &hand;
            answering = link.get();
            answer(simulator_, child->service, link, std::move(frame));
            hand_on = nullptr;
            answering = nullptr;
            --child->calls;
            if (handed_on)
                return;
            continue;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (frame.head.kind == kReady) {
            child->ready = true;
            // Published as it was (at the start: as asked), unless it
            // published itself (code 1, with the service manager's answer).
            Head publish;
            publish.kind = kPublish;
            if (frame.head.code == 1) {
                child->republished = true;
                child->published_status = frame.head.status;
            } else if (!child->want_published || !link->send(publish)) {
                child->republished = true;
            }
        } else if (frame.head.kind == kAnswer) {
            if (frame.head.id == 0) {
                child->republished = true;
                child->published_status = frame.head.status;
                if (frame.head.status != 0 && child->restarts > 0)
                    std::fprintf(stderr, "hmisvc-devsim: \"%s\" restarted but not published again (status %d)\n",
                                 child->name.c_str(), frame.head.status);
            }
            child->answers[frame.head.id] = frame.head.status;
        }
        changed_.notify_all();
    }
    // Its delayed calls that go on from here change nothing (see on_late).
    {
        std::lock_guard<std::mutex> hold(simulator_.lock());
        link->ended = true;
    }
    // Ended, not reaped yet: from here the stop need not wait for it, and
    // cannot kill another process that takes its pid.
    siginfo_t ended{};
    while (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    running_pids[child->slot] = 0;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (stopped)
        return;
    if (on_end_)
        on_end_(child->name);
    std::unique_lock<std::mutex> lock(mutex_);
    child->pid = 0;
    child->ready = false;
    child->link.reset();
    child->answers.clear();
    changed_.notify_all();
    if (stopping_ || child->crashed)
        return;
    // Not killed by us: a fault of the simulator. Said, and restarted; the
    // state is the main process's and survives it.
    if (WIFEXITED(status))
        std::fprintf(stderr, "hmisvc-devsim: the process of \"%s\" (pid %d) exited with status %d; restarting it\n",
                     child->name.c_str(), pid, WEXITSTATUS(status));
    else
        std::fprintf(stderr, "hmisvc-devsim: the process of \"%s\" (pid %d) was killed by signal %d; restarting it\n",
                     child->name.c_str(), pid, WTERMSIG(status));
    relaunch(*child, lock);
}

void ServiceProcesses::relaunch(Child &child, std::unique_lock<std::mutex> &lock)
{
    uint64_t ticket = ++launches_asked_;
    to_launch_.push_back(&child);
    if (!launcher_) {
        std::thread(&ServiceProcesses::run_launcher, this).detach();
        launcher_ = true;
    }
    launch_.notify_one();
    changed_.wait(lock, [&] { return launches_done_ >= ticket || stopping_; });
}

void ServiceProcesses::run_launcher()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        launch_.wait(lock, [this] { return stopping_ || !to_launch_.empty(); });
        if (stopping_)
            return;
        Child *c = to_launch_.front();
        to_launch_.pop_front();
        launch(*c);
        ++launches_done_;
        changed_.notify_all();
    }
}

int ServiceProcesses::command(Child &child, uint32_t kind)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!child.link || !child.ready)
        return -1;
    Head head;
    head.kind = kind;
    head.id = next_id_++;
    std::shared_ptr<ServiceLink> link = child.link;
    lock.unlock();
    if (!link->send(head))
        return -1;
    lock.lock();
    changed_.wait(lock, [&] { return child.answers.count(head.id) != 0 || child.link != link || stopping_; });
    auto it = child.answers.find(head.id);
    if (it == child.answers.end())
        return -1;
    int status = it->second;
    child.answers.erase(it);
    return status;
}

ServiceProcesses::Child *ServiceProcesses::child(const std::string &name) const
{
    auto it = children_.find(name);
    return it == children_.end() ? nullptr : it->second.get();
}

int ServiceProcesses::publish(const std::string &name, void *object)
{
    Child *c = child(name);
    return c ? set_published(*c, true) : tools::Publisher::publish(name, object);
}

int ServiceProcesses::unpublish(const std::string &name, void *object)
{
    Child *c = child(name);
    return c ? set_published(*c, false) : tools::Publisher::unpublish(name, object);
}

int ServiceProcesses::set_published(Child &c, bool published)
{
    int status = command(c, published ? kPublish : kUnpublish);
    std::lock_guard<std::mutex> lock(mutex_);
    // A crashed service is published (or not) when it is back.
    if (status == 0 || c.crashed)
        c.want_published = published;
    return c.crashed ? 0 : status;
}

bool ServiceProcesses::published(const std::string &name) const
{
    Child *c = child(name);
    if (!c)
        return tools::Publisher::published(name);
    std::lock_guard<std::mutex> lock(mutex_);
    return c->want_published;
}

std::string ServiceProcesses::down_locked(const Child &c) const
{
    if (!c.crashed && c.pid != 0)
        return {};
    return c.crashed ? "crashed; `hmisvc sim restart " + c.name + "` brings it back" : "restarting";
}

std::string ServiceProcesses::down(const std::string &name) const
{
    Child *c = child(name);
    std::lock_guard<std::mutex> lock(mutex_);
    return c ? down_locked(*c) : std::string();
}

std::string ServiceProcesses::crash(const std::string &name, int restart_after_ms)
{
    Child *c = child(name);
    std::unique_lock<std::mutex> lock(mutex_);
    if (std::string why = down_locked(*c); !why.empty())
        return name + " is already down (" + why + ")";
    c->crashed = true;
    pid_t pid = c->pid;
    kill(pid, SIGKILL);
    // Answered once it is gone, so that the name is dropped by then too; a
    // bound only against a process the kernel does not end.
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return c->pid != pid; });
    if (restart_after_ms >= 0) {
        uint64_t generation = c->generation;
        std::thread([this, c, generation, restart_after_ms] {
            std::unique_lock<std::mutex> hold(mutex_);
            changed_.wait_for(hold, std::chrono::milliseconds(restart_after_ms), [&] { return stopping_; });
            // Not when restarted by hand meanwhile, or the simulator stops.
            if (!stopping_ && c->crashed && c->generation == generation && c->pid == 0)
                relaunch(*c, hold);
        }).detach();
    }
    return {};
}

std::string ServiceProcesses::restart(const std::string &name)
{
    Child *c = child(name);
    std::unique_lock<std::mutex> lock(mutex_);
    if (!c->crashed)
        return name + " is running (pid " + std::to_string(c->pid) + "); `hmisvc sim crash " + name + "` ends it";
    relaunch(*c, lock);
    // Answered once it serves and is published again (when it was).
    pid_t pid = c->pid;
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return c->republished || c->pid != pid; });
    if (!c->republished)
        return "the process of \"" + name + "\" did not come back";
    return {};
}

int ServiceProcesses::start_status(const std::string &name) const
{
    Child *c = child(name);
    std::lock_guard<std::mutex> lock(mutex_);
    return c->published_status;
}

std::vector<ServiceProcesses::Status> ServiceProcesses::status() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Status> out;
    for (const auto &entry : children_)
        out.push_back({entry.first, entry.second->pid, entry.second->restarts, entry.second->crashed,
                       entry.second->calls.load()});
    return out;
}

}  // namespace hmisvc::devsim
