// A size field that claims more bytes than the record has left is a short
// record: the read error, before anything of that size is allocated.
#include <hmisvc/broadcast.h>
#include <hmisvc/records.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>

#include "wire.h"

using namespace wire;

namespace {
// The largest block asked of operator new while a decode runs.
bool watching = false;
std::size_t largest = 0;
} // namespace

void *operator new(std::size_t size)
{
    if (watching && size > largest)
        largest = size;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }

namespace {

struct Claim {
    const char *name;
    std::function<std::string(const std::string &)> decode;  // the error
    std::string hexBytes;
    std::size_t claimed, present;
};

template <class Record>
std::function<std::string(const std::string &)> into()
{
    return [](const std::string &data) {
        Record r;
        return decodeError(r, data);
    };
}

const std::string k16 = "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10";

TEST(RecordWire, SizeFieldBeyondTheBytesLeftIsAShortRecordBeforeAnyAllocation)
{
    const Claim claims[] = {
        // A SetEthinfo whose first text says 768 MiB, in 24 bytes.
        {"NetInfo text1 of 768 MiB", into<NetInfo>(), "00 00 00 30 00 00 00 00 " + k16, 0x30000000, 16},
        {"WifiInfo text1 of 4 GiB - 1, upper half set", into<WifiInfo>(), "FF FF FF FF FF FF FF FF", 0xFFFFFFFF, 0},
        {"P4gInfo text3 one byte over", into<P4gInfo>(),
         "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 11 00 00 00 00 00 00 00 " + k16, 17, 16},
        {"WifiList text4 after its numbers", into<WifiList>(),
         "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
         "01 00 00 00 02 00 00 00 00 00 00 20 00 00 00 00 61",
         0x20000000, 1},
        {"Intent int key of 256 MiB", into<Intent>(),
         "00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00 00 00 10 00 00 00 00 6B", 0x10000000, 1},
        {"Intent string value of 512 MiB", into<Intent>(),
         "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 "
         "01 00 00 00 00 00 00 00 73 00 00 00 20 00 00 00 00 " + k16,
         0x20000000, 16},
    };
    for (const Claim &c : claims) {
        SCOPED_TRACE(c.name);
        const std::string data = bytes(c.hexBytes);
        largest = 0;
        watching = true;
        const std::string error = c.decode(data);
        watching = false;
        EXPECT_EQ(error, readError(c.claimed, c.present));
        EXPECT_LE(largest, data.size() + 256);  // the copy fromString takes, the error message
    }
}

} // namespace
