// The calling thread's last call outcome, recorded by the proxies' one call
// path.
#ifndef HMISVC_PROXIES_CALL_RECORD_H
#define HMISVC_PROXIES_CALL_RECORD_H

#include <exception>

#include <hmisvc/binder.h>
#include <hmisvc/outcome.h>

namespace hmisvc::detail {

// Constant-initialised where every user sees it, so no call checks for
// a dynamic initialiser on each access.
inline thread_local Outcome t_last_outcome = Outcome::Ok;

// Records one call: Ok from the start, a failure as the call finds it; an
// exception that leaves the call after a good transaction (a reply that
// does not decode) makes it ReplyUndecodable.
class CallRecord {
public:
    CallRecord() : exceptions_(std::uncaught_exceptions()) { t_last_outcome = Outcome::Ok; }
    ~CallRecord()
    {
        if (std::uncaught_exceptions() > exceptions_ && t_last_outcome == Outcome::Ok)
            t_last_outcome = Outcome::ReplyUndecodable;
    }
    CallRecord(const CallRecord &) = delete;
    CallRecord &operator=(const CallRecord &) = delete;

    // A failed call: a reply the transport marked as failed was sent and
    // lost; an untouched one never left (no service).
    static void failed(const binder_io &reply)
    {
        t_last_outcome = (reply.flags & BIO_FLAG_IO_ERROR) ? Outcome::TransactionFailed : Outcome::NotRegistered;
    }
    // After decoding: reading past the reply's end means it was too short.
    static void decoded(const binder_io &reply)
    {
        if (reply.flags & BIO_FLAG_OVERFLOW)
            t_last_outcome = Outcome::ReplyUndecodable;
    }

private:
    int exceptions_;
};

} // namespace hmisvc::detail

#endif
