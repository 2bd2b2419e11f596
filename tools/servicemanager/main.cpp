// hmisvc-servicemanager: the binder context manager (handle 0), mapping
// service names to the objects published under them.
#include "looper.h"
#include "service_registry.h"
#include "svcmgr_handler.h"

#include <hmisvc/binder.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    CLI::App app{"Binder context manager: answers service lookups and publications."};
    bool verbose = false;
    uint32_t map_size = 128 * 1024;
    app.add_flag("-v,--verbose", verbose, "Trace every request on stderr");
    app.add_option("--map-size", map_size, "Bytes of driver mapping for incoming requests")
        ->check(CLI::Range(4096u, 16u * 1024 * 1024));
    CLI11_PARSE(app, argc, argv);

    binder_connection *bs = binder_open(map_size);
    if (!bs)
        return 1;
    if (binder_become_context_manager(bs) != 0) {
        std::fprintf(stderr, "hmisvc-servicemanager: cannot become context manager (%s)\n",
                     std::strerror(errno));
        binder_close(bs);
        return 1;
    }

    hmisvc::tools::ServiceRegistry registry(bs);
    hmisvc::tools::SvcmgrHandler handler(registry, verbose ? stderr : nullptr);
    hmisvc::tools::serve(
        bs, [&](const binder_transaction_data &txn, binder_io &msg, binder_io &reply) {
            return handler.handle(txn, msg, reply);
        },
        4096);
    // The loop returns only when the driver failed; it has said why.
    binder_close(bs);
    return 1;
}
