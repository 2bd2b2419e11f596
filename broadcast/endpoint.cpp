#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <hmisvc/binder.h>
#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>

#include "proxies/call.h"

namespace {

constexpr uint32_t kDeliver = 1;

int broadcast_transaction_handler(binder_connection *, binder_transaction_data *txn, binder_io *msg,
                                  binder_io *, void *arg) {
    auto intent = std::make_shared<Intent>();
    bio_get_uint32(msg); // header word
    if (txn->code != kDeliver) {
        puts("55555555555555555555555599999999999999999999");
        // One insertion, like the failure lines: whole under concurrency.
        std::cout << ("unknow code :" + std::to_string(txn->code) + '\n') << std::flush;
        puts("666666666666666666666666699999999999999999999");
        return 0;
    }
    intent->fromString(hmisvc::proxy::take_block(msg));
    static_cast<BroadcastService *>(arg)->runBroadcast(intent);
    return 0;
}

// Every object this connection publishes carries its handler as its pointer.
int broadcast_loop_handler(binder_connection *bs, binder_transaction_data *txn, binder_io *msg,
                           binder_io *reply, void *arg) {
    auto handler = reinterpret_cast<binder_txn_handler2>(static_cast<uintptr_t>(txn->target.ptr));
    handler(bs, txn, msg, reply, arg);
    return 0;
}

void *broadcast_endpoint_thread(void *arg) {
    pthread_detach(pthread_self());
    std::string name = "BroadCast#" + std::to_string(static_cast<long>(syscall(SYS_gettid)));
    auto manager = std::dynamic_pointer_cast<BroadcastManager>(
        Context::getSystemService(Context::BROADCAST_SERVICE));
    manager->RegisterBroadcastService(name);
    binder_connection *bs = binder_open(4096);
    // Without a connection there is nothing to serve.
    if (bs != nullptr) {
        svcmgr_publish(bs, SVCMGR_HANDLE, name.c_str(),
                       reinterpret_cast<void *>(&broadcast_transaction_handler));
        binder_loop2(bs, broadcast_loop_handler, arg);
    }
    pthread_exit(nullptr);
}

} // namespace

BroadcastService *Context::CreateBroadcastService() {
    auto *service = new BroadcastService();
    pthread_t thread;
    if (pthread_create(&thread, nullptr, broadcast_endpoint_thread, service) != 0)
        std::cerr << "hmisvc: cannot start the broadcast endpoint thread" << std::endl;
    return service;
}
