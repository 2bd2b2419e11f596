// The whole simulated state as one JSON document: what `hmisvc sim dump`
// prints, `hmisvc sim set` changes by dotted path and `--state FILE` starts
// from. Field names say what each value is.
#ifndef HMISVC_DEVSIM_STATE_H
#define HMISVC_DEVSIM_STATE_H

#include "json_values.h"

namespace hmisvc::devsim {

struct Device;

struct StateJson {
    static Json dump(const Device &device);
    // All or nothing: the document is checked whole (types, ranges, unknown
    // fields, consistency) before any value changes; JsonError says where
    // it went wrong. Fields left out keep their values.
    static void load(Device &device, const Json &state);

private:
    struct Parts;
    template <class V> static void sections(Parts &p, V &&visit);
    static Parts copy(const Device &device);
};

}  // namespace hmisvc::devsim

#endif
