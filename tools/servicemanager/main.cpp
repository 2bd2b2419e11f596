// hmisvc-servicemanager: the binder context manager (handle 0), mapping
// service names to the objects published under them.
#include "looper.h"
#include "service_registry.h"
#include "svcmgr_handler.h"

#include <hmisvc/binder.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Where the names are kept across a restart unless --names says: a
// directory of our own on the tmpfs every panel and test guest has (gone
// with a reboot, as the processes holding the names are). One that another
// user could write is not trusted; "" then, after saying why.
std::string default_names_file()
{
    std::string dir = "/dev/shm/hmisvc-servicemanager-" + std::to_string(geteuid());
    // A userspace driver's names end with it: they are kept in its own
    // private directory, so that sessions on one host never read each other's.
    if (const char *socket = std::getenv("HMISVC_BINDER_SOCKET"); socket && *socket) {
        std::string path = socket;
        size_t slash = path.rfind('/');
        dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    }
    struct stat st{};
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "hmisvc-servicemanager: cannot make %s (%s); names are not kept across a restart\n",
                     dir.c_str(), std::strerror(errno));
        return {};
    }
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077)) {
        std::fprintf(stderr,
                     "hmisvc-servicemanager: %s is not a directory only we may write; names are not kept "
                     "across a restart\n",
                     dir.c_str());
        return {};
    }
    return dir + "/names";
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Binder context manager: answers service lookups and publications."};
    bool verbose = false;
    uint32_t map_size = 128 * 1024;
    app.add_flag("-v,--verbose", verbose, "Trace every request on stderr");
    app.add_option("--map-size", map_size, "Bytes of driver mapping for incoming requests")
        ->check(CLI::Range(4096u, 16u * 1024 * 1024));
    std::string names_file;
    app.add_option("--names", names_file,
                   "Keep the published names in FILE across a restart (default: "
                   "/dev/shm/hmisvc-servicemanager-EUID/names, or on a userspace driver names "
                   "in its socket's directory; 'none': not kept)");
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

    if (names_file.empty())
        names_file = default_names_file();
    else if (names_file == "none")
        names_file.clear();
    hmisvc::tools::ServiceRegistry registry(bs, names_file);
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
