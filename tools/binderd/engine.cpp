#include "engine.h"

#include "model.h"
#include "protocol.h"
#include "seam_wire.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace binderd {

namespace seam = hmisvc::binder::seam;

namespace {

constexpr uint64_t kPage = 4096;
constexpr uint64_t kMaxMapping = 4 * 1024 * 1024; // what the kernel maps at most

uint64_t align(uint64_t n, uint64_t to) { return (n + to - 1) / to * to; }

// The bytes of one request, read front to back.
struct Reader {
    const unsigned char *p, *end;
    bool take(void *out, size_t n)
    {
        if (static_cast<size_t>(end - p) < n)
            return false;
        std::memcpy(out, p, n);
        p += n;
        return true;
    }
    const unsigned char *skip(size_t n)
    {
        if (static_cast<size_t>(end - p) < n)
            return nullptr;
        const unsigned char *at = p;
        p += n;
        return at;
    }
};

template <typename P>
class Engine final : public Handler, private Model {
    using W = Protocol<P>;
    using TxnData = typename W::TxnData;
    using WriteRead = typename W::WriteRead;
    using Flat = typename W::FlatObject;

public:
    void packet(int fd, const ucred &cred, const unsigned char *data, size_t size) override;
    void hangup(int fd) override;
    size_t processes() const override { return procs_.size(); }

private:
    void wake(Thread &t) override
    {
        read(t);
        notify(t);
    }
    // Makes the connection of a polling thread with work readable.
    void notify(Thread &t)
    {
        if (t.polls && !t.woken && !t.waiting && !t.dead && has_work(t)) {
            t.woken = true;
            const seam::Answer a{seam::kWakeUp, 0, 0};
            send_packet(t.fd, &a, sizeof a);
        }
    }
    void dispatch(int fd, const ucred &cred, const unsigned char *data, size_t size);

    void answer(int fd, int error, int result, uint64_t value = 0, const void *extra = nullptr,
                size_t extra_size = 0, int pass_fd = -1);
    void open(int fd, const ucred &cred, uint64_t size);
    void ioctl(Thread &t, uint32_t request, uint64_t how, Reader in);
    int write(Thread &t, Reader &in, P &consumed, P size);
    void read(Thread &t);
    void transact(Thread &t, const TxnData &d, const unsigned char *data,
                  const unsigned char *offsets, bool reply);
    bool translate(Thread &sender, Proc &to, unsigned char *data, uint64_t data_size,
                   const unsigned char *offsets, uint64_t count, Buffer &buffer);
    void refcount(Proc &p, uint32_t cmd, uint32_t handle);
    void death(Thread &t, uint32_t cmd, uint32_t handle, uint64_t cookie);
    size_t encode(Thread &t, const Work &w, unsigned char *out);
    static size_t encoded_size(const Work &w);
    void queue_error(Thread &t, uint32_t error) { queue_thread(t, Work{WorkKind::Error, nullptr, error}); }
};

template <typename P>
void Engine<P>::answer(int fd, int error, int result, uint64_t value, const void *extra,
                       size_t extra_size, int pass_fd)
{
    std::vector<unsigned char> out(sizeof(seam::Answer) + extra_size);
    seam::Answer a{error, result, value};
    std::memcpy(out.data(), &a, sizeof a);
    if (extra_size)
        std::memcpy(out.data() + sizeof a, extra, extra_size);
    send_packet(fd, out.data(), out.size(), pass_fd);
}

template <typename P>
void Engine<P>::packet(int fd, const ucred &cred, const unsigned char *data, size_t size)
{
    // A posted write may come from another thread of the process (see
    // thread_agnostic in the seam): it answers no wake-up.
    seam::Request req{};
    std::memcpy(&req, data, std::min(size, sizeof req));
    auto known = threads_.find(fd);
    if (known != threads_.end() && !(req.op == seam::kIoctl && (req.value & seam::kPosted)))
        known->second->woken = false;
    dispatch(fd, cred, data, size);
    // Work left after the answer keeps a polling connection readable.
    known = threads_.find(fd);
    if (known != threads_.end())
        notify(*known->second);
}

template <typename P>
void Engine<P>::dispatch(int fd, const ucred &cred, const unsigned char *data, size_t size)
{
    Reader in{data, data + size};
    seam::Request req;
    if (!in.take(&req, sizeof req))
        return answer(fd, EINVAL, -1);
    auto known = threads_.find(fd);
    Thread *t = known == threads_.end() ? nullptr : known->second;
    switch (req.op) {
    case seam::kOpen:
        return t ? answer(fd, EINVAL, -1) : open(fd, cred, req.value);
    case seam::kAttach: {
        auto p = procs_.find(req.value);
        // Only a thread of the process that opened may join it.
        if (t || p == procs_.end() || p->second->pid != cred.pid)
            return answer(fd, EPERM, -1);
        auto thread = std::make_shared<Thread>();
        thread->proc = p->second.get();
        thread->fd = fd;
        p->second->threads[fd] = thread;
        threads_[fd] = thread.get();
        return answer(fd, 0, 0);
    }
    case seam::kMap:
        if (!t || t->proc->main_fd != fd || t->proc->mapped)
            return answer(fd, EINVAL, -1);
        t->proc->base = req.value;
        t->proc->mapped = true;
        return answer(fd, 0, 0);
    case seam::kIoctl:
        if (!t)
            return req.value & seam::kPosted ? hangup(fd) : answer(fd, EBADF, -1);
        return ioctl(*t, req.request, req.value, in);
    default:
        return answer(fd, EINVAL, -1);
    }
}

template <typename P>
void Engine<P>::open(int fd, const ucred &cred, uint64_t size)
{
    // Like the kernel's mapping: whole pages, at most 4 MB.
    size = std::min(align(std::max<uint64_t>(size, 1), kPage), kMaxMapping);
    const int memfd = memfd_create("binder", MFD_CLOEXEC);
    if (memfd < 0)
        return answer(fd, errno, -1);
    void *map = MAP_FAILED;
    if (ftruncate(memfd, static_cast<off_t>(size)) == 0)
        map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memfd, 0);
    if (map == MAP_FAILED) {
        const int error = errno;
        close(memfd);
        return answer(fd, error, -1);
    }
    Proc *p = new_proc(fd, cred.pid, cred.uid, size);
    p->memfd = memfd;
    p->map = static_cast<unsigned char *>(map);
    auto thread = std::make_shared<Thread>();
    thread->proc = p;
    thread->fd = fd;
    p->threads[fd] = thread;
    threads_[fd] = thread.get();
    answer(fd, 0, 0, p->token, nullptr, 0, memfd);
}

template <typename P>
void Engine<P>::hangup(int fd)
{
    auto known = threads_.find(fd);
    if (known == threads_.end()) {
        close_connection(fd);
        return;
    }
    Thread &t = *known->second;
    Proc &p = *t.proc;
    if (p.main_fd == fd) {
        release_proc(p);
        return;
    }
    auto keep = p.threads[fd];
    p.threads.erase(fd);
    release_thread(t);
}

template <typename P>
void Engine<P>::ioctl(Thread &t, uint32_t request, uint64_t how, Reader in)
{
    const bool posted = how & seam::kPosted, nonblock = how & seam::kNonBlock;
    if (nonblock)
        t.polls = true;
    Proc &p = *t.proc;
    uint32_t word = 0;
    if (request == W::WRITE_READ) {
        WriteRead bwr;
        if (!in.take(&bwr, sizeof bwr))
            return answer(t.fd, EFAULT, -1);
        if (posted) {
            // The caller did not wait: it checked that this write cannot fail.
            write(t, in, bwr.write_consumed, bwr.write_size);
            return;
        }
        if (bwr.write_size > bwr.write_consumed) {
            const int error = write(t, in, bwr.write_consumed, bwr.write_size);
            if (error) {
                bwr.read_consumed = 0;
                return answer(t.fd, error, -1, 0, &bwr, sizeof bwr);
            }
        }
        if (bwr.read_size <= bwr.read_consumed)
            return answer(t.fd, 0, 0, 0, &bwr, sizeof bwr);
        t.pending.assign(reinterpret_cast<unsigned char *>(&bwr),
                         reinterpret_cast<unsigned char *>(&bwr) + sizeof bwr);
        t.waiting = true;
        read(t);
        if (t.waiting && nonblock) {
            t.waiting = false;
            return answer(t.fd, EAGAIN, -1, 0, &bwr, sizeof bwr);
        }
        return;
    }
    if (request == W::VERSION) {
        const int32_t version = W::kVersion;
        return answer(t.fd, 0, 0, 0, &version, sizeof version);
    }
    if (request == W::SET_MAX_THREADS) {
        if (!in.take(&word, sizeof word))
            return answer(t.fd, EFAULT, -1);
        p.max_threads = word;
        return answer(t.fd, 0, 0);
    }
    if (request == W::SET_CONTEXT_MGR) {
        if (context_)
            return answer(t.fd, EBUSY, -1);
        auto node = std::make_shared<Node>(&p, 0, 0);
        p.nodes[0] = node;
        context_ = node;
        return answer(t.fd, 0, 0);
    }
    if (request == W::THREAD_EXIT)
        return answer(t.fd, 0, 0);
    answer(t.fd, EINVAL, -1);
}

template <typename P>
int Engine<P>::write(Thread &t, Reader &in, P &consumed, P size)
{
    const unsigned char *const start = in.skip(size - consumed);
    if (!start)
        return EFAULT;
    Reader cmds{start, start + (size - consumed)};
    Proc &p = *t.proc;
    // Like the kernel, stop at the first error a read has yet to report.
    auto error_pending = [&] {
        return std::any_of(t.todo.begin(), t.todo.end(),
                           [](const Work &w) { return w.kind == WorkKind::Error; });
    };
    while (cmds.p < cmds.end && !error_pending()) {
        uint32_t cmd;
        if (!cmds.take(&cmd, sizeof cmd))
            return EFAULT;
        const unsigned char *arg = cmds.p;
        auto need = [&](size_t n) { return cmds.skip(n) != nullptr; };
        switch (cmd) {
        case W::BC_TRANSACTION:
        case W::BC_REPLY: {
            TxnData d;
            seam::Attachment a;
            if (!cmds.take(&d, sizeof d) || !in.take(&a, sizeof a))
                return EFAULT;
            const unsigned char *data = in.skip(a.data_size);
            const unsigned char *offsets = in.skip(a.offsets_size);
            if (!data || !offsets || a.data_size != d.data_size || a.offsets_size != d.offsets_size)
                return EFAULT;
            transact(t, d, data, offsets, cmd == W::BC_REPLY);
            break;
        }
        case W::BC_FREE_BUFFER: {
            P ptr;
            if (!cmds.take(&ptr, sizeof ptr))
                return EFAULT;
            // An address that is no buffer of ours is ignored, as the kernel does.
            if (ptr >= p.base)
                free_buffer(p, ptr - p.base);
            break;
        }
        case W::BC_INCREFS:
        case W::BC_ACQUIRE:
        case W::BC_RELEASE:
        case W::BC_DECREFS:
            if (!need(4))
                return EFAULT;
            refcount(p, cmd, load<uint32_t>(arg));
            break;
        case W::BC_INCREFS_DONE:
        case W::BC_ACQUIRE_DONE:
            if (!need(sizeof(typename W::PtrCookie)))
                return EFAULT;
            break;
        case W::BC_DEAD_BINDER_DONE:
            if (!need(sizeof(P)))
                return EFAULT;
            break;
        case W::BC_REGISTER_LOOPER:
            if (p.requested) {
                --p.requested;
                ++p.started;
            }
            t.looper |= kLooperRegistered;
            break;
        case W::BC_ENTER_LOOPER:
            t.looper |= kLooperEntered;
            break;
        case W::BC_EXIT_LOOPER:
            t.looper = 0;
            break;
        case W::BC_REQUEST_DEATH:
        case W::BC_CLEAR_DEATH:
            if (!need(W::kHandleCookie))
                return EFAULT;
            death(t, cmd, load<uint32_t>(arg), load<P>(arg + 4));
            break;
        default:
            return EINVAL;
        }
        consumed += static_cast<P>(cmds.p - arg + sizeof cmd);
    }
    return 0;
}

template <typename P>
void Engine<P>::refcount(Proc &p, uint32_t cmd, uint32_t handle)
{
    const bool strong = cmd == W::BC_ACQUIRE || cmd == W::BC_RELEASE;
    Ref *r = ref(p, handle);
    if (cmd == W::BC_INCREFS || cmd == W::BC_ACQUIRE) {
        // Handle 0 names the context manager before any reference to it.
        if (!r && handle == 0 && context_)
            r = &ref_for(p, context_);
        if (r)
            ++(strong ? r->strong : r->weak);
    } else if (r) {
        put_ref(p, *r, strong);
    }
}

template <typename P>
void Engine<P>::death(Thread &t, uint32_t cmd, uint32_t handle, uint64_t cookie)
{
    Proc &p = *t.proc;
    Ref *r = ref(p, handle);
    if (!r)
        return;
    auto notify = [&](WorkKind kind) {
        Work w{kind, nullptr, 0, cookie};
        if (t.looper & (kLooperRegistered | kLooperEntered))
            queue_thread(t, std::move(w));
        else
            queue_proc(p, std::move(w));
    };
    if (cmd == W::BC_REQUEST_DEATH) {
        if (r->death)
            return;
        r->death = cookie;
        if (r->node->dead)
            notify(WorkKind::DeadBinder);
    } else if (r->death && *r->death == cookie) {
        r->death.reset();
        notify(WorkKind::ClearDeathDone);
    }
}

template <typename P>
void Engine<P>::transact(Thread &t, const TxnData &d, const unsigned char *data,
                         const unsigned char *offsets, bool reply)
{
    Proc &me = *t.proc;
    std::shared_ptr<Txn> in_reply_to;
    std::shared_ptr<Thread> target_thread;
    std::shared_ptr<Node> node;
    Proc *target;
    const bool one_way = !reply && (d.flags & kOneWay);

    if (reply) {
        in_reply_to = t.stack;
        if (!in_reply_to || in_reply_to->to_thread.lock().get() != &t)
            return queue_error(t, kFailedReply);
        t.stack = in_reply_to->to_parent;
        target_thread = in_reply_to->from.lock();
        // The caller is gone: the reply goes nowhere, which is no fault of ours.
        if (!target_thread || target_thread->dead)
            return queue_thread(t, Work{WorkKind::Complete});
        target = target_thread->proc;
    } else {
        const auto handle = static_cast<uint32_t>(d.target);
        if (handle == 0) {
            node = context_;
            if (!node)
                return queue_error(t, kDeadReply);
        } else {
            Ref *r = ref(me, handle);
            if (!r)
                return queue_error(t, kFailedReply);
            node = r->node;
        }
        if (node->dead)
            return queue_error(t, kDeadReply);
        target = node->owner;
        if (!one_way && t.stack) {
            if (t.stack->to_thread.lock().get() != &t)
                return queue_error(t, kFailedReply);
            // A call back into a process that waits on us goes to the
            // thread that waits.
            for (auto s = t.stack; s; s = s->from_parent) {
                auto f = s->from.lock();
                if (f && !f->dead && f->proc == target) {
                    target_thread = f;
                    break;
                }
            }
        }
    }

    auto fail = [&](uint32_t error) {
        if (!reply)
            return queue_error(t, error);
        // A reply that cannot be delivered fails the caller's transaction.
        fail_reply(in_reply_to, error);
        queue_thread(t, Work{WorkKind::Complete});
    };
    if (d.offsets_size % sizeof(P))
        return fail(kFailedReply);
    const uint64_t data_room = align(d.data_size, sizeof(P));
    const uint64_t size =
        std::max<uint64_t>(data_room + align(d.offsets_size, sizeof(P)), sizeof(P));
    if (!target->mapped)
        return fail(kFailedReply);
    auto offset = alloc(*target, size, one_way);
    if (!offset)
        return fail(kFailedReply);
    unsigned char *dst = target->map + *offset;
    std::memcpy(dst, data, d.data_size);
    std::memcpy(dst + data_room, offsets, d.offsets_size);
    Buffer &buffer = target->buffers[*offset];
    if (!translate(t, *target, dst, d.data_size, dst + data_room, d.offsets_size / sizeof(P),
                   buffer)) {
        free_buffer(*target, *offset);
        return fail(kFailedReply);
    }

    auto txn = std::make_shared<Txn>();
    txn->reply = reply;
    txn->code = d.code;
    txn->flags = d.flags;
    txn->sender_pid = reply || one_way ? 0 : me.pid;
    txn->sender_euid = me.euid;
    txn->node = node;
    txn->offset = *offset;
    txn->data_size = d.data_size;
    txn->offsets_size = d.offsets_size;
    Work w{WorkKind::Txn, txn};
    if (reply) {
        target_thread->stack = in_reply_to->from_parent;
        queue_thread(*target_thread, std::move(w));
        queue_thread(t, Work{WorkKind::Complete});
    } else if (!one_way) {
        txn->from = me.threads[t.fd];
        txn->from_parent = t.stack;
        t.stack = txn;
        // Completion comes with the reply, in one read.
        queue_thread(t, Work{WorkKind::Complete}, true);
        if (target_thread)
            queue_thread(*target_thread, std::move(w));
        else
            queue_proc(*target, std::move(w));
    } else {
        buffer.async_node = node;
        queue_thread(t, Work{WorkKind::Complete});
        // One at a time per node, in order: the next waits for this one's buffer.
        if (node->async_busy) {
            node->async_todo.push_back(std::move(w));
        } else {
            node->async_busy = true;
            queue_proc(*target, std::move(w));
        }
    }
}

template <typename P>
bool Engine<P>::translate(Thread &sender, Proc &to, unsigned char *data, uint64_t data_size,
                          const unsigned char *offsets, uint64_t count, Buffer &buffer)
{
    Proc &from = *sender.proc;
    uint64_t min_offset = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t at = load<P>(offsets + i * sizeof(P));
        if (at % 4 || at < min_offset || at > data_size || data_size - at < sizeof(Flat))
            return false;
        min_offset = at + sizeof(Flat);
        Flat obj = load<Flat>(data + at);
        const bool weak = obj.type == kTypeWeakBinder || obj.type == kTypeWeakHandle;
        std::shared_ptr<Node> node;
        if (obj.type == kTypeBinder || obj.type == kTypeWeakBinder) {
            auto &slot = from.nodes[obj.binder];
            if (!slot) {
                slot = std::make_shared<Node>(&from, obj.binder, obj.cookie);
                // Its owner learns that it is referenced now.
                for (WorkKind kind : {WorkKind::Increfs, WorkKind::Acquire})
                    queue_thread(sender, Work{kind, nullptr, 0, obj.cookie, obj.binder});
            } else if (slot->cookie != obj.cookie)
                return false;
            node = slot;
        } else if (obj.type == kTypeHandle || obj.type == kTypeWeakHandle) {
            Ref *r = ref(from, static_cast<uint32_t>(obj.binder));
            if (!r)
                return false;
            node = r->node;
        } else {
            return false;
        }
        if (node->owner == &to && !node->dead &&
            (obj.type == kTypeHandle || obj.type == kTypeWeakHandle)) {
            // The receiver's own object comes back as the object.
            obj.type = weak ? kTypeWeakBinder : kTypeBinder;
            obj.binder = static_cast<P>(node->ptr);
            obj.cookie = static_cast<P>(node->cookie);
        } else {
            Ref &r = ref_for(to, node);
            ++r.strong;
            buffer.held.push_back(r.handle);
            obj.type = weak ? kTypeWeakHandle : kTypeHandle;
            obj.binder = 0;
            std::memcpy(&obj.binder, &r.handle, sizeof r.handle);
            obj.cookie = 0;
        }
        store(data + at, obj);
    }
    return true;
}

template <typename P>
size_t Engine<P>::encoded_size(const Work &w)
{
    switch (w.kind) {
    case WorkKind::Txn:
        return 4 + sizeof(TxnData);
    case WorkKind::DeadBinder:
    case WorkKind::ClearDeathDone:
        return 4 + sizeof(P);
    case WorkKind::Increfs:
    case WorkKind::Acquire:
        return 4 + 2 * sizeof(P);
    default:
        return 4;
    }
}

template <typename P>
size_t Engine<P>::encode(Thread &t, const Work &w, unsigned char *out)
{
    switch (w.kind) {
    case WorkKind::Complete:
        store(out, W::BR_TRANSACTION_COMPLETE);
        break;
    case WorkKind::Error:
        store(out, w.error);
        break;
    case WorkKind::DeadBinder:
    case WorkKind::ClearDeathDone:
        store(out, w.kind == WorkKind::DeadBinder ? W::BR_DEAD_BINDER : W::BR_CLEAR_DEATH_DONE);
        store(out + 4, static_cast<P>(w.cookie));
        break;
    case WorkKind::Increfs:
    case WorkKind::Acquire:
        store(out, w.kind == WorkKind::Increfs ? W::BR_INCREFS : W::BR_ACQUIRE);
        store(out + 4, typename W::PtrCookie{static_cast<P>(w.ptr), static_cast<P>(w.cookie)});
        break;
    case WorkKind::Txn: {
        Txn &x = *w.txn;
        const Proc &p = *t.proc;
        TxnData d{};
        if (x.node) {
            d.target = static_cast<P>(x.node->ptr);
            d.cookie = static_cast<P>(x.node->cookie);
        }
        d.code = x.code;
        d.flags = x.flags;
        d.sender_pid = x.sender_pid;
        d.sender_euid = x.sender_euid;
        d.data_size = static_cast<P>(x.data_size);
        d.offsets_size = static_cast<P>(x.offsets_size);
        d.buffer = static_cast<P>(p.base + x.offset);
        d.offsets = static_cast<P>(d.buffer + align(x.data_size, sizeof(P)));
        store(out, x.reply ? W::BR_REPLY : W::BR_TRANSACTION);
        store(out + 4, d);
        if (!x.reply && !(x.flags & kOneWay)) {
            x.to_thread = t.proc->threads[t.fd];
            x.to_parent = t.stack;
            t.stack = w.txn;
        }
        break;
    }
    }
    return encoded_size(w);
}

template <typename P>
void Engine<P>::read(Thread &t)
{
    if (!t.waiting || t.dead)
        return;
    Proc &p = *t.proc;
    if (!has_work(t))
        return; // nothing yet: the read waits
    WriteRead bwr = load<WriteRead>(t.pending.data());
    std::vector<unsigned char> out(bwr.read_size - bwr.read_consumed);
    size_t used = 0;
    if (bwr.read_consumed == 0 && out.size() >= 4) {
        store(out.data(), W::BR_NOOP);
        used = 4;
    }
    for (;;) {
        std::deque<Work> *queue = !t.todo.empty() ? &t.todo : proc_work_for(t) ? &p.todo : nullptr;
        if (!queue || queue->empty() || out.size() - used < encoded_size(queue->front()))
            break;
        Work w = std::move(queue->front());
        queue->pop_front();
        used += encode(t, w, out.data() + used);
        if (w.kind == WorkKind::Txn)
            break;
    }
    t.process_todo = !t.todo.empty();
    // Ask for another looper when none is left idle.
    const bool idle_other = std::any_of(p.threads.begin(), p.threads.end(), [&](const auto &e) {
        return e.second.get() != &t && e.second->waiting && proc_work_for(*e.second);
    });
    if (bwr.read_consumed == 0 && used >= 4 && p.requested == 0 && !idle_other &&
        p.started < p.max_threads && (t.looper & (kLooperRegistered | kLooperEntered))) {
        ++p.requested;
        store(out.data(), W::BR_SPAWN_LOOPER);
    }
    bwr.read_consumed += static_cast<P>(used);
    t.waiting = false;
    std::vector<unsigned char> extra(sizeof bwr + used);
    std::memcpy(extra.data(), &bwr, sizeof bwr);
    std::memcpy(extra.data() + sizeof bwr, out.data(), used);
    answer(t.fd, 0, 0, 0, extra.data(), extra.size());
}

} // namespace

std::unique_ptr<Handler> make_engine(int bits)
{
    if (bits == 32)
        return std::make_unique<Engine<uint32_t>>();
    return std::make_unique<Engine<uint64_t>>();
}

} // namespace binderd
