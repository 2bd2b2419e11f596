#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

std::string DateManager::SERVICE_NAME = "date";
const unsigned int DateManager::MAP_SIZE;

DateManager::DateManager() : ServiceManager(SERVICE_NAME, 1024) { number(codes_); }
DateManager::~DateManager() = default;

void DateManager::GetTime(Date &date) { call<kSmall>(*this, codes_[0], "GetTime", into(date), false); }
void DateManager::SetTime(Date &date) { call<kSmall>(*this, codes_[1], "SetTime", nothing, no_value, date); }
void DateManager::SetModifiable(bool modifiable) {
    call<kSmall>(*this, codes_[2], "SetModifiable", nothing, no_value, modifiable);
}
bool DateManager::Modifiable() { return call<kSmall>(*this, codes_[3], "Modifiable", flag, false); }
