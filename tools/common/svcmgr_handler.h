// The service-manager side of the lookup and publish requests, served from a
// ServiceRegistry.
#ifndef HMISVC_TOOLS_SVCMGR_HANDLER_H
#define HMISVC_TOOLS_SVCMGR_HANDLER_H

#include "service_registry.h"

#include <hmisvc/binder.h>

#include <cstdio>
#include <functional>

namespace hmisvc::tools {

// Our addition to the lookup and publish requests: the header word and the
// interface name, then an index; the answer is the name at that index (in
// sorted order) as a 16-bit string, or the status kNoMoreNames past the last.
constexpr uint32_t kSvcmgrCodeList = 4;
// And its counterpart to publish: the same request, which drops the name
// when its publisher sends the object published under it (answer: the
// status word 0, or kNotYours).
constexpr uint32_t kSvcmgrCodeUnpublish = 5;
// The header word, the interface name and a name its caller published:
// keeps the name for the caller's program across its restart (answer: the
// status word 0, or kNotYours).
constexpr uint32_t kSvcmgrCodeClaim = 6;
// The header word, the interface name and a name: the status word 0, the
// holder's pid and euid, or the status word kNoMoreNames when nobody holds it.
constexpr uint32_t kSvcmgrCodeHolder = 7;

class SvcmgrHandler {
public:
    static constexpr int kNoMoreNames = 1;
    // Publish, unpublish or claim status for a name that is not the
    // caller's (another living process holds it, or it is kept for a
    // program's restart). The refusal is also told on stderr, traced or
    // not: it is someone's mistake or an attempt to take a service over.
    static constexpr int kNotYours = 1;
    // Status sent back for a request that is not a well-formed lookup or
    // publish.
    static constexpr int BAD_REQUEST = -1;

    // With a trace stream, every request and every death is told there.
    explicit SvcmgrHandler(ServiceRegistry &registry, std::FILE *trace = nullptr);

    // The reply status: 0 with the answer written into reply, else an error.
    int handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);

private:
    int lookup(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int list(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int publish(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int unpublish(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int claim(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int holder(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    // A request that changes a name: `act` does it for the caller, or gives
    // the holder and false when the name is not the caller's.
    int change(const binder_transaction_data &txn, binder_io &reply, const char *what, const std::u16string &name,
               const std::function<bool(const Process &, Process &)> &act);
    // Tells a refused request on stderr, naming the caller, and answers kNotYours.
    int not_yours(const binder_transaction_data &txn, const char *what, const std::u16string &name,
                  const Process &holder, binder_io &reply);
    int refuse(const binder_transaction_data &txn, const char *why);

    ServiceRegistry &registry_;
    std::FILE *trace_;
};

}  // namespace hmisvc::tools

#endif
