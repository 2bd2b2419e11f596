#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

HMISVC_DEFINE_PROXY(DateManager, "date");

void DateManager::GetTime(Date &date) { call<kSmall>(*this, codes_[0], "GetTime", into(date), false); }
void DateManager::SetTime(Date &date) { call<kSmall>(*this, codes_[1], "SetTime", nothing, no_value, date); }
void DateManager::SetModifiable(bool modifiable) {
    call<kSmall>(*this, codes_[2], "SetModifiable", nothing, no_value, modifiable);
}
bool DateManager::Modifiable() { return call<kSmall>(*this, codes_[3], "Modifiable", flag, false); }
