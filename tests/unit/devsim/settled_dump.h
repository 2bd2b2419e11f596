// The simulator's dump without what it reads from the host at each dump
// (free space and memory), so that two dumps compare equal when the
// device's state did not change.
#ifndef HMISVC_TESTS_SETTLED_DUMP_H
#define HMISVC_TESTS_SETTLED_DUMP_H

#include "control.h"
#include "state.h"

inline hmisvc::devsim::Json settled_dump(hmisvc::devsim::Control &control)
{
    auto j = hmisvc::devsim::Json::parse(control.dump().text);
    j["system"].erase("storage_free_kib");
    j["system"].erase("ram_free_kib");
    return j;
}

#endif
