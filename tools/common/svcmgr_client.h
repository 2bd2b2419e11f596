// Client side of the requests our service manager adds to lookup and publish
// (see svcmgr_handler.h).
#ifndef HMISVC_TOOLS_SVCMGR_CLIENT_H
#define HMISVC_TOOLS_SVCMGR_CLIENT_H

#include <hmisvc/binder.h>

#include <string>
#include <vector>

namespace hmisvc::tools {

enum class ListResult { kListed, kCannotList, kCallFailed };

// Every registered name, in sorted order.
ListResult svcmgr_list(binder_connection *bs, std::vector<std::string> &names);

// 0 when the name was dropped, 1 when it is not ours (or not there), -1
// when the call failed (e.g. a service manager without this request).
int svcmgr_unpublish(binder_connection *bs, const char *name, void *object);

// 0 when the name, which the caller published, is kept for its program
// across a restart; 1 when it is not the caller's, -1 when the call failed.
int svcmgr_claim(binder_connection *bs, const char *name);

// The pid holding (or keeping) a name: 0 when nobody, -1 when the call failed.
int svcmgr_holder(binder_connection *bs, const char *name);

}  // namespace hmisvc::tools

#endif
