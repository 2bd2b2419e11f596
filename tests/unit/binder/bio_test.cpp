// The transaction buffer: byte-exact encodings, overflow rules, readers.

#include "wire_bytes.h"

#include <hmisvc/binder.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace binder_test;

namespace {

constexpr uint32_t kMaxOffsets = 4;
constexpr uint32_t kOffsetsBytes = kMaxOffsets * sizeof(binder_size_t);
constexpr size_t kObject = sizeof(flat_binder_object);
void *const kFakePtr = reinterpret_cast<void *>(uintptr_t{0x12345678});

// A request buffer over an area pre-filled with 0xAA, so that stray or
// missing bytes show.
struct Request {
    alignas(binder_size_t) unsigned char area[512];
    binder_io bio;
    explicit Request(uint32_t size = sizeof(area), uint32_t max_offsets = kMaxOffsets)
    {
        std::memset(area, 0xAA, sizeof area);
        std::memset(&bio, 0, sizeof bio);
        bio_init(&bio, area, size, max_offsets);
    }
};

// ---- Encodings ----

struct EncodingCase {
    const char *name;
    std::function<void(binder_io *)> put;
    ByteVec data;
    std::vector<binder_size_t> offsets;
};

const ByteVec kNull = Bytes().u32(0xFFFFFFFF);

class Encoding : public testing::TestWithParam<EncodingCase> {};

TEST_P(Encoding, WritesExactBytesAndOffsets)
{
    const EncodingCase &c = GetParam();
    Request r;
    c.put(&r.bio);
    EXPECT_EQ(written(r.bio), c.data);
    EXPECT_EQ(offsets_written(r.bio), c.offsets);
    EXPECT_EQ(r.bio.flags, 0u);
    EXPECT_EQ(r.bio.data_left, sizeof r.area - kOffsetsBytes - c.data.size());
    EXPECT_EQ(r.bio.offsets_left, kMaxOffsets - c.offsets.size());
    // Nothing past the item is touched.
    EXPECT_EQ(r.area[kOffsetsBytes + c.data.size()], 0xAA);
}

const uint16_t kUtf16Ab[] = {'a', 'b', 0};
const uint16_t kUtf16Empty[] = {0};
const unsigned char kMem3[] = {1, 2, 3};

INSTANTIATE_TEST_SUITE_P(
    Bio, Encoding,
    testing::Values(
        EncodingCase{"uint32", [](binder_io *b) { bio_put_uint32(b, 0x11223344); },
                     Bytes().u8(0x44).u8(0x33).u8(0x22).u8(0x11), {}},
        EncodingCase{"string_empty", [](binder_io *b) { bio_put_string(b, ""); },
                     Bytes().u32(0).zeros(4), {}},
        EncodingCase{"string_3", [](binder_io *b) { bio_put_string(b, "abc"); },
                     Bytes().u32(3).u8('a').u8('b').u8('c').u8(0), {}},
        EncodingCase{"string_4", [](binder_io *b) { bio_put_string(b, "abcd"); },
                     Bytes().u32(4).u8('a').u8('b').u8('c').u8('d').zeros(4), {}},
        EncodingCase{"string_null", [](binder_io *b) { bio_put_string(b, nullptr); }, kNull, {}},
        EncodingCase{"string16x_empty", [](binder_io *b) { bio_put_string16_x(b, ""); },
                     Bytes().u32(0).zeros(4), {}},
        EncodingCase{"string16x_2", [](binder_io *b) { bio_put_string16_x(b, "ab"); },
                     Bytes().u32(2).u16('a').u16('b').u16(0).zeros(2), {}},
        EncodingCase{"string16x_latin1", [](binder_io *b) { bio_put_string16_x(b, "\xC3\xA9\x80"); },
                     Bytes().u32(3).u16(0xC3).u16(0xA9).u16(0x80).u16(0), {}},
        EncodingCase{"string16x_null", [](binder_io *b) { bio_put_string16_x(b, nullptr); }, kNull, {}},
        EncodingCase{"string16_2", [](binder_io *b) { bio_put_string16(b, kUtf16Ab); },
                     Bytes().u32(2).u16('a').u16('b').u16(0).zeros(2), {}},
        EncodingCase{"string16_empty", [](binder_io *b) { bio_put_string16(b, kUtf16Empty); },
                     Bytes().u32(0).zeros(4), {}},
        EncodingCase{"string16_null", [](binder_io *b) { bio_put_string16(b, nullptr); }, kNull, {}},
        EncodingCase{"mem_3", [](binder_io *b) { bio_put_mem(b, kMem3, 3); },
                     Bytes().u32(3).u8(1).u8(2).u8(3).u8(0), {}},
        EncodingCase{"mem_0", [](binder_io *b) { bio_put_mem(b, kMem3, 0); }, Bytes().u32(0), {}},
        EncodingCase{"mem_null", [](binder_io *b) { bio_put_mem(b, nullptr, 3); }, kNull, {}},
        // Too long to send: the null marker, the pointer never read.
        EncodingCase{"mem_2p30", [](binder_io *b) { bio_put_mem(b, kFakePtr, 1u << 30); }, kNull, {}},
        EncodingCase{"ref_null", [](binder_io *b) { bio_put_ref(b, 0); },
                     object_bytes(BINDER_TYPE_HANDLE, 0), {}},
        EncodingCase{"ref", [](binder_io *b) { bio_put_ref(b, 7); },
                     object_bytes(BINDER_TYPE_HANDLE, 7), {0}},
        EncodingCase{"obj", [](binder_io *b) { bio_put_obj(b, kFakePtr); },
                     object_bytes(BINDER_TYPE_BINDER, 0x12345678), {0}},
        EncodingCase{"word_then_two_objects",
                     [](binder_io *b) {
                         bio_put_uint32(b, 9);
                         bio_put_ref(b, 7);
                         bio_put_obj(b, kFakePtr);
                     },
                     Bytes().u32(9).append(object_bytes(BINDER_TYPE_HANDLE, 7))
                         .append(object_bytes(BINDER_TYPE_BINDER, 0x12345678)),
                     {4, 4 + kObject}}),
    [](const testing::TestParamInfo<EncodingCase> &info) { return info.param.name; });

// ---- Overflow ----

TEST(BioOverflow, InitWithOffsetsLargerThanAreaRefusesEverything)
{
    Request r(kOffsetsBytes - 1);
    EXPECT_EQ(r.bio.flags, BIO_FLAG_OVERFLOW);
    EXPECT_EQ(r.bio.data_left, 0u);
    EXPECT_EQ(r.bio.offsets_left, 0u);
    EXPECT_EQ(r.bio.cursor, nullptr); // pointers left as they were
    bio_put_uint32(&r.bio, 1);
    EXPECT_EQ(r.bio.cursor, nullptr);

    // binder_call refuses it without going near the connection.
    binder_io reply;
    std::memset(&reply, 0x5A, sizeof reply);
    testing::internal::CaptureStderr();
    EXPECT_EQ(binder_call(nullptr, &r.bio, &reply, 0, 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "binder: txn buffer overflow\n");
    binder_io expected{};
    expected.flags = BIO_FLAG_IO_ERROR;
    EXPECT_EQ(std::memcmp(&reply, &expected, sizeof reply), 0);
}

TEST(BioOverflow, OffsetsFillingTheAreaLeaveNoData)
{
    Request r(kOffsetsBytes);
    EXPECT_EQ(r.bio.flags, 0u);
    EXPECT_EQ(r.bio.data_left, 0u);
    EXPECT_EQ(r.bio.data_start, reinterpret_cast<char *>(r.area) + kOffsetsBytes);
}

TEST(BioOverflow, FailedPutKeepsRoomForLaterItemsButStaysFlagged)
{
    Request r(kOffsetsBytes + 8);
    bio_put_string(&r.bio, "abcdefgh"); // length word fits, 12 more do not
    EXPECT_EQ(r.bio.flags, BIO_FLAG_OVERFLOW);
    EXPECT_EQ(r.bio.data_left, 4u);
    bio_put_uint32(&r.bio, 0x55);
    EXPECT_EQ(written(r.bio), Bytes().u32(8).u32(0x55).get());
    EXPECT_EQ(r.bio.data_left, 0u);
    EXPECT_EQ(r.bio.flags, BIO_FLAG_OVERFLOW);
}

TEST(BioOverflow, ObjectWithoutOffsetEntryConsumesItsBytes)
{
    for (auto put : {+[](binder_io *b) { bio_put_ref(b, 7); },
                     +[](binder_io *b) { bio_put_obj(b, kFakePtr); }}) {
        Request r(sizeof(Request::area), 0);
        put(&r.bio);
        EXPECT_EQ(r.bio.flags, BIO_FLAG_OVERFLOW);
        EXPECT_EQ(r.bio.data_left, sizeof r.area - kObject);
        EXPECT_EQ(r.area[0], 0xAA); // reserved, not written
    }
    // A null reference needs no entry.
    Request r(sizeof(Request::area), 0);
    bio_put_ref(&r.bio, 0);
    EXPECT_EQ(r.bio.flags, 0u);
    EXPECT_EQ(written(r.bio), object_bytes(BINDER_TYPE_HANDLE, 0));
}

TEST(BioOverflow, LongestBlockStillCountedIsRefusedByRoom)
{
    Request r;
    bio_put_mem(&r.bio, kFakePtr, (1u << 30) - 1);
    EXPECT_EQ(written(r.bio), Bytes().u32((1u << 30) - 1).get());
    EXPECT_EQ(r.bio.flags, BIO_FLAG_OVERFLOW);
}

// ---- Reading ----

// A received buffer over the given bytes and offset entries.
struct Received {
    std::vector<binder_size_t> words; // aligned storage for the data
    std::vector<binder_size_t> offsets;
    binder_transaction_data txn;
    binder_io bio;
    Received(const ByteVec &data, std::vector<binder_size_t> offs = {})
        : words(data.size() / sizeof(binder_size_t) + 1), offsets(std::move(offs))
    {
        std::copy(data.begin(), data.end(), reinterpret_cast<unsigned char *>(words.data()));
        txn = txn_over(words.data(), data.size(), offsets.data(),
                       offsets.size() * sizeof(binder_size_t));
        bio_init_from_txn(&bio, &txn);
    }
};

TEST(BioRead, ReadsBackWhatWasWritten)
{
    Request r;
    bio_put_uint32(&r.bio, 42);
    bio_put_string(&r.bio, "hello");
    bio_put_string16_x(&r.bio, "svc\xE9");
    bio_put_mem(&r.bio, kMem3, 3);
    bio_put_ref(&r.bio, 9);
    Received in(written(r.bio), offsets_written(r.bio));
    EXPECT_EQ(in.bio.flags, BIO_FLAG_DRIVER_BUFFER);
    EXPECT_EQ(in.bio.offsets_left, 1u);

    uint32_t len = 0;
    EXPECT_EQ(bio_get_uint32(&in.bio), 42u);
    EXPECT_STREQ(bio_get_string(&in.bio, &len), "hello");
    EXPECT_EQ(len, 5u);
    const uint16_t *s16 = bio_get_string16(&in.bio, &len);
    ASSERT_NE(s16, nullptr);
    EXPECT_EQ(std::vector<uint16_t>(s16, s16 + len + 1),
              (std::vector<uint16_t>{'s', 'v', 'c', 0xE9, 0}));
    const void *mem = bio_get_mem(&in.bio, &len);
    ASSERT_EQ(len, 3u);
    EXPECT_EQ(std::memcmp(mem, kMem3, 3), 0);
    EXPECT_EQ(bio_get_ref(&in.bio), 9u);
    EXPECT_EQ(in.bio.data_left, 0u);
    EXPECT_EQ(in.bio.flags, BIO_FLAG_DRIVER_BUFFER);
}

TEST(BioRead, NullItemsReportAllOnesAndConsumeNothing)
{
    using Reader = const void *(*)(binder_io *, uint32_t *);
    const Reader readers[] = {
        [](binder_io *b, uint32_t *l) -> const void * { return bio_get_string(b, l); },
        [](binder_io *b, uint32_t *l) -> const void * { return bio_get_string16(b, l); },
        [](binder_io *b, uint32_t *l) { return bio_get_mem(b, l); },
    };
    for (Reader read : readers) {
        Received in(Bytes().u32(0xFFFFFFFF).u32(0x1234));
        uint32_t len = 0;
        const void *p = read(&in.bio, &len);
        EXPECT_EQ(len, 0xFFFFFFFFu);
        EXPECT_EQ(p, reinterpret_cast<const char *>(in.words.data()) + 4);
        EXPECT_EQ(bio_get_uint32(&in.bio), 0x1234u);
        EXPECT_EQ(in.bio.flags, BIO_FLAG_DRIVER_BUFFER);
    }
}

TEST(BioRead, ShortReadPoisonsTheRest)
{
    Received in(Bytes().u32(100).u32(0x1234));
    EXPECT_EQ(bio_get_mem(&in.bio, nullptr), nullptr);
    EXPECT_EQ(in.bio.data_left, 0u);
    EXPECT_EQ(in.bio.flags, BIO_FLAG_DRIVER_BUFFER | BIO_FLAG_OVERFLOW);
    EXPECT_EQ(bio_get_uint32(&in.bio), 0u); // 4 bytes were there
}

TEST(BioRead, LengthsNearTwoToThe32FailInsteadOfWrapping)
{
    // Rounded or terminated in 32 bits these lengths would come to a few
    // bytes, and the caller would read billions from a tiny buffer.
    using Reader = const void *(*)(binder_io *, uint32_t *);
    const std::pair<Reader, uint32_t> cases[] = {
        {[](binder_io *b, uint32_t *l) { return bio_get_mem(b, l); }, 0xFFFFFFFDu},
        {[](binder_io *b, uint32_t *l) -> const void * { return bio_get_string(b, l); }, 0xFFFFFFFEu},
        {[](binder_io *b, uint32_t *l) -> const void * { return bio_get_string16(b, l); }, 0x80000000u},
    };
    for (const auto &[read, length] : cases) {
        Received in(Bytes().u32(length).u32(0x1234).u32(0x5678));
        uint32_t len = 0;
        EXPECT_EQ(read(&in.bio, &len), nullptr) << std::hex << length;
        EXPECT_EQ(len, length);
        EXPECT_EQ(in.bio.flags, BIO_FLAG_DRIVER_BUFFER | BIO_FLAG_OVERFLOW);
    }
}

TEST(BioRead, EmptyReplyReadsZero)
{
    Received in(ByteVec{});
    EXPECT_EQ(bio_get_uint32(&in.bio), 0u);
    EXPECT_EQ(in.bio.flags, BIO_FLAG_DRIVER_BUFFER | BIO_FLAG_OVERFLOW);
}

struct RefCase {
    const char *name;
    bool word_first;                    // the object follows one word
    uint32_t type;
    std::vector<binder_size_t> offsets; // entries listed
    size_t cut;                         // bytes missing from the end
    uint32_t handle;
    bool overflow;
};

class GetRef : public testing::TestWithParam<RefCase> {};

TEST_P(GetRef, TrustsOnlyListedObjects)
{
    const RefCase &c = GetParam();
    Bytes data;
    if (c.word_first)
        data.u32(1);
    data.append(object_bytes(c.type, 7));
    ByteVec bytes = data;
    bytes.resize(bytes.size() - c.cut);
    Received in(bytes, c.offsets);
    if (c.word_first)
        bio_get_uint32(&in.bio);
    binder_size_t *const offsets_cursor = in.bio.offsets_cursor;

    EXPECT_EQ(bio_get_ref(&in.bio), c.handle);
    EXPECT_EQ((in.bio.flags & BIO_FLAG_OVERFLOW) != 0, c.overflow);
    if (c.overflow) {
        EXPECT_EQ(in.bio.data_left, 0u);
    }
    EXPECT_EQ(in.bio.offsets_cursor, offsets_cursor);
}

INSTANTIATE_TEST_SUITE_P(
    Bio, GetRef,
    testing::Values(RefCase{"handle", false, BINDER_TYPE_HANDLE, {0}, 0, 7, false},
                    RefCase{"second_entry", true, BINDER_TYPE_HANDLE, {0, 4}, 0, 7, false},
                    RefCase{"local_object", false, BINDER_TYPE_BINDER, {0}, 0, 0, false},
                    RefCase{"not_listed", false, BINDER_TYPE_HANDLE, {4}, 0, 0, true},
                    RefCase{"no_offsets", false, BINDER_TYPE_HANDLE, {}, 0, 0, true},
                    RefCase{"truncated", false, BINDER_TYPE_HANDLE, {0}, 4, 0, true}),
    [](const testing::TestParamInfo<RefCase> &info) { return info.param.name; });

} // namespace
