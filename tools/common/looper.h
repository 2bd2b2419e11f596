// A serving loop for the programs that stand in for the device's services.
// Unlike the library's binder_loop it never ends on what a client sends: a
// one-way transaction is served without a reply, a refused reply or an
// unknown return is passed over, the reply area is the caller's size, and
// several threads may serve one connection at once.
#ifndef HMISVC_TOOLS_LOOPER_H
#define HMISVC_TOOLS_LOOPER_H

#include <hmisvc/binder.h>

#include <climits>
#include <cstddef>
#include <functional>

namespace hmisvc::tools {

// Handler result that makes the driver fail the caller's transaction (the
// caller's binder_call returns -1, as when a service process breaks), in
// place of a reply.
constexpr int kFailTransaction = INT_MIN;

// Like the library's handlers: 0 sends what was written into reply, another
// value is sent as a status reply. For a one-way transaction the result is
// ignored.
using TxnHandler = std::function<int(const binder_transaction_data &txn, binder_io &msg, binder_io &reply)>;

// Serves on the calling thread until the driver itself fails (its message is
// printed); death notifications are dispatched to their binder_death_record
// and acknowledged. `reply_area` bytes are reserved per thread for replies.
// The first thread of a connection passes `first` = true.
void serve(binder_connection *bs, const TxnHandler &handler, std::size_t reply_area, bool first = true);

// Asks the driver to report the death of `handle`'s object through `record`
// (which must outlive the notification), after taking a strong reference
// on it so that the handle stays ours. For handle 0 that is the current
// service manager.
void watch(binder_connection *bs, uint32_t handle, binder_death_record *record);

}  // namespace hmisvc::tools

#endif
