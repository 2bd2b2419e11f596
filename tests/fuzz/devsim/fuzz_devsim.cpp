// The simulator on what clients send it, a fresh device per input. The mode
// is chosen at build time:
//   HMISVC_FUZZ_DEVSIM_STATE     byte 0 even: the rest is a state document
//                                (`sim load`, --state); odd: KEY NUL VALUE
//                                (`sim set`)
//   HMISVC_FUZZ_DEVSIM_CONTROL   byte 0 the code, the rest a request to the
//                                control service
//   HMISVC_FUZZ_DEVSIM_SERVICES  byte 0 the service, byte 1 the code, the
//                                rest the request; traced and recorded
// Nothing may crash or throw; afterwards the state's dump must load into
// another device and dump the same, whatever bytes it holds.
#include "control.h"
#include "services.h"
#include "state.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace hmisvc::devsim;

[[maybe_unused]] std::FILE *null_file()
{
    static std::FILE *f = std::fopen("/dev/null", "w");
    return f;
}

// Serves one transaction to `target` as the driver hands it over.
[[maybe_unused]] int serve(Simulator &sim, const Service &target, uint32_t code, const uint8_t *data, std::size_t size)
{
    std::vector<uint32_t> in(size / 4 + 1);
    if (size)
        std::memcpy(in.data(), data, size);
    binder_transaction_data txn{};
    txn.target.ptr = object_word(&target);
    txn.code = code;
    txn.data_size = size;
    txn.data.ptr.buffer = static_cast<binder_uintptr_t>(reinterpret_cast<uintptr_t>(in.data()));
    binder_io msg, reply;
    bio_init_from_txn(&msg, &txn);
    static std::vector<uint32_t> area(kReplyArea / 4);
    bio_init(&reply, area.data(), static_cast<uint32_t>(kReplyArea), 4);
    return sim.handle(txn, msg, reply);
}

void dump_loads_back(Control &control)
{
    ControlResult dump = control.dump();
    Device other;
    Simulator sim{other};
    hmisvc::tools::Publisher publisher{nullptr};
    Control second{other, sim, publisher};
    ControlResult loaded = second.load_state(dump.text);
    if (loaded.code != ControlResult::kDone) {
        std::fprintf(stderr, "a dump does not load: %s\n", loaded.text.c_str());
        std::abort();
    }
    if (second.dump().text != dump.text) {
        std::fprintf(stderr, "a dump loads back different\n");
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    Device device;
#if defined(HMISVC_FUZZ_DEVSIM_SERVICES)
    Simulator sim{device, null_file(), null_file()};
#else
    Simulator sim{device};
#endif
    hmisvc::tools::Publisher publisher{nullptr};
    Control control{device, sim, publisher};
    sim.add_extra(&control.service());

#if defined(HMISVC_FUZZ_DEVSIM_STATE)
    std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    if (data[0] % 2 == 0) {
        control.load_state(rest);
    } else {
        std::size_t nul = rest.find('\0');
        if (nul == std::string::npos)
            return 0;
        control.set(rest.substr(0, nul), rest.substr(nul + 1));
    }
#elif defined(HMISVC_FUZZ_DEVSIM_CONTROL)
    serve(sim, control.service(), data[0], data + 1, size - 1);
#elif defined(HMISVC_FUZZ_DEVSIM_SERVICES)
    // The broadcast service starts an endpoint thread per registered name
    // that calls out over the driver, which is not here.
    const auto &services = sim.services();
    const Service &target = services[data[0] % services.size()];
    if (std::strcmp(target.name, "broadcast") == 0)
        return 0;
    serve(sim, target, data[1], data + 2, size - 2);
#endif
    dump_loads_back(control);
    return 0;
}
