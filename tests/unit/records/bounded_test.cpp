// A size field claiming more bytes than the record has left is a short
// record: the read error, before anything of that size is allocated.
#include <hmisvc/broadcast.h>
#include <hmisvc/records.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "wire.h"

using namespace wire;

namespace {
std::size_t largest = 0;  // the largest block asked of operator new
} // namespace

void *operator new(std::size_t size)
{
    largest = std::max(largest, size);
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }

namespace {

template <class Record>
void expectShort(const std::string &hexBytes, std::size_t claimed, std::size_t present)
{
    const std::string data = bytes(hexBytes);
    Record record;
    largest = 0;
    EXPECT_EQ(decodeError(record, data), readError(claimed, present));
    EXPECT_LE(largest, data.size() + 256);  // the copy fromString takes, the error's message
}

const std::string k16 = "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 ";
const std::string kEmpty = "00 00 00 00 00 00 00 00 ";

TEST(RecordWire, SizeFieldBeyondTheBytesLeftIsAShortRecordBeforeAnyAllocation)
{
    // A SetEthinfo whose first text says 768 MiB, in 24 bytes.
    expectShort<NetInfo>("00 00 00 30 00 00 00 00 " + k16, 0x30000000, 16);
    expectShort<WifiInfo>("FF FF FF FF FF FF FF FF", 0xFFFFFFFF, 0);  // the upper half is ignored
    expectShort<P4gInfo>(kEmpty + kEmpty + "11 00 00 00 00 00 00 00 " + k16, 17, 16);
    expectShort<Intent>(kEmpty + "01 00 00 00 00 00 00 00 00 00 00 10 00 00 00 00 6B", 0x10000000, 1);  // int key
    expectShort<Intent>(kEmpty + kEmpty + "01 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 73 00 00 00 20 00 00 00 00 " +
                            k16,
                        0x20000000, 16);  // string value
}

} // namespace
