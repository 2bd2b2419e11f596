// send_bytes claim | texts COUNT BYTES: what any process can send the
// simulated device. claim: a SetEthinfo whose 24-byte record says its first
// text is 768 MiB. texts: COUNT GetValue queries whose key and default are
// BYTES bytes each. Exits 0 once every call was answered (served or refused).
#include <hmisvc/binder.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

int send(binder_connection *bs, uint32_t target, uint32_t code, const std::vector<std::string> &texts,
         const std::string *block)
{
    std::size_t size = 64 + (block ? block->size() : 0);
    for (const std::string &t : texts)
        size += t.size() + 8;
    std::vector<char> area(size);
    binder_io msg, reply;
    bio_init(&msg, area.data(), static_cast<uint32_t>(area.size()), 4);
    bio_put_uint32(&msg, 0);
    for (const std::string &t : texts)
        bio_put_string(&msg, t.c_str());
    if (block)
        bio_put_mem(&msg, block->data(), static_cast<uint32_t>(block->size()));
    if (binder_call(bs, &msg, &reply, target, code) != 0)
        return 1;
    binder_done(bs, &msg, &reply);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    if (!(what == "claim" && argc == 2) && !(what == "texts" && argc == 4))
        return 2;
    binder_connection *bs = binder_open(4 * 1024 * 1024);
    if (!bs)
        return 1;
    std::unique_ptr<binder_connection, void (*)(binder_connection *)> hold(bs, binder_close);
    uint32_t target = svcmgr_lookup(bs, SVCMGR_HANDLE, what == "claim" ? "ethinfo" : "settings");
    if (!target)
        return 1;
    if (what == "claim") {
        std::string record(24, '\0');
        record[3] = 0x30;  // 0x30000000 bytes, then 16 of them
        return send(bs, target, 1, {}, &record);
    }
    const std::string text(std::strtoul(argv[3], nullptr, 10), 'x');
    for (int i = 0, n = std::atoi(argv[2]); i < n; ++i)
        if (send(bs, target, 0, {"section", text, text}, nullptr) != 0)
            return 1;
    return 0;
}
