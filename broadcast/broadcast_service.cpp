#include <iostream>
#include <thread>
#include <utility>

#include <hmisvc/broadcast.h>

void IntentFilter::addAction(std::string action) { actions.insert(std::move(action)); }

bool IntentFilter::matchAction(std::string action) {
    for (const std::string &a : actions)
        if (a == action)
            return true;
    return false;
}

void IntentFilter::printActions() {
    for (const std::string &a : actions)
        std::cout << a << std::endl;
}

BroadcastService::BroadcastService() = default;
BroadcastService::~BroadcastService() = default;

void BroadcastService::registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter) {
    receivers.insert({receiver, filter});
}

void BroadcastService::runBroadcast(std::shared_ptr<Intent> intent) {
    for (auto entry = receivers.begin(); entry != receivers.end(); ++entry) {
        if (!entry->second->matchAction(intent->getAction()))
            continue;
        // One thread per matching receiver, so a slow one holds up nobody;
        // all of them share the one intent.
        std::thread([entry, this, intent] { entry->first->onReceive(this, intent); }).detach();
    }
}
