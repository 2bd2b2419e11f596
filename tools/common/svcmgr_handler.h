// The service-manager side of the lookup and publish requests, served from a
// ServiceRegistry.
#ifndef HMISVC_TOOLS_SVCMGR_HANDLER_H
#define HMISVC_TOOLS_SVCMGR_HANDLER_H

#include "service_registry.h"

#include <hmisvc/binder.h>

#include <cstdio>

namespace hmisvc::tools {

class SvcmgrHandler {
public:
    // Status sent back for a request that is not a well-formed lookup or
    // publish.
    static constexpr int BAD_REQUEST = -1;

    // With a trace stream, every request and every death is told there.
    explicit SvcmgrHandler(ServiceRegistry &registry, std::FILE *trace = nullptr);

    // The reply status: 0 with the answer written into reply, else an error.
    int handle(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);

    // Fits binder_loop2 with the handler as its argument.
    static int serve(binder_connection *bs, binder_transaction_data *txn, binder_io *msg,
                     binder_io *reply, void *self);

private:
    int lookup(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int publish(const binder_transaction_data &txn, binder_io &msg, binder_io &reply);
    int refuse(const binder_transaction_data &txn, const char *why);

    ServiceRegistry &registry_;
    std::FILE *trace_;
};

}  // namespace hmisvc::tools

#endif
