// Broadcasts: the message they carry and the types that receive them.
#ifndef HMISVC_BROADCAST_H
#define HMISVC_BROADCAST_H

#include <map>
#include <memory>
#include <set>
#include <string>

#include <hmisvc/export.h>

// An action plus integer and string extras. Travels as the byte string of
// toString(); fromString() replaces the whole content with a decoded one and
// throws cereal::Exception when the bytes end early.
class HMISVC_API Intent {
public:
    static std::string ACTION_KEYBOARD;
    static std::string ACTION_SHOW_SETTINGS;
    static std::string ACTION_UDISK;

    Intent();
    Intent(std::string action);

    void setAction(std::string action);
    std::string getAction();

    // Insert-if-absent: an extra once set keeps its first value.
    void putExtra(std::string key, int value);
    void putExtra(std::string key, std::string value);
    int getIntExtra(std::string key, int defaultValue);
    std::string getStringExtra(std::string key);

    void printExtras();

    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);

private:
    std::string action;
    std::map<std::string, int> intExtras;
    std::map<std::string, std::string> stringExtras;
};

/// The set of actions a receiver wants.
class HMISVC_API IntentFilter {
public:
    /// Adds an action; one already present is ignored.
    void addAction(std::string action);
    /// Whether the filter holds exactly this action (case-sensitive, no wildcards).
    bool matchAction(std::string action);
    /// Prints each action on a line of its own, in ascending order.
    void printActions();

    std::set<std::string> actions;
};

class BroadcastService;

/// Implemented by the application to receive broadcasts.
class BroadcastReceiver {
public:
    /// Called on a thread of its own for each delivered intent whose action
    /// the receiver's filter holds. The intent is shared with the other
    /// receivers of the same delivery: read it, don't change it.
    virtual void onReceive(BroadcastService *service, std::shared_ptr<Intent> intent) = 0;
    virtual ~BroadcastReceiver() = default;
};

/// The process's registry of receivers and their dispatcher. Get it from
/// Context::CreateBroadcastService(); it must live for the rest of the process.
class HMISVC_API BroadcastService {
public:
    BroadcastService();
    ~BroadcastService();

    /// Registers a receiver with its filter (both owned by the application,
    /// which must keep them alive). A receiver already registered keeps its
    /// first filter. The filter is referenced: actions added later count.
    void registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter);
    /// Starts one detached thread per receiver whose filter accepts the
    /// intent's action, and returns without waiting for them.
    void runBroadcast(std::shared_ptr<Intent> intent);

    std::map<BroadcastReceiver *, IntentFilter *> receivers;
};

#endif
