// The driver's model, the same for both widths: processes with their
// threads, nodes (local objects) and refs (handles), transactions and the
// work each thread or process has to read, and the buffers in each
// process's mapping.
#ifndef HMISVC_BINDERD_MODEL_H
#define HMISVC_BINDERD_MODEL_H

#include "protocol.h"

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace binderd {

struct Proc;
struct Thread;
struct Txn;

// Returns that carry no payload and so are the same in both widths.
constexpr uint32_t kDeadReply = io('r', 5);
constexpr uint32_t kFailedReply = io('r', 17);

// Increfs and Acquire tell a process that one of its objects is referenced
// from elsewhere for the first time.
enum class WorkKind { Txn, Complete, Error, DeadBinder, ClearDeathDone, Increfs, Acquire };

struct Work {
    explicit Work(WorkKind k, std::shared_ptr<Txn> t = {}, uint32_t e = 0, uint64_t c = 0,
                  uint64_t p = 0)
        : kind(k), txn(std::move(t)), error(e), cookie(c), ptr(p)
    {
    }
    WorkKind kind;
    std::shared_ptr<Txn> txn;
    uint32_t error;  // WorkKind::Error: kDeadReply or kFailedReply
    uint64_t cookie; // death notifications; a node's cookie
    uint64_t ptr;    // a node's pointer
};

struct Node {
    Node(Proc *o, uint64_t p, uint64_t c) : owner(o), ptr(p), cookie(c) {}
    Proc *owner;
    uint64_t ptr, cookie;
    bool dead = false;
    bool async_busy = false;        // a one-way transaction is out: later ones wait
    std::deque<Work> async_todo;
};

struct Ref {
    std::shared_ptr<Node> node;
    uint32_t handle;
    int strong = 0, weak = 0;
    std::optional<uint64_t> death; // the cookie to report the node's death with
};

// A buffer in a process's mapping; while it is out it holds the references
// its objects gave the process.
struct Buffer {
    uint64_t size;
    bool async = false;
    std::shared_ptr<Node> async_node;
    std::vector<uint32_t> held; // handles, one strong count each
};

struct Txn {
    bool reply = false;
    uint32_t code = 0, flags = 0;
    int32_t sender_pid = 0;
    uint32_t sender_euid = 0;
    std::weak_ptr<Thread> from;
    std::shared_ptr<Txn> from_parent;
    std::weak_ptr<Thread> to_thread;
    std::shared_ptr<Txn> to_parent;
    std::shared_ptr<Node> node; // the target (null for replies)
    uint64_t offset = 0, data_size = 0, offsets_size = 0;
};

constexpr uint32_t kLooperRegistered = 1, kLooperEntered = 2;

struct Thread {
    Proc *proc;
    int fd;
    uint32_t looper = 0;
    std::deque<Work> todo;
    bool process_todo = false; // false while only a deferred completion waits
    std::shared_ptr<Txn> stack;
    bool dead = false;
    bool waiting = false;             // a read is pending; its answer not yet sent
    std::vector<unsigned char> pending; // the waiting read's write-read argument
    bool polls = false; // reads non-blocking: made readable when it has work
    bool woken = false; // a wake-up was sent since its last request
};

struct Proc {
    uint64_t token;
    pid_t pid;
    uid_t euid;
    int main_fd;
    int memfd = -1;
    unsigned char *map = nullptr;
    uint64_t size = 0, base = 0, async_free = 0;
    bool mapped = false;
    std::map<uint64_t, uint64_t> free_space; // offset -> length
    std::map<uint64_t, Buffer> buffers;      // offset -> buffer
    std::map<uint64_t, std::shared_ptr<Node>> nodes;
    std::map<uint32_t, Ref> refs;
    std::map<const Node *, uint32_t> handle_of;
    std::deque<Work> todo;
    std::map<int, std::shared_ptr<Thread>> threads;
    uint32_t max_threads = 0, requested = 0, started = 0;
};

class Model {
public:
    virtual ~Model() = default;

protected:
    // The read of `t`, if it waits, is answered when it has something to read.
    virtual void wake(Thread &t) = 0;

    Proc *new_proc(int fd, pid_t pid, uid_t euid, uint64_t size);
    // Lowest free offset able to take `size` bytes, within the one-way half
    // for async buffers.
    std::optional<uint64_t> alloc(Proc &p, uint64_t size, bool async);
    void free_buffer(Proc &p, uint64_t offset);

    Ref *ref(Proc &p, uint32_t handle);
    Ref &ref_for(Proc &p, const std::shared_ptr<Node> &node);
    void put_ref(Proc &p, Ref &r, bool strong);

    bool proc_work_for(const Thread &t) const;
    // Whether a read of `t` would return something now.
    bool has_work(const Thread &t) const;
    void queue_thread(Thread &t, Work w, bool deferred = false);
    void queue_proc(Proc &p, Work w);
    void fail_reply(const std::shared_ptr<Txn> &t, uint32_t error);
    void release_thread(Thread &t);
    void release_proc(Proc &p);

    std::map<uint64_t, std::unique_ptr<Proc>> procs_;
    std::map<int, Thread *> threads_;
    std::shared_ptr<Node> context_;
    uint64_t next_token_ = 1;
};

} // namespace binderd

#endif
