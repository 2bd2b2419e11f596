// A minimal binder client written straight on the driver's ioctl, as the
// yardstick for binder_call.
#ifndef HMISVC_BENCH_RAW_CLIENT_H
#define HMISVC_BENCH_RAW_CLIENT_H

#include <cstddef>
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
    // The same with the word 0 alone, as a proxy's argument-less method sends.
    int64_t call(uint32_t handle, uint32_t code);
    // The service manager's answer for `name` (acquired), 0 when unknown.
    uint32_t lookup(const char *name);

private:
    // One transaction; copies up to `max_words` words of the reply and
    // returns how many, 0 on failure.
    size_t transact(uint32_t handle, uint32_t code, const void *payload, size_t size, uint32_t *words,
                    size_t max_words, bool acquire_ref = false);

    // The kernel's device, or a userspace driver's connection through the seam.
    int ioctl(unsigned long request, void *arg);

    struct binder_connection *bs_ = nullptr;
    int fd_ = -1;
    void *map_ = nullptr;
    uint32_t map_size_ = 0;
};

#endif
