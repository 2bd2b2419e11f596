#include "svcmgr_client.h"

#include "svcmgr_handler.h"

namespace hmisvc::tools {

namespace {

void put_header(binder_io &msg)
{
    bio_put_uint32(&msg, 0);
    bio_put_string16_x(&msg, "android.os.IServiceManager");
}

}  // namespace

ListResult svcmgr_list(binder_connection *bs, std::vector<std::string> &names)
{
    names.clear();
    for (uint32_t i = 0;; ++i) {
        unsigned char area[256];
        binder_io msg, reply;
        bio_init(&msg, area, sizeof area, 4);
        put_header(msg);
        bio_put_uint32(&msg, i);
        if (binder_call(bs, &msg, &reply, SVCMGR_HANDLE, kSvcmgrCodeList) != 0)
            return ListResult::kCallFailed;
        // The end of the list is the status word kNoMoreNames alone.
        bool end = reply.data_left == sizeof(uint32_t);
        binder_io word = reply;
        uint32_t len = 0;
        const uint16_t *name = end ? nullptr : bio_get_string16(&reply, &len);
        ListResult result = ListResult::kCannotList;
        if (end && bio_get_uint32(&word) == static_cast<uint32_t>(SvcmgrHandler::kNoMoreNames)) {
            result = ListResult::kListed;
        } else if (name && len != 0xFFFFFFFFu && !(reply.flags & BIO_FLAG_OVERFLOW)) {
            std::string narrow;
            for (uint32_t k = 0; k < len; ++k)
                narrow += name[k] < 0x80 ? static_cast<char>(name[k]) : '?';
            names.push_back(narrow);
            end = false, result = ListResult::kListed;
        } else {
            end = true;
        }
        binder_done(bs, &msg, &reply);
        if (end)
            return result;
    }
}

int svcmgr_unpublish(binder_connection *bs, const char *name, void *object)
{
    unsigned char area[512];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    put_header(msg);
    bio_put_string16_x(&msg, name);
    bio_put_obj(&msg, object);
    if (binder_call(bs, &msg, &reply, SVCMGR_HANDLE, kSvcmgrCodeUnpublish) != 0)
        return -1;
    bool word = reply.data_left == sizeof(uint32_t);
    uint32_t status = bio_get_uint32(&reply);
    binder_done(bs, &msg, &reply);
    return word ? static_cast<int>(status) : -1;
}

}  // namespace hmisvc::tools
