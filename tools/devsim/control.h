// Steering the simulated device while applications run: the one piece of
// code behind `hmisvc sim ...` (reached through the control service over
// binder) and any other front end (a browser panel), so that every front end
// sees and changes the same state the same way.
//
// Every operation is safe to call from any thread while the device serves
// and answers a Result: code 0 done, 1 failed (e.g. the service manager
// refused), 2 refused input (unknown key or service, wrong type); text is
// the answer (a JSON document for dump) or what was wrong.
#ifndef HMISVC_DEVSIM_CONTROL_H
#define HMISVC_DEVSIM_CONTROL_H

#include "publisher.h"
#include "services.h"

#include <map>
#include <string>

namespace hmisvc::devsim {

struct ControlResult {
    enum Code : int32_t { kDone = 0, kFailed = 1, kRefused = 2 };
    int32_t code = kDone;
    std::string text;
};
template <class V> void fields(ControlResult &r, V &&v) { v("code", r.code), v("text", r.text); }
void put(binder_io &reply, const ControlResult &r);  // the code word, then the text

class Control {
public:
    using Result = ControlResult;

    // The name the control service is published under.
    static constexpr const char *kServiceName = "devsim.control";

    Control(Device &device, Simulator &simulator, tools::Publisher &publisher);

    // The whole state as JSON (see StateJson), pretty-printed.
    Result dump() const;
    // KEY is a dotted path into dump()'s document ("backlight.brightness",
    // "settings.SECTION.KEY"); VALUE is JSON, or else taken as a string.
    // The next call of any application sees the change.
    Result set(const std::string &key, const std::string &value);
    // A whole or partial state document, as --state reads it; its
    // "services" section unpublishes and fails services as it says.
    Result load_state(const std::string &json);
    // SERVICE is a name of the method table (or the name of one of its
    // methods, for the service that has it).
    Result fail(const std::string &service, Fault fault);
    Result heal(const std::string &service);
    Result publish(const std::string &service);
    Result unpublish(const std::string &service);
    // Sends an intent to every registered endpoint, as an application's
    // SendBroadcast does.
    Result broadcast(const std::string &action, const std::map<std::string, int> &ints,
                     const std::map<std::string, std::string> &strings);

    // The control service's method table, in code order: dump, set, fail,
    // heal, publish, unpublish, load_state.
    const Service &service() const { return service_; }

private:
    // The named service, or null with `why` set.
    const Service *lookup(const std::string &name, Result &why) const;
    // f(service) for the named service, or lookup's refusal.
    template <class F> Result on_service(const std::string &name, F f)
    {
        Result why;
        const Service *s = lookup(name, why);
        return s ? f(*s) : why;
    }

    Device &device_;
    Simulator &simulator_;
    tools::Publisher &publisher_;
    Service service_;
};

}  // namespace hmisvc::devsim

#endif
