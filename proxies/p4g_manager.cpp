#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(P4gManager, "4ginfo");

bool P4gManager::Get4ginfo(P4gInfo &info) { return call<kLarge>(*this, codes_[0], "Get4ginfo", into(info), false); }
// A failed presence query answers yes.
bool P4gManager::GetIs4G() { return call<kLarge>(*this, codes_[1], "get 4G module yes or not", flag, true); }
std::string P4gManager::Get4GCcid() { return call<kLarge>(*this, codes_[2], "get 4G ccid", text, throws); }
