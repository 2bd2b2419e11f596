#include <hmisvc/broadcast.h>
#include <hmisvc/records.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "wire.h"

using namespace wire;

namespace {
std::size_t largest = 0;  // the largest block asked of operator new
} // namespace

void *operator new(std::size_t size)
{
    largest = std::max(largest, size);
    return std::malloc(size ? size : 1);  // none fails here
}
[[gnu::noinline]] void operator delete(void *p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void *p, std::size_t) noexcept { std::free(p); }

namespace {

// How a field travels. Local fields never do.
enum class Elem { Int, Enum, Str, Local };

struct Field {
    Elem elem;
    void *at;
};

// Each record's fields in wire order.
std::vector<Field> fields(Date &d)
{
    return {{Elem::Int, &d.subsecond}, {Elem::Int, &d.second}, {Elem::Int, &d.minute},
            {Elem::Int, &d.hour},      {Elem::Int, &d.day},    {Elem::Int, &d.month},
            {Elem::Int, &d.year},      {Elem::Int, &d.extra}};
}
std::vector<Field> fields(NetInfo &n)
{
    return {{Elem::Str, &n.text1}, {Elem::Str, &n.text2}, {Elem::Str, &n.text3}, {Elem::Str, &n.text4},
            {Elem::Str, &n.text6}, {Elem::Str, &n.text5}, {Elem::Enum, &n.kind}};
}
std::vector<Field> fields(P4gInfo &p)
{
    return {{Elem::Str, &p.text1}, {Elem::Str, &p.text2}, {Elem::Str, &p.text3},
            {Elem::Str, &p.text4}, {Elem::Str, &p.text5}, {Elem::Str, &p.text6},
            {Elem::Enum, &p.kind}, {Elem::Int, &p.value}};
}
std::vector<Field> fields(WifiInfo &w)
{
    return {{Elem::Str, &w.text1}, {Elem::Str, &w.text2}, {Elem::Str, &w.text3}, {Elem::Str, &w.text4},
            {Elem::Str, &w.text5}, {Elem::Str, &w.text6}, {Elem::Int, &w.value}};
}
std::vector<Field> fields(WifiList &w)
{
    return {{Elem::Str, &w.text1}, {Elem::Str, &w.text2}, {Elem::Str, &w.text3},    {Elem::Int, &w.value},
            {Elem::Enum, &w.kind}, {Elem::Str, &w.text4}, {Elem::Local, &w.localText}};
}

bool isString(Elem e) { return e == Elem::Str || e == Elem::Local; }

// A record's content in wire order; numbers as their 4 bytes.
template <class Record>
std::vector<std::string> state(Record &record)
{
    std::vector<std::string> out;
    for (const Field &f : fields(record))
        out.push_back(isString(f.elem) ? *static_cast<std::string *>(f.at)
                                       : std::string(static_cast<const char *>(f.at), 4));
    return out;
}

template <class Record>
Record make(const std::vector<std::string> &values)
{
    Record record;
    auto fs = fields(record);
    for (std::size_t i = 0; i < fs.size(); ++i) {
        if (isString(fs[i].elem))
            *static_cast<std::string *>(fs[i].at) = values.at(i);
        else
            std::memcpy(fs[i].at, values.at(i).data(), 4);
    }
    return record;
}

// What `before` holds after decoding `wire` cut to `cut` bytes, and the
// error that stops it: finished fields hold the new values; an int has the
// bytes that arrived in its low-order end; an enumeration changes only when
// whole; a string whose size field arrived has the new length and the bytes
// that arrived at its start.
template <class Record>
std::pair<std::vector<std::string>, std::string> afterCut(Record before, const std::string &wire,
                                                          std::size_t cut)
{
    auto fs = fields(before);
    auto st = state(before);
    std::size_t pos = 0;
    for (std::size_t i = 0; i < fs.size(); ++i) {
        if (fs[i].elem == Elem::Local)
            continue;
        if (fs[i].elem != Elem::Str) {
            std::size_t got = std::min<std::size_t>(4, cut - pos);
            if (fs[i].elem == Elem::Int || got == 4)
                st[i].replace(0, got, wire, pos, got);
            if (got < 4)
                return {st, readError(4, got)};
            pos += 4;
            continue;
        }
        std::size_t got = std::min<std::size_t>(8, cut - pos);
        if (got < 8)
            return {st, readError(8, got)};
        std::uint32_t length;
        std::memcpy(&length, wire.data() + pos, 4);
        pos += 8;
        got = std::min<std::size_t>(length, cut - pos);
        if (got < length)
            return {st, readError(length, got)};
        st[i] = wire.substr(pos, length);
        pos += length;
    }
    return {st, "no error"};
}

// Values for every field of a record by its wire shape: what it held before
// decoding, and what gets decoded (empty strings, zero bytes inside, strings
// shorter and longer than before, negative numbers).
template <class Record>
std::vector<std::string> stale()
{
    Record r;
    std::vector<std::string> out;
    for (const Field &f : fields(r)) {
        std::size_t i = out.size();
        out.push_back(isString(f.elem) ? "stale-" + std::to_string(i) : raw(0x11223344 + int(i)));
    }
    return out;
}

template <class Record>
std::vector<std::string> fresh()
{
    Record r;
    std::vector<std::string> out;
    for (const Field &f : fields(r)) {
        std::size_t i = out.size();
        switch (f.elem) {
        case Elem::Int: out.push_back(raw(-2 - int(i))); break;
        case Elem::Enum: out.push_back(raw(3)); break;
        case Elem::Local: out.push_back("fresh local"); break;
        case Elem::Str: {
            const std::string variants[] = {"", std::string("n\0l", 3), "fresh-and-longer-" + std::to_string(i)};
            out.push_back(variants[i % 3]);
        }
        }
    }
    return out;
}

// Decodes `wire` over a stale record: it then holds `sent`, but for the
// local fields, which keep their stale values.
template <class Record>
void expectDecodes(const std::string &wire, std::vector<std::string> sent)
{
    Record decoded = make<Record>(stale<Record>());
    decoded.fromString(wire);
    auto fs = fields(decoded);
    for (std::size_t i = 0; i < fs.size(); ++i)
        if (fs[i].elem == Elem::Local)
            sent[i] = stale<Record>()[i];
    EXPECT_EQ(state(decoded), sent);
}

template <class Record>
class EveryRecord : public ::testing::Test {};
using Records = ::testing::Types<Date, NetInfo, P4gInfo, WifiInfo, WifiList>;
TYPED_TEST_SUITE(EveryRecord, Records);

TYPED_TEST(EveryRecord, RoundTripKeepsEveryFieldAndIgnoresTrailingBytes)
{
    TypeParam sent = make<TypeParam>(fresh<TypeParam>());
    const std::string encoded = sent.toString();

    std::size_t length = 0;
    for (const Field &f : fields(sent))
        length += f.elem == Elem::Local ? 0 : f.elem == Elem::Str ? 8 + static_cast<std::string *>(f.at)->size() : 4;
    EXPECT_EQ(encoded.size(), length);

    for (const std::string &tail : {std::string(), std::string("\x05\0trailing", 10)})
        expectDecodes<TypeParam>(encoded + tail, fresh<TypeParam>());
}

TYPED_TEST(EveryRecord, ShortInputOfEveryLengthFailsAndLeavesWhatArrived)
{
    const std::string encoded = make<TypeParam>(fresh<TypeParam>()).toString();
    const TypeParam before = make<TypeParam>(stale<TypeParam>());
    for (std::size_t cut = 0; cut < encoded.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        TypeParam received = before;
        auto [expectedState, expectedError] = afterCut(before, encoded, cut);
        EXPECT_EQ(decodeError(received, encoded.substr(0, cut)), expectedError);
        EXPECT_EQ(state(received), expectedState);
    }
}

// Encodes to exactly `hex`, and decoding `hex` gives the record back.
template <class Record>
void expectWire(Record record, const std::string &hexBytes)
{
    EXPECT_EQ(hex(record.toString()), hexBytes);
    expectDecodes<Record>(bytes(hexBytes), state(record));
}

const std::string kEmpty = "00 00 00 00 00 00 00 00";

std::string repeat(const std::string &hexBytes, int times)
{
    std::string out;
    for (int i = 0; i < times; ++i)
        out += (out.empty() ? "" : " ") + hexBytes;
    return out;
}

TEST(RecordWire, WorkedExamples)
{
    expectWire(make<Date>({raw(250), raw(7), raw(3), raw(9), raw(17), raw(5), raw(2024), raw(5)}),
               "FA 00 00 00 07 00 00 00 03 00 00 00 09 00 00 00 11 00 00 00 05 00 00 00 E8 07 00 00 "
               "05 00 00 00");

    // Declared text5 "e", text6 "f": the wire carries text6 first.
    NetInfo net;
    net.text5 = "e";
    net.text6 = "f";
    net.kind = NetInfo::Kind(2);
    expectWire(net, repeat(kEmpty, 4) + " 01 00 00 00 00 00 00 00 66 01 00 00 00 00 00 00 00 65 02 00 00 00");

    expectWire(make<P4gInfo>({"ab", "", "", "", "", "", raw(1), raw(-1)}),
               "02 00 00 00 00 00 00 00 61 62 " + repeat(kEmpty, 5) + " 01 00 00 00 FF FF FF FF");

    // kind travels before text4.
    WifiList wifi;
    wifi.text1 = "net";
    wifi.value = -60;
    wifi.text4 = "x";
    wifi.kind = WifiList::Kind(3);
    wifi.localText = "not sent";
    expectWire(wifi, "03 00 00 00 00 00 00 00 6E 65 74 " + repeat(kEmpty, 2) +
                         " C4 FF FF FF 03 00 00 00 01 00 00 00 00 00 00 00 78");
}

TEST(DatePrintTime, PrintsOneLineWithExtraRunningOn)
{
    struct Case {
        std::vector<int> wireOrder; // subsecond, second, minute, hour, day, month, year, extra
        std::string line;
    };
    const Case cases[] = {
        {{250, 7, 3, 9, 17, 5, 2024, 5}, "2024-5-17 9:3:7:2505\n"},
        {{0, 0, 0, 0, 0, 0, 0, 0}, "0-0-0 0:0:0:00\n"},
        {{7, 58, 59, 23, 1, 12, 2024, 0}, "2024-12-1 23:59:58:70\n"},
        {{-1, -2, -3, -4, -5, -6, -7, -8}, "-7--6--5 -4:-3:-2:-1-8\n"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> values;
        for (int v : c.wireOrder)
            values.push_back(raw(v));
        Date date = make<Date>(values);
        EXPECT_EQ(captureStdout([&] { date.PrintTime(); }), c.line);
    }
}

// A size field claiming more than the bytes left is the short record's read
// error, raised before anything of that size is allocated.
template <class Record>
void expectShort(const std::string &hexBytes, std::size_t claimed, std::size_t present)
{
    const std::string data = bytes(hexBytes);
    Record record;
    largest = 0;
    EXPECT_EQ(decodeError(record, data), readError(claimed, present));
    EXPECT_LE(largest, data.size() + 256);  // the copy fromString takes, the error's message
}

TEST(RecordWire, SizeFieldBeyondTheBytesLeftIsAShortRecordBeforeAnyAllocation)
{
    const std::string k16 = "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 ", k0 = kEmpty + " ";
    // A SetEthinfo whose first text says 768 MiB, in 24 bytes.
    expectShort<NetInfo>("00 00 00 30 00 00 00 00 " + k16, 0x30000000, 16);
    expectShort<WifiInfo>("FF FF FF FF FF FF FF FF", 0xFFFFFFFF, 0);  // the upper half is ignored
    expectShort<Intent>(k0 + "01 00 00 00 00 00 00 00 00 00 00 10 00 00 00 00 6B", 0x10000000, 1);  // int key
    expectShort<Intent>(k0 + k0 + "01 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 73 00 00 00 20 00 00 00 00 " + k16,
                        0x20000000, 16);  // string value
}

} // namespace
