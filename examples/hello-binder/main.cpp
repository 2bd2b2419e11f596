// hello-binder: the smallest round trip through a service manager.
//
// The process forks. The child publishes a service named "hello" and serves
// it; the parent looks "hello" up, calls it once with a name and prints the
// greeting it gets back. Needs a running service manager (hmisvc-servicemanager)
// and a binder driver; hmisvc-run provides the latter.
#include <hmisvc/binder.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kServiceName = "hello";
constexpr uint32_t kCodeGreet = 1;   // request: word 0, name; reply: greeting
constexpr uint32_t kMapSize = 128 * 1024;

// The object published; the driver hands its address back with every call.
int g_service_token;

int serve_hello(binder_connection *, binder_transaction_data *txn, binder_io *msg,
                binder_io *reply)
{
    if (txn->code != kCodeGreet)
        return -1;
    bio_get_uint32(msg);
    uint32_t len = 0;
    const char *name = bio_get_string(msg, &len);
    if (!name)
        return -1;
    std::printf("service: greeting %s\n", name);
    const std::string greeting = "Hello, " + std::string(name, len) + "!";
    bio_put_string(reply, greeting.c_str());
    return 0;
}

// Child: publish, tell the parent, serve until killed.
[[noreturn]] void run_service(int ready_fd)
{
    binder_connection *bs = binder_open(kMapSize);
    if (!bs)
        _exit(1);
    const int status = svcmgr_publish(bs, SVCMGR_HANDLE, kServiceName, &g_service_token);
    const char result = status == 0 ? 1 : 0;
    if (write(ready_fd, &result, 1) != 1 || status != 0)
        _exit(1);
    close(ready_fd);
    binder_loop(bs, serve_hello);
    _exit(1);
}

int call_service()
{
    binder_connection *bs = binder_open(kMapSize);
    if (!bs)
        return 1;
    const uint32_t handle = svcmgr_lookup(bs, SVCMGR_HANDLE, kServiceName);
    if (handle == 0) {
        std::printf("client: no service named \"%s\"\n", kServiceName);
        binder_close(bs);
        return 1;
    }
    std::printf("client: \"%s\" is handle %u\n", kServiceName, handle);

    char area[512];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    bio_put_string(&msg, "operator panel");
    int rc = 1;
    if (binder_call(bs, &msg, &reply, handle, kCodeGreet) == 0) {
        uint32_t len = 0;
        const char *greeting = bio_get_string(&reply, &len);
        if (greeting) {
            std::printf("client: reply \"%.*s\"\n", static_cast<int>(len), greeting);
            rc = 0;
        } else {
            std::printf("client: reply carries no string\n");
        }
        binder_done(bs, &msg, &reply);
    } else {
        std::printf("client: call failed\n");
    }
    binder_close(bs);
    return rc;
}

}  // namespace

int main()
{
    // Both processes print; whole lines keep their output in order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int ready[2];
    if (pipe(ready) != 0) {
        std::perror("pipe");
        return 1;
    }
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return 1;
    }
    if (child == 0) {
        close(ready[0]);
        run_service(ready[1]);
    }
    close(ready[1]);

    char published = 0;
    int rc = 1;
    if (read(ready[0], &published, 1) == 1 && published) {
        std::printf("service: \"%s\" published\n", kServiceName);
        rc = call_service();
    } else {
        std::printf("service: could not publish \"%s\" (is a service manager running?)\n",
                    kServiceName);
    }
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    return rc;
}
