#include <hmisvc/proxies.h>

#include "proxies/call.h"

using namespace hmisvc::proxy;

std::string BeepManager::SERVICE_NAME = "beep";
const unsigned int BeepManager::MAP_SIZE;

BeepManager::BeepManager() : ServiceManager(SERVICE_NAME, 1024) { number(codes_); }
BeepManager::~BeepManager() = default;

void BeepManager::Beep(int a, int b) { call<kSmall>(*this, codes_[0], "Beep", nothing, no_value, a, b); }
