// What the driver itself does with bad commands, dying processes and full
// mappings, written straight on the ioctl: the kernel's driver and the
// userspace one (hmisvc-binderd) must answer alike.
#include "peer.h"

#include <hmisvc/binder.h>
#include <hmisvc/binder_seam.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <thread>
#include <vector>

namespace {

using Words = std::vector<uint32_t>;

binder_uintptr_t ptr_of(const void *p) { return reinterpret_cast<uintptr_t>(p); }
template <class T>
T *native_ptr(binder_uintptr_t p)
{
    return reinterpret_cast<T *>(static_cast<uintptr_t>(p));
}

// A block of commands; the data its transactions point to lives with it.
class Block {
public:
    template <class T>
    Block &put(const T &v)
    {
        const auto *b = reinterpret_cast<const unsigned char *>(&v);
        bytes.insert(bytes.end(), b, b + sizeof v);
        return *this;
    }
    Block &txn(uint32_t cmd, uint32_t handle, uint32_t code, uint32_t flags,
               std::vector<unsigned char> data, std::vector<binder_size_t> offsets = {},
               binder_size_t offsets_size = ~binder_size_t{0})
    {
        binder_transaction_data t{};
        t.target.handle = handle;
        t.code = code;
        t.flags = flags;
        t.data_size = data.size();
        t.offsets_size = offsets_size != ~binder_size_t{0} ? offsets_size
                                                            : offsets.size() * sizeof(binder_size_t);
        offsets.resize(offsets.size() + 1); // room for a cut-short size
        t.data.ptr.buffer = ptr_of(kept_.emplace_back(std::move(data)).data());
        auto &o = kept_offsets_.emplace_back(std::move(offsets));
        t.data.ptr.offsets = ptr_of(o.data());
        return put(cmd).put(t);
    }
    std::vector<unsigned char> bytes;

private:
    std::deque<std::vector<unsigned char>> kept_;
    std::deque<std::vector<binder_size_t>> kept_offsets_;
};

std::vector<unsigned char> payload(size_t size, uint32_t first = 0)
{
    std::vector<unsigned char> d(size);
    std::memcpy(d.data(), &first, sizeof first);
    return d;
}

std::vector<unsigned char> with_object(uint32_t type, uint32_t handle)
{
    std::vector<unsigned char> d(4 + sizeof(flat_binder_object));
    flat_binder_object obj{};
    obj.type = type;
    obj.handle = handle;
    std::memcpy(d.data() + 4, &obj, sizeof obj);
    return d;
}

struct Outcome {
    int error = 0;              // errno of a failed ioctl
    binder_size_t consumed = 0; // write bytes the driver took
    Words returns;              // what was read, BR_NOOP left out
};

// Appends the returns in `buf` (BR_NOOP left out) to `to` up to one that
// ends a call (a reply or an error; for a one-way call its completion),
// giving reply buffers back. Whether one did.
bool take_returns(binder_connection *bs, const unsigned char *buf, binder_size_t size, Words &to,
                  bool one_way = false)
{
    for (size_t pos = 0; pos + 4 <= size;) {
        uint32_t cmd;
        std::memcpy(&cmd, buf + pos, 4);
        pos += 4;
        if (cmd != BR_NOOP)
            to.push_back(cmd);
        if (cmd == BR_REPLY) {
            binder_transaction_data t;
            std::memcpy(&t, buf + pos, sizeof t);
            Block free_it;
            free_it.put(uint32_t{BC_FREE_BUFFER}).put(t.data.ptr.buffer);
            binder_write(bs, free_it.bytes.data(), free_it.bytes.size());
        }
        pos += _IOC_SIZE(cmd);
        if (cmd == BR_REPLY || cmd == BR_DEAD_REPLY || cmd == BR_FAILED_REPLY ||
            (one_way && cmd == BR_TRANSACTION_COMPLETE))
            return true;
    }
    return false;
}

// Writes `block` and reads until what ends it (a reply or an error; for a
// one-way transaction its completion). Reply buffers are given back.
Outcome outcome_of(binder_connection *bs, const Block &block, bool one_way = false)
{
    Outcome out;
    binder_write_read bwr{};
    bwr.write_size = block.bytes.size();
    bwr.write_buffer = ptr_of(block.bytes.data());
    for (int pass = 0; pass < 64; ++pass) {
        alignas(8) unsigned char buf[256];
        bwr.read_size = sizeof buf;
        bwr.read_consumed = 0;
        bwr.read_buffer = ptr_of(buf);
        if (binder_ioctl(bs, BINDER_WRITE_READ, &bwr) < 0) {
            out.error = errno;
            out.consumed = bwr.write_consumed;
            return out;
        }
        out.consumed = bwr.write_consumed;
        if (take_returns(bs, buf, bwr.read_consumed, out.returns, one_way))
            return out;
    }
    return out;
}

const Words kAnswered{BR_TRANSACTION_COMPLETE, BR_REPLY};
const Words kFailed{BR_FAILED_REPLY};

class DriverFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(bs, nullptr);
        ASSERT_TRUE(echo->ready());
        handle = svcmgr_lookup(bs.get(), SVCMGR_HANDLE, "drv.faults");
        ASSERT_NE(handle, 0u);
    }
    // A call the echo service answers: nothing was left broken.
    void expect_still_served()
    {
        Block b;
        b.txn(BC_TRANSACTION, handle, peer::ECHO_ADD1, 0, payload(4, 41));
        EXPECT_EQ(outcome_of(bs.get(), b).returns, kAnswered);
    }

    peer::Connection bs{binder_open(128 * 1024)};
    std::unique_ptr<peer::Child> echo = peer::start_echo({"drv.faults"});
    uint32_t handle = 0;
};

struct Malformed {
    const char *what;
    // Builds the block for a connection holding `handle` (the echo service).
    void (*build)(Block &, uint32_t handle);
    int error;                // the ioctl's errno, or 0
    binder_size_t consumed;   // write bytes taken when the ioctl fails
    Words returns;
};

class MalformedWrite : public DriverFaults, public ::testing::WithParamInterface<Malformed> {};

TEST_P(MalformedWrite, GetsTheKernelsErrorAndNothingElseChanges)
{
    const Malformed &m = GetParam();
    Block b;
    m.build(b, handle);
    const Outcome got = outcome_of(bs.get(), b);
    EXPECT_EQ(got.error, m.error);
    if (m.error) {
        EXPECT_EQ(got.consumed, m.consumed);
    }
    EXPECT_EQ(got.returns, m.returns);
    expect_still_served();
}

INSTANTIATE_TEST_SUITE_P(
    Driver, MalformedWrite,
    ::testing::Values(
        Malformed{"UnknownCommandAfterAGoodOne",
                  [](Block &b, uint32_t) { b.put(uint32_t{BC_ACQUIRE}).put(uint32_t{0}).put(uint32_t{0x6300ffff}); },
                  EINVAL, 8, {}},
        Malformed{"TransactionToAHandleNotHeld",
                  [](Block &b, uint32_t) { b.txn(BC_TRANSACTION, 0x7777, 1, 0, payload(4)); }, 0, 0, kFailed},
        Malformed{"ReplyWithoutTransaction",
                  [](Block &b, uint32_t) { b.txn(BC_REPLY, 0, 0, 0, payload(4)); }, 0, 0, kFailed},
        Malformed{"ObjectPastTheData",
                  [](Block &b, uint32_t h) { b.txn(BC_TRANSACTION, h, 1, 0, payload(16), {8}); }, 0, 0, kFailed},
        Malformed{"ObjectOfAHandleNotHeld",
                  [](Block &b, uint32_t h) { b.txn(BC_TRANSACTION, h, 1, 0, with_object(BINDER_TYPE_HANDLE, 0x7777), {4}); },
                  0, 0, kFailed},
        Malformed{"ObjectOfNoKnownType",
                  [](Block &b, uint32_t h) { b.txn(BC_TRANSACTION, h, 1, 0, with_object(0x12345678, 0), {4}); },
                  0, 0, kFailed},
        Malformed{"OffsetsCutShort",
                  [](Block &b, uint32_t h) { b.txn(BC_TRANSACTION, h, 1, 0, with_object(BINDER_TYPE_HANDLE, 0), {4}, 3); },
                  0, 0, kFailed}),
    [](const auto &info) { return std::string(info.param.what); });

TEST_F(DriverFaults, ReceiverLearnsTheCallersPidAndEuid)
{
    char area[64];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 0);
    ASSERT_EQ(binder_call(bs.get(), &msg, &reply, handle, peer::ECHO_SENDER), 0);
    EXPECT_EQ(bio_get_uint32(&reply), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(bio_get_uint32(&reply), geteuid());
    binder_done(bs.get(), &msg, &reply);
}

// The receiver's mapping bounds what it can be sent; one-way transactions
// get half of it. Sizes keep clear of the edges, where the kernel counts
// its own bookkeeping.
TEST(DriverBufferLimit, ReceiversMappingBoundsWhatItIsSent)
{
    peer::Connection bs(binder_open(128 * 1024));
    ASSERT_NE(bs, nullptr);
    auto small = peer::start_echo({"drv.small"}, 4096);
    ASSERT_TRUE(small->ready());
    const uint32_t handle = svcmgr_lookup(bs.get(), SVCMGR_HANDLE, "drv.small");
    ASSERT_NE(handle, 0u);
    struct Case {
        size_t size;
        bool one_way;
        Words returns;
    };
    // Last: a one-way call that arrives, which the echo loop (it answers
    // every transaction) then fails to reply to and ends.
    const Case cases[] = {{3000, false, kAnswered},
                          {5000, false, kFailed},
                          {3000, true, kFailed},
                          {1024, true, {BR_TRANSACTION_COMPLETE}}};
    for (const Case &c : cases) {
        Block b;
        b.txn(BC_TRANSACTION, handle, peer::ECHO_ADD1, c.one_way ? TF_ONE_WAY : 0, payload(c.size));
        EXPECT_EQ(outcome_of(bs.get(), b, c.one_way).returns, c.returns)
            << c.size << (c.one_way ? " one-way" : "");
    }
}

// A connection made non-blocking: a read with nothing to read fails with
// EAGAIN, and poll() wakes when the call's completion and reply are there.
// A transaction larger than a socket's packet arrives whole.
TEST(DriverNonBlocking, ReadFailsAgainAndPollWakesForTheReply)
{
    peer::Connection bs(binder_open(128 * 1024));
    ASSERT_NE(bs, nullptr);
    auto echo = peer::start_echo({"drv.poll"}, 1024 * 1024);
    ASSERT_TRUE(echo->ready());
    const uint32_t handle = svcmgr_lookup(bs.get(), SVCMGR_HANDLE, "drv.poll");
    ASSERT_NE(handle, 0u);
    ASSERT_EQ(fcntl(bs->fd, F_SETFL, fcntl(bs->fd, F_GETFL) | O_NONBLOCK), 0);
    alignas(8) unsigned char buf[256];
    binder_write_read bwr{};
    bwr.read_size = sizeof buf;
    bwr.read_buffer = ptr_of(buf);
    EXPECT_EQ(binder_ioctl(bs.get(), BINDER_WRITE_READ, &bwr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(bwr.read_consumed, 0u);
    for (const size_t size : {size_t{4}, size_t{600 * 1024}}) {
        Block b;
        b.txn(BC_TRANSACTION, handle, peer::ECHO_ADD1, 0, payload(size, 41));
        ASSERT_EQ(binder_write(bs.get(), b.bytes.data(), b.bytes.size()), 0) << size;
        Words got;
        for (int pass = 0; pass < 64; ++pass) {
            pollfd p{bs->fd, POLLIN, 0};
            ASSERT_EQ(poll(&p, 1, 60000), 1) << size << ": poll did not wake";
            bwr.read_consumed = 0;
            if (binder_ioctl(bs.get(), BINDER_WRITE_READ, &bwr) < 0)
                ASSERT_EQ(errno, EAGAIN); // a wake-up may find the work taken
            else if (take_returns(bs.get(), buf, bwr.read_consumed, got))
                break;
        }
        EXPECT_EQ(got, kAnswered) << size;
    }
}

// A process that dies while it serves a call: the caller gets a dead reply,
// every process watching its object a death notification.
TEST(DriverDeath, DyingServerGivesDeadReplyAndDeathNotices)
{
    peer::Connection bs(binder_open(128 * 1024));
    ASSERT_NE(bs, nullptr);
    auto doomed = peer::start_echo({"drv.doomed"});
    ASSERT_TRUE(doomed->ready());
    int deaths[2];
    ASSERT_EQ(pipe(deaths), 0);
    peer::Child watcher([&](int ready_fd) {
        static int notice_fd;
        notice_fd = deaths[1];
        binder_connection *w = binder_open(128 * 1024);
        const uint32_t h = w ? svcmgr_lookup(w, SVCMGR_HANDLE, "drv.doomed") : 0;
        if (!h)
            return 2;
        static binder_death_record record{[](binder_connection *, void *) {
                                              char d = 'D';
                                              (void)!write(notice_fd, &d, 1);
                                          },
                                          nullptr};
        binder_link_to_death(w, h, &record);
        char byte = 1;
        (void)!write(ready_fd, &byte, 1);
        binder_loop2(w, [](binder_connection *, binder_transaction_data *, binder_io *,
                           binder_io *, void *) { return 0; },
                     nullptr);
        return 3;
    });
    ASSERT_TRUE(watcher.ready());
    close(deaths[1]);

    const uint32_t handle = svcmgr_lookup(bs.get(), SVCMGR_HANDLE, "drv.doomed");
    ASSERT_NE(handle, 0u);
    Block die;
    die.txn(BC_TRANSACTION, handle, peer::ECHO_DIE, 0, payload(4));
    EXPECT_EQ(outcome_of(bs.get(), die).returns, (Words{BR_TRANSACTION_COMPLETE, BR_DEAD_REPLY}));

    pollfd p{deaths[0], POLLIN, 0};
    char d = 0;
    ASSERT_EQ(poll(&p, 1, 60000), 1) << "no death notice";
    EXPECT_EQ(read(deaths[0], &d, 1), 1);
    EXPECT_EQ(d, 'D');
    close(deaths[0]);

    Block again;
    again.txn(BC_TRANSACTION, handle, peer::ECHO_ADD1, 0, payload(4));
    EXPECT_EQ(outcome_of(bs.get(), again).returns, Words{BR_DEAD_REPLY});
}

}  // namespace

namespace {

// Threads sharing one connection each get their own replies: the driver
// tells the calling threads apart.
TEST_F(DriverFaults, ThreadsSharingAConnectionGetTheirOwnReplies)
{
    constexpr uint32_t kThreads = 4, kCalls = 300;
    std::vector<std::thread> threads;
    std::atomic<uint32_t> wrong{0};
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kCalls; ++i) {
                const uint32_t arg = t * 1000000 + i;
                char area[64];
                binder_io msg, reply;
                bio_init(&msg, area, sizeof area, 4);
                bio_put_uint32(&msg, arg);
                if (binder_call(bs.get(), &msg, &reply, handle, peer::ECHO_ADD1) != 0) {
                    ++wrong;
                    continue;
                }
                if (bio_get_uint32(&reply) != arg + 1)
                    ++wrong;
                binder_done(bs.get(), &msg, &reply);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(wrong.load(), 0u);
}

// A service that, while serving our call, calls an object of ours: the
// call comes to the thread that waits for the service, which answers it
// and then gets the service's reply.
TEST_F(DriverFaults, NestedCallComesBackToTheWaitingThread)
{
    static int object;
    std::vector<unsigned char> data(sizeof(flat_binder_object));
    flat_binder_object obj{};
    obj.type = BINDER_TYPE_BINDER;
    obj.flags = 0x17f;
    obj.binder = ptr_of(&object);
    std::memcpy(data.data(), &obj, sizeof obj);
    Block call;
    call.txn(BC_TRANSACTION, handle, peer::ECHO_NEST, 0, data, {0});

    binder_write_read bwr{};
    bwr.write_size = call.bytes.size();
    bwr.write_buffer = ptr_of(call.bytes.data());
    Words seen;
    uint32_t answered = 0;
    Block reply; // our answer to the nested call, kept until written
    for (int pass = 0; pass < 64 && !answered; ++pass) {
        alignas(8) unsigned char buf[256];
        bwr.read_size = sizeof buf;
        bwr.read_consumed = 0;
        bwr.read_buffer = ptr_of(buf);
        ASSERT_EQ(binder_ioctl(bs.get(), BINDER_WRITE_READ, &bwr), 0) << strerror(errno);
        for (size_t pos = 0; pos + 4 <= bwr.read_consumed;) {
            uint32_t cmd;
            std::memcpy(&cmd, buf + pos, 4);
            pos += 4;
            if (cmd != BR_NOOP)
                seen.push_back(cmd);
            binder_transaction_data t{};
            if (cmd == BR_TRANSACTION || cmd == BR_REPLY)
                std::memcpy(&t, buf + pos, sizeof t);
            pos += _IOC_SIZE(cmd);
            if (cmd == BR_TRANSACTION) {
                EXPECT_EQ(t.target.ptr, ptr_of(&object));
                EXPECT_EQ(t.code, peer::ECHO_ADD1);
                reply = Block();
                reply.put(uint32_t{BC_FREE_BUFFER}).put(t.data.ptr.buffer);
                reply.txn(BC_REPLY, 0, 0, 0, payload(4, 41));
                bwr.write_buffer = ptr_of(reply.bytes.data());
                bwr.write_size = reply.bytes.size();
                bwr.write_consumed = 0;
            } else if (cmd == BR_REPLY) {
                std::memcpy(&answered, native_ptr<const void>(t.data.ptr.buffer), 4);
                Block free_it;
                free_it.put(uint32_t{BC_FREE_BUFFER}).put(t.data.ptr.buffer);
                binder_write(bs.get(), free_it.bytes.data(), free_it.bytes.size());
            }
        }
    }
    // First the driver says that our object is referenced now.
    EXPECT_EQ(seen, (Words{BR_INCREFS, BR_ACQUIRE, BR_TRANSACTION_COMPLETE, BR_TRANSACTION,
                           BR_TRANSACTION_COMPLETE, BR_REPLY}));
    EXPECT_EQ(answered, 41u);
}

}  // namespace

namespace {

// Our object sent to another process arrives there as a handle; that handle
// sent back to us arrives as our object again.
TEST_F(DriverFaults, OwnObjectComesBackAsTheObject)
{
    static int object;
    char area[128];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_obj(&msg, &object);
    ASSERT_EQ(binder_call(bs.get(), &msg, &reply, handle, peer::ECHO_BOUNCE), 0);
    ASSERT_EQ(reply.data_left, sizeof(flat_binder_object));
    flat_binder_object back;
    std::memcpy(&back, reply.data_start, sizeof back);
    EXPECT_EQ(back.type, BINDER_TYPE_BINDER);
    EXPECT_EQ(back.binder, ptr_of(&object));
    binder_done(bs.get(), &msg, &reply);
}

struct IoctlCase {
    const char *what;
    unsigned long request;
    int32_t arg;
    int error;        // errno, or 0
    int32_t returned; // what the argument holds after a successful call
};

class DriverIoctl : public ::testing::TestWithParam<IoctlCase> {};

TEST_P(DriverIoctl, AnswersAsTheKernel)
{
    peer::Connection bs(binder_open(4096));
    ASSERT_NE(bs, nullptr);
    IoctlCase c = GetParam();
    const int res = binder_ioctl(bs.get(), c.request, &c.arg);
    EXPECT_EQ(res < 0 ? errno : 0, c.error);
    if (!c.error) {
        EXPECT_EQ(c.arg, c.returned);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Driver, DriverIoctl,
    ::testing::Values(
        IoctlCase{"Version", BINDER_VERSION, 0, 0, sizeof(binder_uintptr_t) == 4 ? 7 : 8},
        IoctlCase{"MaxThreads", _IOW('b', 5, uint32_t), 4, 0, 4},
        // The service manager of these tests holds it.
        IoctlCase{"SecondContextManager", BINDER_SET_CONTEXT_MGR, 0, EBUSY, 0},
        IoctlCase{"UnknownRequest", _IOWR('b', 60, int32_t), 0, EINVAL, 0}),
    [](const auto &info) { return std::string(info.param.what); });

}  // namespace

