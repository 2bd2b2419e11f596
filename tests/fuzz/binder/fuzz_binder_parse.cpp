// Arbitrary bytes through the two places where the layer reads what another
// process wrote: the driver's read buffer (binder_parse, no handler) and a
// received transaction's data (the bio_get_* readers).

#include <hmisvc/binder.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

void check(bool ok)
{
    if (!ok)
        abort();
}

// The read buffer as driver returns would fill it. BR_DEAD_BINDER carries
// the address of a death record the process registered itself; fed from
// the input it would be a call through an arbitrary pointer, so such words
// become BR_NOOP. Commands only ever start on word boundaries.
void fuzz_parse(const uint8_t *data, size_t size)
{
    std::vector<uint32_t> words(size / 4);
    if (!words.empty())
        std::memcpy(words.data(), data, words.size() * 4);
    for (uint32_t &w : words)
        if (w == BR_DEAD_BINDER)
            w = BR_NOOP;

    binder_connection conn{-1, nullptr, 0};
    binder_io bio{};
    const int r = binder_parse(&conn, &bio, words.data(), static_cast<uint32_t>(size), nullptr);
    check(r >= -1 && r <= 1);
    (void)cmd_name(words.empty() ? 0 : words[0]);
}

// Whatever a reader hands back lies inside the received data, and the
// cursor never leaves it.
void fuzz_readers(FuzzedDataProvider &in)
{
    const size_t n_offsets = in.ConsumeIntegralInRange<size_t>(0, 4);
    std::vector<binder_size_t> offsets(n_offsets);
    for (binder_size_t &o : offsets)
        o = in.ConsumeIntegralInRange<binder_size_t>(0, 64) & ~binder_size_t{3};
    const std::vector<uint8_t> ops = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 32));
    const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();

    // An exactly sized heap copy, so that reading past it is caught.
    std::unique_ptr<char[]> area(new char[bytes.size()]);
    if (!bytes.empty())
        std::memcpy(area.get(), bytes.data(), bytes.size());

    binder_transaction_data txn{};
    txn.data_size = bytes.size();
    txn.offsets_size = offsets.size() * sizeof(binder_size_t);
    txn.data.ptr.buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(area.get()));
    txn.data.ptr.offsets = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(offsets.data()));
    binder_io bio;
    bio_init_from_txn(&bio, &txn);

    const char *const begin = area.get();
    const char *const end = begin + bytes.size();
    for (uint8_t op : ops) {
        const char *before = bio.cursor;
        const void *item = nullptr;
        uint32_t len = 0;
        switch (op % 5) {
        case 0: (void)bio_get_uint32(&bio); break;
        case 1: item = bio_get_string(&bio, &len); break;
        case 2: item = bio_get_string16(&bio, &len); break;
        case 3: item = bio_get_mem(&bio, &len); break;
        case 4: (void)bio_get_ref(&bio); break;
        }
        check(bio.cursor >= begin && bio.cursor <= end);
        check(bio.cursor >= before);
        check(bio.data_left <= static_cast<size_t>(end - bio.cursor));
        if (item) {
            // What the read consumed is readable.
            const char *p = static_cast<const char *>(item);
            check(p >= begin && p <= bio.cursor);
            volatile char sink = 0;
            for (; p < bio.cursor; ++p)
                sink = sink ^ *p;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_parse(data, size);
    FuzzedDataProvider in(data, size);
    fuzz_readers(in);
    return 0;
}
