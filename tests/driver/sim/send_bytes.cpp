// send_bytes claim | texts COUNT BYTES, as any process could: a SetEthinfo
// whose 24-byte record says its first text is 768 MiB; or COUNT GetValue
// queries whose key and default are BYTES bytes each. Exits 0 once answered.
#include <hmisvc/binder.h>

#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char **argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    if (!(what == "claim" && argc == 2) && !(what == "texts" && argc == 4))
        return 2;
    binder_connection *bs = binder_open(4 * 1024 * 1024);
    uint32_t target = bs ? svcmgr_lookup(bs, SVCMGR_HANDLE, what == "claim" ? "ethinfo" : "settings") : 0;
    const std::string text(what == "texts" ? std::strtoul(argv[3], nullptr, 10) : 0, 'x');
    int failed = !target;
    for (int i = 0, n = what == "claim" ? 1 : std::atoi(argv[2]); i < n && !failed; ++i) {
        std::vector<char> area(2 * text.size() + 64);
        binder_io msg, reply;
        bio_init(&msg, area.data(), static_cast<uint32_t>(area.size()), 4);
        bio_put_uint32(&msg, 0);
        const char record[24] = {0, 0, 0, 0x30};  // 0x30000000 bytes, then 16 of them
        if (what == "claim")
            bio_put_mem(&msg, record, sizeof record);
        for (const char *t : {"section", text.c_str(), text.c_str()})
            if (what == "texts")
                bio_put_string(&msg, t);
        failed = binder_call(bs, &msg, &reply, target, what == "claim" ? 1 : 0) != 0;
        if (!failed)
            binder_done(bs, &msg, &reply);
    }
    return failed;  // the connection closes with the process
}
