// A minimal binder client written straight on the driver's ioctl, as the
// yardstick for binder_call.
#ifndef HMISVC_BENCH_RAW_CLIENT_H
#define HMISVC_BENCH_RAW_CLIENT_H

#include <cstdint>

class RawClient {
public:
    RawClient() = default;
    ~RawClient();
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool open(uint32_t map_size);
    // Sends the words 0 and `arg` with `code` to `handle`, waits for the
    // reply, gives its buffer back and returns its first word; -1 on failure.
    int64_t call(uint32_t handle, uint32_t code, uint32_t arg);

private:
    int fd_ = -1;
    void *map_ = nullptr;
    uint32_t map_size_ = 0;
};

#endif
