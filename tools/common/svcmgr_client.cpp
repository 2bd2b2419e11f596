#include "svcmgr_client.h"

#include "svcmgr_handler.h"

namespace hmisvc::tools {

namespace {

void put_header(binder_io &msg)
{
    bio_put_uint32(&msg, 0);
    bio_put_string16_x(&msg, "android.os.IServiceManager");
}

// Sends the header, `name` and (when given) `object` with `code`; returns
// the reply's status word and the words after it, or nothing when the call
// failed or the reply is not whole words.
bool call_named(binder_connection *bs, uint32_t code, const char *name, void *object, std::vector<uint32_t> &words)
{
    unsigned char area[512];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    put_header(msg);
    bio_put_string16_x(&msg, name);
    if (object)
        bio_put_obj(&msg, object);
    if (binder_call(bs, &msg, &reply, SVCMGR_HANDLE, code) != 0)
        return false;
    bool whole = reply.data_left > 0 && reply.data_left % sizeof(uint32_t) == 0;
    words.clear();
    while (whole && reply.data_left > 0)
        words.push_back(bio_get_uint32(&reply));
    binder_done(bs, &msg, &reply);
    return whole;
}

// The status word of a request answered with one word alone.
int status_of(binder_connection *bs, uint32_t code, const char *name, void *object)
{
    std::vector<uint32_t> words;
    return call_named(bs, code, name, object, words) && words.size() == 1 ? static_cast<int>(words[0]) : -1;
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
    return status_of(bs, kSvcmgrCodeUnpublish, name, object);
}

int svcmgr_claim(binder_connection *bs, const char *name)
{
    return status_of(bs, kSvcmgrCodeClaim, name, nullptr);
}

int svcmgr_holder(binder_connection *bs, const char *name)
{
    std::vector<uint32_t> words;
    if (!call_named(bs, kSvcmgrCodeHolder, name, nullptr, words))
        return -1;
    if (words.size() == 1 && words[0] == static_cast<uint32_t>(SvcmgrHandler::kNoMoreNames))
        return 0;
    return words.size() == 3 && words[0] == 0 ? static_cast<int>(words[1]) : -1;
}

}  // namespace hmisvc::tools
