#include "control_client.h"

#include <hmisvc/binder.h>

#include <cerrno>

namespace hmisvc::tools {

namespace {

struct Connection {
    binder_connection *bs = binder_open(kControlMapSize);
    ~Connection()
    {
        if (bs)
            binder_close(bs);
    }
};

}  // namespace

int control_call(uint32_t code, const std::vector<ControlArg> &args, std::string &answer)
{
    Connection c;
    if (!c.bs) {
        answer = "the binder driver cannot be opened";
        return -1;
    }
    uint32_t handle = svcmgr_lookup(c.bs, SVCMGR_HANDLE, kControlService);
    if (!handle) {
        answer = std::string("no simulator is running (\"") + kControlService + "\" is not registered)";
        return -1;
    }
    std::size_t size = 64;
    for (const ControlArg &a : args)
        size += a.s.size() + 8;
    std::vector<char> area(size);
    binder_io msg, reply;
    bio_init(&msg, area.data(), static_cast<uint32_t>(area.size()), 4);
    bio_put_uint32(&msg, 0);
    for (const ControlArg &a : args)
        a.text ? bio_put_string(&msg, a.s.c_str()) : bio_put_uint32(&msg, static_cast<uint32_t>(a.n));
    if (binder_call(c.bs, &msg, &reply, handle, code) != 0) {
        answer = "the simulator did not answer";
        return -1;
    }
    bool status_only = reply.data_left == sizeof(uint32_t);
    int32_t result = static_cast<int32_t>(bio_get_uint32(&reply));
    uint32_t len = 0;
    const char *text = status_only ? nullptr : bio_get_string(&reply, &len);
    answer = text ? std::string(text, len) : std::string();
    binder_done(c.bs, &msg, &reply);
    if (!text) {
        if (result == -EMSGSIZE)
            answer = "the answer is larger than the simulator's reply area";
        else if (result == -ENOSYS)
            answer = "the simulator running does not know this command (an older hmisvc-devsim?)";
        else
            answer = "the simulator refused the request (status " + std::to_string(result) + ")";
        return -1;
    }
    return result == 0 ? 0 : result == 2 ? 2 : 1;
}

}  // namespace hmisvc::tools
