// fuzz_binderd_commands: hmisvc-binderd's driver on arbitrary requests from
// a few processes and threads: write-read with arbitrary command bytes and
// transaction data, other ioctls, opening, mapping, attaching, hanging up.
// Its answers go nowhere; it must neither crash nor leak.
#include "engine.h"
#include "seam_wire.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace binderd {
void send_packet(int, const void *, size_t, int) {}
void close_connection(int) {}
} // namespace binderd

namespace {

namespace seam = hmisvc::binder::seam;

struct Input {
    const uint8_t *p;
    size_t left;
    uint8_t byte()
    {
        if (!left)
            return 0;
        --left;
        return *p++;
    }
    void bytes(std::vector<unsigned char> &out, size_t n)
    {
        n = n < left ? n : left;
        out.insert(out.end(), p, p + n);
        p += n;
        left -= n;
    }
};

template <typename P>
void append(std::vector<unsigned char> &out, const P &v)
{
    const auto *b = reinterpret_cast<const unsigned char *>(&v);
    out.insert(out.end(), b, b + sizeof v);
}

// A write-read argument of the driver's width.
template <typename P>
void write_read(std::vector<unsigned char> &out, Input &in)
{
    const P write_size = in.byte(), read_size = in.byte() * 4;
    const P bwr[6] = {write_size, 0, 0, read_size, 0, 0};
    out.insert(out.end(), reinterpret_cast<const unsigned char *>(bwr),
               reinterpret_cast<const unsigned char *>(bwr) + sizeof bwr);
    in.bytes(out, write_size + in.byte()); // commands, then attachments
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input in{data, size};
    const bool narrow = in.byte() & 1;
    auto driver = binderd::make_engine(narrow ? 32 : 64);
    const ucred cred{1234, 1000, 1000};
    while (in.left) {
        const uint8_t what = in.byte();
        const int fd = 100 + (what >> 4) % 4;
        std::vector<unsigned char> packet;
        seam::Request req{};
        switch (what % 6) {
        case 0:
            req = {seam::kOpen, 0, uint64_t{in.byte()} * 512};
            break;
        case 1:
            req = {seam::kMap, 0, 0x10000};
            break;
        case 2:
            req = {seam::kAttach, 0, uint64_t{in.byte()} % 4};
            break;
        case 3:
            req = {seam::kIoctl, narrow ? 0xc0186201u : 0xc0306201u, uint64_t{in.byte()} & 1};
            break;
        case 4: {
            uint32_t code = 0;
            for (int i = 0; i < 4; ++i)
                code = code << 8 | in.byte();
            req = {seam::kIoctl, code, 0};
            break;
        }
        default:
            driver->hangup(fd);
            continue;
        }
        append(packet, req);
        if (what % 6 == 3) {
            if (narrow)
                write_read<uint32_t>(packet, in);
            else
                write_read<uint64_t>(packet, in);
        } else if (what % 6 == 4) {
            in.bytes(packet, in.byte() % 16);
        }
        driver->packet(fd, cred, packet.data(), packet.size());
    }
    for (int fd = 100; fd < 104; ++fd)
        driver->hangup(fd);
    return 0;
}
