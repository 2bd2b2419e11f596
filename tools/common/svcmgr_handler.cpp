#include "svcmgr_handler.h"

#include <cstring>

namespace hmisvc::tools {

namespace {

const std::u16string INTERFACE = u"android.os.IServiceManager";

// A 16-bit string from the request; false for a null or truncated one.
bool get_string16(binder_io &msg, std::u16string &out)
{
    uint32_t len = 0;
    const uint16_t *units = bio_get_string16(&msg, &len);
    if (!units || len == 0xFFFFFFFFu || (msg.flags & BIO_FLAG_OVERFLOW))
        return false;
    out.resize(len);
    std::memcpy(out.data(), units, len * sizeof(char16_t));
    return true;
}

// Header word and interface name, common to all requests. Returns why the
// request is refused, or null.
const char *get_header(binder_io &msg)
{
    std::u16string interface;
    if (bio_get_uint32(&msg) != 0 || (msg.flags & BIO_FLAG_OVERFLOW))
        return "bad header word";
    if (!get_string16(msg, interface) || interface != INTERFACE)
        return "bad interface name";
    return nullptr;
}

// The header, then the service name of a lookup or publish request.
const char *get_prologue(binder_io &msg, std::u16string &name)
{
    if (const char *why = get_header(msg))
        return why;
    if (!get_string16(msg, name) || name.empty())
        return "bad service name";
    return nullptr;
}

// The prologue, then the object a publish or unpublish request names, which
// the driver has turned into a reference of ours.
const char *get_named_ref(binder_io &msg, std::u16string &name, uint32_t &handle)
{
    if (const char *why = get_prologue(msg, name))
        return why;
    handle = bio_get_ref(&msg);
    return handle == 0 ? "no object reference" : nullptr;
}

// The sender as the driver gives it.
Process caller(const binder_transaction_data &txn)
{
    return Process::of(txn.sender_pid, txn.sender_euid);
}

}  // namespace

SvcmgrHandler::SvcmgrHandler(ServiceRegistry &registry, std::FILE *trace)
    : registry_(registry), trace_(trace)
{
    if (trace_)
        registry_.on_death([this](const std::u16string &name, uint32_t handle) {
            std::fprintf(trace_, "svcmgr: \"%s\" (handle %u) dropped: publisher died\n",
                         printable(name).c_str(), handle);
        });
}

int SvcmgrHandler::handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    switch (txn.code) {
    case SVCMGR_CODE_LOOKUP:
        return lookup(txn, msg, reply);
    case SVCMGR_CODE_PUBLISH:
        return publish(txn, msg, reply);
    case kSvcmgrCodeUnpublish:
        return unpublish(txn, msg, reply);
    case kSvcmgrCodeList:
        return list(txn, msg, reply);
    case kSvcmgrCodeClaim:
        return claim(txn, msg, reply);
    case kSvcmgrCodeHolder:
        return holder(txn, msg, reply);
    default:
        return refuse(txn, "unknown code");
    }
}

int SvcmgrHandler::lookup(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    std::u16string name;
    if (const char *why = get_prologue(msg, name))
        return refuse(txn, why);
    uint32_t handle = registry_.lookup(name);
    if (trace_)
        std::fprintf(trace_, "svcmgr: lookup \"%s\" from pid %d -> %u\n",
                     printable(name).c_str(), txn.sender_pid, handle);
    // Handle 0 goes out as a null reference, which carries no object.
    bio_put_ref(&reply, handle);
    return 0;
}

int SvcmgrHandler::list(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    if (const char *why = get_header(msg))
        return refuse(txn, why);
    uint32_t index = bio_get_uint32(&msg);
    if (msg.flags & BIO_FLAG_OVERFLOW)
        return refuse(txn, "no index");
    std::u16string name;
    if (!registry_.name_at(index, name))
        return kNoMoreNames;
    bio_put_string16(&reply, reinterpret_cast<const uint16_t *>(name.c_str()));
    return 0;
}

int SvcmgrHandler::publish(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    std::u16string name;
    uint32_t handle = 0;
    if (const char *why = get_named_ref(msg, name, handle))
        return refuse(txn, why);
    return change(txn, reply, "publish", name,
                  [&](const Process &by, Process &holder) { return registry_.publish(name, handle, by, holder); });
}

int SvcmgrHandler::unpublish(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    std::u16string name;
    uint32_t handle = 0;
    if (const char *why = get_named_ref(msg, name, handle))
        return refuse(txn, why);
    return change(txn, reply, "unpublish", name,
                  [&](const Process &by, Process &holder) { return registry_.remove(name, handle, by, holder); });
}

int SvcmgrHandler::claim(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    std::u16string name;
    if (const char *why = get_prologue(msg, name))
        return refuse(txn, why);
    return change(txn, reply, "claim", name,
                  [&](const Process &by, Process &holder) { return registry_.claim(name, by, holder); });
}

int SvcmgrHandler::change(const binder_transaction_data &txn, binder_io &reply, const char *what,
                          const std::u16string &name, const std::function<bool(const Process &, Process &)> &act)
{
    Process holder;
    if (!act(caller(txn), holder))
        return not_yours(txn, what, name, holder, reply);
    if (trace_)
        std::fprintf(trace_, "svcmgr: %s \"%s\" from pid %d\n", what, printable(name).c_str(), txn.sender_pid);
    bio_put_uint32(&reply, 0);
    return 0;
}

int SvcmgrHandler::holder(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)
{
    std::u16string name;
    if (const char *why = get_prologue(msg, name))
        return refuse(txn, why);
    Process holder;
    if (!registry_.holder(name, holder))
        return kNoMoreNames;
    bio_put_uint32(&reply, 0);
    bio_put_uint32(&reply, static_cast<uint32_t>(holder.pid));
    bio_put_uint32(&reply, holder.euid);
    return 0;
}

int SvcmgrHandler::not_yours(const binder_transaction_data &txn, const char *what, const std::u16string &name,
                             const Process &holder, binder_io &reply)
{
    // Told traced or not: it is someone's mistake or an attempt to take a
    // service over.
    std::fprintf(stderr, "svcmgr: %s \"%s\" from pid %d refused: ", what, printable(name).c_str(), txn.sender_pid);
    if (holder.pid == 0)
        std::fprintf(stderr, "not published\n");
    else if (holder.gone())
        std::fprintf(stderr, "kept for the restart of %s (pid %d, exited)\n", holder.exe.c_str(), holder.pid);
    else
        std::fprintf(stderr, "held by pid %d\n", holder.pid);
    bio_put_uint32(&reply, kNotYours);
    return 0;
}

int SvcmgrHandler::refuse(const binder_transaction_data &txn, const char *why)
{
    if (trace_)
        std::fprintf(trace_, "svcmgr: code %u from pid %d refused: %s\n", txn.code,
                     txn.sender_pid, why);
    return BAD_REQUEST;
}

}  // namespace hmisvc::tools
