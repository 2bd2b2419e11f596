/**
 * @file
 * Broadcasts: the message they carry and the types that receive them. Send
 * with Context::SendBroadcast(); receive through the BroadcastService of
 * Context::CreateBroadcastService(), and wait for it with
 * hmisvc::waitForReceiving() before the first broadcast you expect.
 */
#ifndef HMISVC_BROADCAST_H
#define HMISVC_BROADCAST_H

#include <map>
#include <memory>
#include <set>
#include <string>

#include <hmisvc/export.h>

/// The message a broadcast carries: an action plus integer and string extras,
/// each set keyed by string (keys and values are any bytes). A plain value
/// without locks: a delivered intent is shared by the receivers of one
/// delivery, so treat it as read-only. Its encoding must stay within 4072
/// bytes to be sent.
class HMISVC_API Intent {
public:
    static std::string ACTION_KEYBOARD;      ///< "sys.input.keyboard"
    static std::string ACTION_SHOW_SETTINGS; ///< "hmi.action.show.settings"
    static std::string ACTION_UDISK;         ///< "action.sys.udisk"

    /// An empty action, no extras.
    Intent();
    /// The given action, no extras.
    Intent(std::string action);

    /// Replaces the action.
    void setAction(std::string action);
    /// A copy of the action.
    std::string getAction();

    /// Adds an integer extra (32 bits) unless @p key is there already:
    /// an extra once set keeps its first value, silently.
    void putExtra(std::string key, int value);
    /// Adds a string extra unless @p key is there already (first value wins).
    /// Integer and string extras are separate: one key may name one of each.
    void putExtra(std::string key, std::string value);
    /// The integer extra @p key, or @p defaultValue when there is none.
    int getIntExtra(std::string key, int defaultValue);
    /// The string extra @p key, or the empty string when there is none (not
    /// told apart from an empty value).
    std::string getStringExtra(std::string key);

    /// Prints "Intent:    <action>", "int: ", one "           key:value" line
    /// per integer extra, "string: " and one line per string extra, in
    /// ascending key order, to standard output.
    void printExtras();

    /// Fills @p ar with action, integer extras, string extras (cereal binary
    /// archives only; defined inside the library).
    template <class Archive>
    void serialize(Archive &ar);
    /// The intent's encoding as it travels: a default intent is 24 zero bytes.
    std::string toString();
    /// Replaces the whole content with the intent decoded from @p data.
    /// Throws cereal::Exception when @p data ends early, leaving what was
    /// read so far.
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

    /// The accepted actions, unique, in ascending order. The application
    /// owns the filter and keeps it alive as long as its receiver is registered.
    std::set<std::string> actions;
};

class BroadcastService;

/// Implemented by the application to receive broadcasts. The library never
/// creates, copies or deletes one.
class BroadcastReceiver {
public:
    /// Called on a thread of its own for each delivered intent whose action
    /// the receiver's filter holds. The intent is shared with the other
    /// receivers of the same delivery: read it, don't change it.
    /// One thread is started per matching receiver per delivery, with no
    /// limit and no queue: return quickly (hand the work to a thread of your
    /// own). The same receiver may run for two deliveries at once. An
    /// exception that leaves onReceive ends the process.
    virtual void onReceive(BroadcastService *service, std::shared_ptr<Intent> intent) = 0;
    /// Does nothing; receivers must outlive their BroadcastService.
    virtual ~BroadcastReceiver() = default;
};

/// The process's registry of receivers and their dispatcher. Get it from
/// Context::CreateBroadcastService(); it must live for the rest of the process.
class HMISVC_API BroadcastService {
public:
    /// An empty registry with no endpoint: use Context::CreateBroadcastService().
    BroadcastService();
    /// Frees the registry's entries only (never the receivers or filters).
    /// The service of CreateBroadcastService() must never be destroyed.
    ~BroadcastService();

    /// Registers a receiver with its filter (both owned by the application,
    /// which must keep them alive). A receiver already registered keeps its
    /// first filter. The filter is referenced: actions added later count.
    void registerReceiver(BroadcastReceiver *receiver, IntentFilter *filter);
    /// Starts one detached thread per receiver whose filter accepts the
    /// intent's action, and returns without waiting for them. Called by the
    /// endpoint for each delivery. Throws std::system_error when a thread
    /// cannot be started (then the process ends, on the endpoint's thread).
    void runBroadcast(std::shared_ptr<Intent> intent);

    /// The registered receivers with their filters, by address. Not locked:
    /// register before broadcasts are expected, and only read it.
    std::map<BroadcastReceiver *, IntentFilter *> receivers;
};

#endif
