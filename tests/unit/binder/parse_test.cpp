// The driver side without a driver: parsing hand-built read buffers, the
// command blocks byte for byte, and every path that fails before or at the
// first ioctl (the connection's descriptor is -1).

#include "binder/protocol.h"
#include "wire_bytes.h"

#include <hmisvc/binder.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace binder_test;
namespace proto = hmisvc::binder;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

constexpr size_t kTxn = sizeof(binder_transaction_data);
const std::string kWriteFailed = "binder_write: ioctl failed (Bad file descriptor)\n";

// A read buffer as the driver fills it: 4-byte aligned words.
struct ReadBuffer {
    std::vector<uint32_t> words;
    uint32_t size;
    explicit ReadBuffer(const ByteVec &bytes)
        : words(bytes.size() / 4 + 1), size(static_cast<uint32_t>(bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<unsigned char *>(words.data()));
    }
};

ByteVec with_txn(uint32_t cmd, const binder_transaction_data &txn)
{
    return Bytes().u32(cmd).raw(txn);
}

using Parser = int (*)(binder_connection *, binder_io *, const ReadBuffer &);
int run_parse(binder_connection *bs, binder_io *bio, const ReadBuffer &rb)
{
    return binder_parse(bs, bio, rb.words.data(), rb.size, nullptr);
}
int run_parse2(binder_connection *bs, binder_io *bio, const ReadBuffer &rb)
{
    return binder_parse2(bs, bio, rb.words.data(), rb.size, nullptr, nullptr);
}
const Parser kParsers[] = {run_parse, run_parse2};

struct Fixture : testing::Test {
    binder_connection conn{-1, nullptr, 0};
    uint32_t reply_word = 0x77;
    uint32_t other_word = 0x88;
    binder_transaction_data reply_txn = txn_over(&reply_word, sizeof reply_word);
    binder_transaction_data other_txn = txn_over(&other_word, sizeof other_word);
};

// ---- Parse results ----

struct ParseCase {
    const char *name;
    std::function<ByteVec(const Fixture &)> buffer;
    int result;
    std::string err;
};

class Parse : public Fixture, public testing::WithParamInterface<ParseCase> {};

TEST_P(Parse, ResultAndMessages)
{
    const ParseCase &c = GetParam();
    const ReadBuffer rb(c.buffer(*this));
    for (Parser parse : kParsers) {
        binder_io bio{};
        CaptureStderr();
        EXPECT_EQ(parse(&conn, &bio, rb), c.result);
        EXPECT_EQ(GetCapturedStderr(), c.err);
    }
}

ByteVec refcount_commands()
{
    Bytes b;
    for (uint32_t cmd : {BR_INCREFS, BR_ACQUIRE, BR_RELEASE, BR_DECREFS})
        b.u32(cmd).uptr(0xDEADBEEF).uptr(0xDEADBEEF); // would be OOPS if read
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Binder, Parse,
    testing::Values(
        ParseCase{"empty", [](const Fixture &) { return ByteVec{}; }, 1, ""},
        ParseCase{"noops_only",
                  [](const Fixture &) {
                      return Bytes().u32(BR_NOOP).u32(BR_TRANSACTION_COMPLETE).u32(BR_NOOP).get();
                  },
                  1, ""},
        ParseCase{"reply_then_failed",
                  [](const Fixture &f) {
                      return Bytes().append(with_txn(BR_REPLY, f.reply_txn)).u32(BR_FAILED_REPLY).get();
                  },
                  -1, ""},
        ParseCase{"failed_then_reply",
                  [](const Fixture &f) {
                      return Bytes().u32(BR_FAILED_REPLY).append(with_txn(BR_REPLY, f.reply_txn)).get();
                  },
                  0, ""},
        ParseCase{"dead_reply", [](const Fixture &) { return Bytes().u32(BR_DEAD_REPLY).get(); }, -1, ""},
        ParseCase{"trailing_1", [](const Fixture &) { return Bytes().u32(BR_NOOP).u8(0xFF).get(); }, 1, ""},
        ParseCase{"trailing_reply_cut",
                  [](const Fixture &f) {
                      ByteVec b = Bytes().u32(BR_FAILED_REPLY).append(with_txn(BR_REPLY, f.reply_txn));
                      b.resize(b.size() - 1);
                      return b;
                  },
                  -1, "svcmgr: parse: reply too small!\n"},
        ParseCase{"refcounts_skipped",
                  [](const Fixture &) { return Bytes().append(refcount_commands()).u32(BR_NOOP).get(); },
                  1, ""},
        ParseCase{"unknown_negative",
                  [](const Fixture &f) {
                      return Bytes().u32(0x80000000).append(with_txn(BR_REPLY, f.reply_txn)).get();
                  },
                  -1, "svcmgr: parse: OOPS -2147483648\n"},
        ParseCase{"unknown_after_reply",
                  [](const Fixture &f) {
                      return Bytes().append(with_txn(BR_REPLY, f.reply_txn)).u32(0x1234).get();
                  },
                  -1, "svcmgr: parse: OOPS 4660\n"},
        ParseCase{"txn_too_small",
                  [](const Fixture &) { return Bytes().u32(BR_TRANSACTION).zeros(kTxn - 4).get(); },
                  -1, "svcmgr: parse: txn too small!\n"},
        // Without a server an incoming transaction is skipped, unanswered.
        ParseCase{"txn_without_handler",
                  [](const Fixture &f) { return with_txn(BR_TRANSACTION, f.reply_txn); }, 1, ""}),
    [](const testing::TestParamInfo<ParseCase> &info) { return info.param.name; });

using ParseReply = Fixture;

TEST_F(ParseReply, FirstReplyIsTakenSecondSkipped)
{
    const ReadBuffer rb(Bytes()
                            .append(with_txn(BR_REPLY, reply_txn))
                            .append(with_txn(BR_REPLY, other_txn)));
    for (Parser parse : kParsers) {
        binder_io bio{};
        EXPECT_EQ(parse(&conn, &bio, rb), 0);
        EXPECT_EQ(bio.flags, BIO_FLAG_DRIVER_BUFFER);
        EXPECT_EQ(bio.data_start, reinterpret_cast<char *>(&reply_word));
        EXPECT_EQ(bio_get_uint32(&bio), 0x77u);
        // Without a buffer to fill the reply still counts.
        EXPECT_EQ(parse(&conn, nullptr, rb), 0);
    }
}

TEST_F(ParseReply, DeadBinderCallsTheRecord)
{
    struct Seen {
        int calls = 0;
        binder_connection *bs = nullptr;
    } seen;
    binder_death_record record{[](binder_connection *bs, void *user) {
                                   auto *s = static_cast<Seen *>(user);
                                   ++s->calls;
                                   s->bs = bs;
                               },
                               &seen};
    const ReadBuffer rb(Bytes().u32(BR_DEAD_BINDER).ptr(&record).u32(BR_NOOP));
    for (Parser parse : kParsers)
        EXPECT_EQ(parse(&conn, nullptr, rb), 1);
    EXPECT_EQ(seen.calls, 2);
    EXPECT_EQ(seen.bs, &conn);
}

// ---- Serving incoming transactions ----

struct Served {
    int calls = 0;
    uint32_t code = 0;
    uint32_t word = 0;
    uint32_t msg_flags = 0;
    uint32_t reply_room = 0;
    uint32_t reply_offsets = 0;
    binder_connection *bs = nullptr;
};
Served g_served;

void record(Served &s, binder_connection *bs, binder_transaction_data *txn, binder_io *msg,
            binder_io *reply)
{
    ++s.calls;
    s.bs = bs;
    s.code = txn->code;
    s.msg_flags = msg->flags;
    s.word = bio_get_uint32(msg);
    s.reply_room = reply->data_left;
    s.reply_offsets = reply->offsets_left;
    bio_put_uint32(reply, 0);
}

TEST_F(ParseReply, HandlerGetsTheMessageAndItsReplyIsSent)
{
    binder_transaction_data txn = reply_txn;
    txn.code = 5;
    const ReadBuffer rb(with_txn(BR_TRANSACTION, txn));

    g_served = {};
    CaptureStderr();
    EXPECT_EQ(binder_parse(&conn, nullptr, rb.words.data(), rb.size,
                           [](binder_connection *bs, binder_transaction_data *t, binder_io *msg,
                              binder_io *reply) {
                               record(g_served, bs, t, msg, reply);
                               return 0;
                           }),
              1);
    EXPECT_EQ(GetCapturedStderr(), kWriteFailed); // the reply, on a dead descriptor

    Served served2;
    CaptureStderr();
    EXPECT_EQ(binder_parse2(&conn, nullptr, rb.words.data(), rb.size,
                            [](binder_connection *bs, binder_transaction_data *t, binder_io *msg,
                               binder_io *reply, void *arg) {
                                record(*static_cast<Served *>(arg), bs, t, msg, reply);
                                return -1;
                            },
                            &served2),
              1);
    EXPECT_EQ(GetCapturedStderr(), kWriteFailed);

    const uint32_t offsets_bytes = 4 * sizeof(binder_size_t);
    // The two parsers differ only in the size of the reply area.
    for (auto [s, area] : {std::pair{g_served, 40960u}, std::pair{served2, 256u}}) {
        EXPECT_EQ(s.calls, 1);
        EXPECT_EQ(s.bs, &conn);
        EXPECT_EQ(s.code, 5u);
        EXPECT_EQ(s.word, 0x77u);
        EXPECT_EQ(s.msg_flags, BIO_FLAG_DRIVER_BUFFER);
        EXPECT_EQ(s.reply_room, area - offsets_bytes);
        EXPECT_EQ(s.reply_offsets, 4u);
    }
}

TEST_F(ParseReply, LoopsStopWhenTheDriverFails)
{
    const std::string expected =
        kWriteFailed + "svcmgr: binder_loop: ioctl failed (Bad file descriptor)\n";
    CaptureStderr();
    binder_loop(&conn, nullptr);
    EXPECT_EQ(GetCapturedStderr(), expected);
    CaptureStderr();
    binder_loop2(&conn, nullptr, nullptr);
    EXPECT_EQ(GetCapturedStderr(), expected);
}

// ---- Command blocks ----

#if HMISVC_BINDER_IPC_32BIT
static_assert(proto::kCallBlockSize == 44, "call block");
static_assert(proto::kReplyBlockSize == 52, "reply block");
static_assert(proto::kDeathBlockSize == 12, "death notification block");
#endif

struct BlockTest : testing::Test {
    alignas(binder_size_t) char area[128];
    binder_io msg;
    void SetUp() override
    {
        bio_init(&msg, area, sizeof area, 4);
        bio_put_uint32(&msg, 0xAB);
        bio_put_ref(&msg, 3);
    }
    // Transaction data fields after target, cookie and code.
    Bytes &over_msg(Bytes &b, uint32_t flags)
    {
        return b.u32(flags).u32(0).u32(0)
            .uptr(4 + sizeof(flat_binder_object))
            .uptr(sizeof(binder_size_t))
            .ptr(msg.data_start)
            .ptr(msg.offsets_start);
    }
};

TEST_F(BlockTest, CallBlock)
{
    unsigned char block[proto::kCallBlockSize];
    proto::build_call_block(block, &msg, 9, 0x1234);
    Bytes expected;
    expected.u32(BC_TRANSACTION).uptr(9).uptr(0).u32(0x1234);
    over_msg(expected, 0);
    EXPECT_EQ(ByteVec(block, block + sizeof block), expected.get());
    // The command word, spelt out for the device's protocol.
#if HMISVC_BINDER_IPC_32BIT
    EXPECT_EQ(ByteVec(block, block + 4), (ByteVec{0x00, 0x63, 0x28, 0x40}));
#endif
}

TEST_F(BlockTest, ReplyBlockCarriesWhatTheHandlerWrote)
{
    unsigned char block[proto::kReplyBlockSize];
    const int status = 0;
    proto::build_reply_block(block, &msg, 0xF00D, &status);
    Bytes expected;
    expected.u32(BC_FREE_BUFFER).uptr(0xF00D).u32(BC_REPLY).uptr(0).uptr(0).u32(0);
    over_msg(expected, 0);
    EXPECT_EQ(ByteVec(block, block + sizeof block), expected.get());
}

TEST_F(BlockTest, ReplyBlockWithStatusDropsTheContents)
{
    unsigned char block[proto::kReplyBlockSize];
    const int status = -1;
    proto::build_reply_block(block, &msg, 0xF00D, &status);
    const ByteVec expected = Bytes()
                                 .u32(BC_FREE_BUFFER).uptr(0xF00D)
                                 .u32(BC_REPLY).uptr(0).uptr(0).u32(0)
                                 .u32(TF_STATUS_CODE).u32(0).u32(0)
                                 .uptr(4).uptr(0).ptr(&status).uptr(0);
    EXPECT_EQ(ByteVec(block, block + sizeof block), expected);
}

TEST_F(BlockTest, DeathBlock)
{
    unsigned char block[proto::kDeathBlockSize];
    binder_death_record record{};
    proto::build_death_block(block, 6, &record);
    EXPECT_EQ(ByteVec(block, block + sizeof block),
              Bytes().u32(BC_REQUEST_DEATH_NOTIFICATION).u32(6).ptr(&record).get());
}

// ---- Calls that fail at the driver ----

using Call = Fixture;

TEST_F(Call, IoctlFailureClearsTheReply)
{
    alignas(binder_size_t) char area[64];
    binder_io msg;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 1);
    binder_io reply;
    std::memset(&reply, 0x5A, sizeof reply);
    CaptureStderr();
    EXPECT_EQ(binder_call(&conn, &msg, &reply, 0, 1), -1);
    EXPECT_EQ(GetCapturedStderr(), "binder: ioctl failed (Bad file descriptor)\n");
    EXPECT_EQ(reply.flags, BIO_FLAG_IO_ERROR);
    EXPECT_EQ(reply.data_start, nullptr);

    // Nothing to give back after a failed call.
    CaptureStderr();
    binder_done(&conn, &msg, &reply);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(reply.flags, BIO_FLAG_IO_ERROR);
}

TEST_F(Call, DoneGivesBackADriverBufferOnce)
{
    binder_io reply;
    bio_init_from_txn(&reply, &reply_txn);
    CaptureStderr();
    binder_done(&conn, nullptr, &reply);
    binder_done(&conn, nullptr, &reply);
    EXPECT_EQ(GetCapturedStderr(), kWriteFailed);
    EXPECT_EQ(reply.flags, 0u);
}

TEST_F(Call, OpenWithoutDeviceFails)
{
    struct stat st;
    if (stat("/dev/binder", &st) == 0)
        GTEST_SKIP() << "a binder device is present";
    CaptureStderr();
    EXPECT_EQ(binder_open(128 * 1024), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "binder: cannot open device (No such file or directory)\n");
}

// The name bounds of lookup and publish are checked against the driver.
TEST_F(Call, PublishWithoutConnectionFailsQuietly)
{
    int object = 0;
    CaptureStderr();
    EXPECT_EQ(svcmgr_publish(nullptr, 0, "x", &object), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
}

// ---- Names of the returns ----

TEST(CmdName, NamesEveryReturnAndNothingElse)
{
    const std::pair<uint32_t, const char *> names[] = {
        {BR_NOOP, "BR_NOOP"},
        {BR_TRANSACTION_COMPLETE, "BR_TRANSACTION_COMPLETE"},
        {BR_INCREFS, "BR_INCREFS"},
        {BR_ACQUIRE, "BR_ACQUIRE"},
        {BR_RELEASE, "BR_RELEASE"},
        {BR_DECREFS, "BR_DECREFS"},
        {BR_TRANSACTION, "BR_TRANSACTION"},
        {BR_REPLY, "BR_REPLY"},
        {BR_DEAD_BINDER, "BR_DEAD_BINDER"},
        {BR_FAILED_REPLY, "BR_FAILED_REPLY"},
        {BR_DEAD_REPLY, "BR_DEAD_REPLY"},
        {BC_TRANSACTION, "???"},
        {BC_ACQUIRE, "???"},
        {0, "???"},
    };
    for (const auto &[cmd, name] : names)
        EXPECT_STREQ(cmd_name(cmd), name) << std::hex << cmd;
}

} // namespace
