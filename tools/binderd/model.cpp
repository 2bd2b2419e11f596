#include "model.h"

#include "engine.h"

#include <sys/mman.h>
#include <unistd.h>

namespace binderd {

Proc *Model::new_proc(int fd, pid_t pid, uid_t euid, uint64_t size)
{
    auto p = std::make_unique<Proc>();
    p->token = next_token_++;
    p->pid = pid;
    p->euid = euid;
    p->main_fd = fd;
    p->size = size;
    p->async_free = size / 2;
    p->free_space[0] = size;
    Proc *raw = p.get();
    procs_[raw->token] = std::move(p);
    return raw;
}

std::optional<uint64_t> Model::alloc(Proc &p, uint64_t size, bool async)
{
    if (async && size > p.async_free)
        return std::nullopt;
    // Best fit, as a mapping fragments least that way.
    auto best = p.free_space.end();
    for (auto it = p.free_space.begin(); it != p.free_space.end(); ++it)
        if (it->second >= size && (best == p.free_space.end() || it->second < best->second))
            best = it;
    if (best == p.free_space.end())
        return std::nullopt;
    const uint64_t offset = best->first, left = best->second - size;
    p.free_space.erase(best);
    if (left)
        p.free_space[offset + size] = left;
    Buffer &b = p.buffers[offset];
    b.size = size;
    b.async = async;
    if (async)
        p.async_free -= size;
    return offset;
}

void Model::free_buffer(Proc &p, uint64_t offset)
{
    auto it = p.buffers.find(offset);
    if (it == p.buffers.end())
        return;
    Buffer b = std::move(it->second);
    p.buffers.erase(it);
    for (uint32_t handle : b.held)
        if (Ref *r = ref(p, handle))
            put_ref(p, *r, true);
    if (b.async) {
        p.async_free += b.size;
        // The node's next one-way transaction may go now.
        if (Node *n = b.async_node.get()) {
            if (n->async_todo.empty()) {
                n->async_busy = false;
            } else if (!n->dead) {
                Work w = std::move(n->async_todo.front());
                n->async_todo.pop_front();
                queue_proc(*n->owner, std::move(w));
            }
        }
    }
    auto next = p.free_space.lower_bound(offset);
    uint64_t start = offset, len = b.size;
    if (next != p.free_space.end() && next->first == offset + len) {
        len += next->second;
        next = p.free_space.erase(next);
    }
    if (next != p.free_space.begin()) {
        auto prev = std::prev(next);
        if (prev->first + prev->second == start) {
            start = prev->first;
            len += prev->second;
        }
    }
    p.free_space[start] = len;
}

Ref *Model::ref(Proc &p, uint32_t handle)
{
    auto it = p.refs.find(handle);
    return it == p.refs.end() ? nullptr : &it->second;
}

Ref &Model::ref_for(Proc &p, const std::shared_ptr<Node> &node)
{
    auto known = p.handle_of.find(node.get());
    if (known != p.handle_of.end())
        return p.refs[known->second];
    // The context manager is handle 0 everywhere; others take the lowest free.
    uint32_t handle = node == context_ ? 0 : 1;
    if (handle)
        for (auto it = p.refs.lower_bound(1); it != p.refs.end() && it->first == handle; ++it)
            ++handle;
    p.handle_of[node.get()] = handle;
    Ref &r = p.refs[handle];
    r.node = node;
    r.handle = handle;
    return r;
}

void Model::put_ref(Proc &p, Ref &r, bool strong)
{
    int &count = strong ? r.strong : r.weak;
    if (count > 0)
        --count;
    if (r.strong == 0 && r.weak == 0) {
        p.handle_of.erase(r.node.get());
        p.refs.erase(r.handle);
    }
}

bool Model::proc_work_for(const Thread &t) const
{
    return !t.stack && t.todo.empty() && (t.looper & (kLooperRegistered | kLooperEntered));
}

bool Model::has_work(const Thread &t) const
{
    return (t.process_todo && !t.todo.empty()) || (proc_work_for(t) && !t.proc->todo.empty());
}

void Model::queue_thread(Thread &t, Work w, bool deferred)
{
    if (t.dead)
        return;
    t.todo.push_back(std::move(w));
    if (!deferred) {
        t.process_todo = true;
        wake(t);
    }
}

void Model::queue_proc(Proc &p, Work w)
{
    p.todo.push_back(std::move(w));
    // A waiting reader takes it; threads that poll are told of it.
    for (auto &entry : p.threads)
        if ((entry.second->waiting || entry.second->polls) && proc_work_for(*entry.second)) {
            wake(*entry.second);
            if (p.todo.empty())
                break;
        }
}

void Model::fail_reply(const std::shared_ptr<Txn> &t, uint32_t error)
{
    // The caller waits no longer: its stack drops the transaction.
    if (auto from = t->from.lock()) {
        from->stack = t->from_parent;
        queue_thread(*from, Work{WorkKind::Error, nullptr, error});
    }
}

void Model::release_thread(Thread &t)
{
    // Transactions this thread was serving fail for their callers; its own
    // calls lose their caller (a later reply goes nowhere).
    t.dead = true;
    for (auto s = t.stack; s;) {
        if (s->to_thread.lock().get() == &t) {
            auto next = s->to_parent;
            fail_reply(s, kDeadReply);
            s = next;
        } else {
            s = s->from_parent;
        }
    }
    t.stack.reset();
    for (Work &w : t.todo)
        if (w.kind == WorkKind::Txn && !w.txn->reply && !(w.txn->flags & kOneWay))
            fail_reply(w.txn, kDeadReply);
    t.todo.clear();
    t.waiting = false;
    threads_.erase(t.fd);
    close_connection(t.fd);
}

void Model::release_proc(Proc &p)
{
    auto threads = std::move(p.threads);
    for (auto &entry : threads)
        release_thread(*entry.second);
    for (Work &w : p.todo)
        if (w.kind == WorkKind::Txn && !w.txn->reply && !(w.txn->flags & kOneWay))
            fail_reply(w.txn, kDeadReply);
    if (context_ && context_->owner == &p)
        context_.reset();
    for (auto &entry : p.nodes) {
        Node &n = *entry.second;
        n.dead = true;
        n.async_todo.clear();
        for (auto &other : procs_) {
            Proc &holder = *other.second;
            auto h = holder.handle_of.find(&n);
            if (&holder == &p || h == holder.handle_of.end())
                continue;
            Ref &r = holder.refs[h->second];
            if (r.death)
                queue_proc(holder, Work{WorkKind::DeadBinder, nullptr, 0, *r.death});
        }
    }
    if (p.map)
        munmap(p.map, p.size);
    if (p.memfd >= 0)
        close(p.memfd);
    procs_.erase(p.token);
}

} // namespace binderd
