// The whole simulated state as one JSON document: what `hmisvc sim dump`
// prints, `hmisvc sim set` changes by dotted path and `--state FILE` starts
// from. Field names say what each value is.
#ifndef HMISVC_DEVSIM_STATE_H
#define HMISVC_DEVSIM_STATE_H

#include "json_values.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace hmisvc::devsim {

struct Device;

struct StateJson {
    static Json dump(const Device &device);
    // All or nothing: the document is checked whole (types, ranges, unknown
    // fields, consistency, and that every answer and a dump still fit their
    // replies, see unanswerable()); JsonError says where it went wrong and
    // nothing changes. Fields left out keep their values.
    static void load(Device &device, const Json &state);
    // The "services" section (as a snapshot writes it): service name to
    // "absent" (not published) or "failed" (its calls fail); checked against
    // `names`. The simulator applies it when it starts.
    static std::map<std::string, std::string> service_states(const Json &state,
                                                             const std::vector<std::string> &names);

    // Runs `change` on the device and keeps its effect unless an answer or
    // the dump would then no longer fit its reply (see unanswerable()):
    // then the state before is put back and the reason returned ("" when
    // the change stays).
    template <class F> static std::string change_within_limits(Device &device, F &&change);

private:
    struct Parts;
    struct Saved;
    static std::shared_ptr<Saved> save(const Device &device);
    static std::string keep_or_undo(Device &device, Saved &before);
    template <class V> static void sections(Parts &p, V &&visit);
    static Parts copy(const Device &device);
    static void commit(Device &device, Parts &&parts);
};

template <class F> std::string StateJson::change_within_limits(Device &device, F &&change)
{
    std::shared_ptr<Saved> before = save(device);
    change();
    return keep_or_undo(device, *before);
}

}  // namespace hmisvc::devsim

#endif
