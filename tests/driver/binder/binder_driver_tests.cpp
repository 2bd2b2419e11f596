// The binder layer against the real driver, with the service manager program
// as handle 0 and echo services in child processes.
#include "peer.h"

#include <hmisvc/binder.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

using peer::Connection;

namespace {

constexpr uint32_t MAP_SIZE = 128 * 1024;

class ServiceManagerEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        ASSERT_TRUE(peer::start_service_manager(HMISVC_SERVICEMANAGER))
            << "service manager did not come up";
    }
    void TearDown() override { peer::stop_service_manager(); }
};

// A service-manager request written part by part, so that tests can also
// get it wrong or cut it short.
struct Request {
    uint32_t code = SVCMGR_CODE_LOOKUP;
    uint32_t header = 0;
    const char *interface = "android.os.IServiceManager";
    const char *name = "drv.nobody";
    void *object = nullptr;  // publish: the object put after the name
    int parts = 3;           // how many of header, interface, name, object
};

void put_request(binder_io *msg, const Request &r)
{
    if (r.parts > 0)
        bio_put_uint32(msg, r.header);
    if (r.parts > 1)
        bio_put_string16_x(msg, r.interface);
    if (r.parts > 2)
        bio_put_string16_x(msg, r.name);
    if (r.parts > 3)
        bio_put_obj(msg, r.object);
}

// A reply taken from the driver, given back when it goes.
class Reply {
public:
    explicit Reply(binder_connection *bs) : bs_(bs) {}
    ~Reply() { binder_done(bs_, nullptr, &io); }
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    binder_io io{};

private:
    binder_connection *bs_;
};

// Publishes through a buffer large enough for any name the tests use.
int publish_large(binder_connection *bs, const std::string &name, void *object)
{
    static char area[16384];
    binder_io msg;
    bio_init(&msg, area, sizeof area, 4);
    put_request(&msg, {SVCMGR_CODE_PUBLISH, 0, "android.os.IServiceManager", name.c_str(),
                       object, 4});
    Reply reply(bs);
    if (binder_call(bs, &msg, &reply.io, SVCMGR_HANDLE, SVCMGR_CODE_PUBLISH) != 0)
        return -1;
    return static_cast<int>(bio_get_uint32(&reply.io));
}

// ECHO_ADD1 or ECHO_PID on `handle`; -1 when the call fails.
int64_t call_word(binder_connection *bs, uint32_t handle, uint32_t code, uint32_t arg = 0)
{
    char area[64];
    binder_io msg;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, arg);
    Reply reply(bs);
    if (binder_call(bs, &msg, &reply.io, handle, code) != 0)
        return -1;
    return bio_get_uint32(&reply.io);
}

// An echo service and the handle by which a connection reaches it (0 when
// it did not come up or cannot be found).
struct Service {
    std::unique_ptr<peer::Child> child;
    uint32_t handle;
};

Service serve(const char *name, binder_connection *bs)
{
    auto child = peer::start_echo({name});
    uint32_t handle = child->ready() ? svcmgr_lookup(bs, SVCMGR_HANDLE, name) : 0;
    return {std::move(child), handle};
}

class BinderDriver : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(bs, nullptr); }

    uint32_t lookup(const char *name) { return svcmgr_lookup(bs.get(), SVCMGR_HANDLE, name); }
    Service serve(const char *name) { return ::serve(name, bs.get()); }

    Connection bs{binder_open(MAP_SIZE)};
};

// ECHO_ADD1 of `arg`, its reply given back: the answer, or -1 when the call failed.
int64_t add1_given_back(binder_connection *bs, uint32_t handle, uint32_t arg)
{
    char area[64];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, arg);
    if (binder_call(bs, &msg, &reply, handle, peer::ECHO_ADD1) != 0)
        return -1;
    const int64_t answer = bio_get_uint32(&reply);
    binder_done(bs, &msg, &reply);
    return answer;
}

// Each reply occupies the caller's mapping until binder_done gives it back:
// a 1024-byte mapping (the kernel maps a page: room for 1024 one-word replies
// on a 32-bit kernel, 512 on a 64-bit one) serves any number of calls that do
// so, here several times what it holds.
TEST_F(BinderDriver, RepliesGivenBackKeepASmallMappingUsable)
{
    Connection small(binder_open(1024));
    ASSERT_NE(small, nullptr);
    auto [service, handle] = ::serve("drv.many", small.get());
    ASSERT_NE(handle, 0u);
    for (uint32_t i = 0; i < 5000; ++i)
        ASSERT_EQ(add1_given_back(small.get(), handle, i), i + 1) << "call " << i;
}

// The same when each call comes from a thread of its own that gives its reply
// back and ends: more threads than the mapping holds replies, one at a time.
TEST_F(BinderDriver, RepliesGivenBackByThreadsThatEndKeepASmallMappingUsable)
{
    Connection small(binder_open(1024));
    ASSERT_NE(small, nullptr);
    auto [service, handle] = ::serve("drv.threads", small.get());
    ASSERT_NE(handle, 0u);
    for (uint32_t i = 0; i < 1100; ++i) {
        int64_t answer = -1;
        std::thread([&] { answer = add1_given_back(small.get(), handle, i); }).join();
        ASSERT_EQ(answer, i + 1) << "call " << i;
    }
}

// The longest service name a request buffer holds: its data area (the
// buffer less the offsets area) less the header word, the interface name
// (26 units and terminator, 56 bytes), the name's length word and what
// follows the name; the name takes (L + 1) units rounded up to 4 bytes.
constexpr uint32_t longest_name(uint32_t buffer, uint32_t after_name)
{
    uint32_t room = buffer - 4 * sizeof(binder_size_t) - 4 - (4 + 56) - 4 - after_name;
    return (room - 2) / 2;
}
constexpr uint32_t LOOKUP_LONGEST = longest_name(4096, 0);
constexpr uint32_t PUBLISH_LONGEST = longest_name(512, sizeof(flat_binder_object));
static_assert(sizeof(binder_size_t) != 4 || (LOOKUP_LONGEST == 2005 && PUBLISH_LONGEST == 205),
              "the 32-bit protocol's limits");

const char *const OVERFLOW_MESSAGE = "binder: txn buffer overflow\n";

// What `op` writes on stderr.
template <class Op>
std::string stderr_of(Op op)
{
    testing::internal::CaptureStderr();
    op();
    return testing::internal::GetCapturedStderr();
}

TEST_F(BinderDriver, LongestLookupNameFitsAndOneMoreOverflows)
{
    // Both names are published through a larger buffer, so that only the
    // lookup buffer decides; a connection of their own (a lookup from the
    // publishing connection would find the object itself, not a reference)
    // drops them again when it closes.
    Connection publisher(binder_open(MAP_SIZE));
    ASSERT_NE(publisher, nullptr);
    static int object;
    const std::string fits(LOOKUP_LONGEST, 'L'), over(LOOKUP_LONGEST + 1, 'L');
    ASSERT_EQ(publish_large(publisher.get(), fits, &object), 0);
    ASSERT_EQ(publish_large(publisher.get(), over, &object), 0);

    uint32_t handle = 0;
    EXPECT_EQ(stderr_of([&] { handle = lookup(fits.c_str()); }), "");
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(stderr_of([&] { handle = lookup(over.c_str()); }), OVERFLOW_MESSAGE);
    EXPECT_EQ(handle, 0u);
}

TEST_F(BinderDriver, LongestPublishNameFitsAndOneMoreOverflows)
{
    Connection publisher(binder_open(MAP_SIZE));
    ASSERT_NE(publisher, nullptr);
    static int object;
    const std::string fits(PUBLISH_LONGEST, 'P'), over(PUBLISH_LONGEST + 1, 'P');
    auto publish = [&](const std::string &name) {
        return svcmgr_publish(publisher.get(), SVCMGR_HANDLE, name.c_str(), &object);
    };

    int status = -1;
    EXPECT_EQ(stderr_of([&] { status = publish(fits); }), "");
    EXPECT_EQ(status, 0);
    EXPECT_NE(lookup(fits.c_str()), 0u);
    EXPECT_EQ(stderr_of([&] { status = publish(over); }), OVERFLOW_MESSAGE);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(lookup(over.c_str()), 0u);
}

TEST_F(BinderDriver, CallToKilledServiceFails)
{
    auto [service, handle] = serve("drv.victim");
    ASSERT_NE(handle, 0u);
    ASSERT_EQ(call_word(bs.get(), handle, peer::ECHO_ADD1, 1), 2);
    service->kill();

    char area[64];
    binder_io msg, reply;
    bio_init(&msg, area, sizeof area, 4);
    bio_put_uint32(&msg, 1);
    EXPECT_EQ(binder_call(bs.get(), &msg, &reply, handle, peer::ECHO_ADD1), -1);
    EXPECT_EQ(reply.flags, BIO_FLAG_IO_ERROR);
}

TEST_F(BinderDriver, TakenNameStaysWithItsHolderWhileItLives)
{
    // The holder may publish its name again; another process may not, and
    // the holder's object keeps answering under it.
    auto first = peer::start_echo({"drv.shared", "drv.shared"});
    ASSERT_TRUE(first->ready());
    auto impostor = peer::start_echo({"drv.shared"});
    EXPECT_FALSE(impostor->ready());
    uint32_t handle = lookup("drv.shared");
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(call_word(bs.get(), handle, peer::ECHO_PID), first->pid());

    // Once the holder has exited, the name is free at once.
    first->kill();
    auto second = peer::start_echo({"drv.shared"});
    ASSERT_TRUE(second->ready());
    handle = lookup("drv.shared");
    ASSERT_NE(handle, 0u);
    EXPECT_EQ(call_word(bs.get(), handle, peer::ECHO_PID), second->pid());

    second->kill();
    EXPECT_TRUE(peer::eventually([&] { return lookup("drv.shared") == 0; }));
}

struct MalformedCase {
    const char *what;
    Request request;
};

class MalformedRequest : public BinderDriver,
                         public ::testing::WithParamInterface<MalformedCase> {};

// Each is refused with an error status, and the next well-formed request is
// still answered.
TEST_P(MalformedRequest, GetsErrorStatusAndServiceManagerKeepsServing)
{
    static int object;
    Request r = GetParam().request;
    if (r.parts > 3)
        r.object = &object;
    char area[512];
    binder_io msg;
    bio_init(&msg, area, sizeof area, 4);
    put_request(&msg, r);
    {
        Reply reply(bs.get());
        ASSERT_EQ(binder_call(bs.get(), &msg, &reply.io, SVCMGR_HANDLE, r.code), 0);
        EXPECT_EQ(reply.io.data_left, 4u);
        EXPECT_NE(bio_get_uint32(&reply.io), 0u);
    }

    bio_init(&msg, area, sizeof area, 4);
    put_request(&msg, Request{});
    Reply reply(bs.get());
    ASSERT_EQ(binder_call(bs.get(), &msg, &reply.io, SVCMGR_HANDLE, SVCMGR_CODE_LOOKUP), 0);
    // An unknown name: a null reference, not a status word.
    EXPECT_EQ(reply.io.data_left, sizeof(flat_binder_object));
    EXPECT_EQ(bio_get_uint32(&reply.io), BINDER_TYPE_HANDLE);
}

constexpr uint32_t LOOKUP = SVCMGR_CODE_LOOKUP;
constexpr uint32_t PUBLISH = SVCMGR_CODE_PUBLISH;
constexpr const char *IFACE = "android.os.IServiceManager";

INSTANTIATE_TEST_SUITE_P(
    Refused, MalformedRequest,
    ::testing::Values(
        MalformedCase{"LookupHeaderWord", {LOOKUP, 1, IFACE, "drv.x", nullptr, 3}},
        MalformedCase{"LookupInterface",
                      {LOOKUP, 0, "android.os.IServiceManagex", "drv.x", nullptr, 3}},
        MalformedCase{"PublishInterface", {PUBLISH, 0, "IServiceManager", "drv.x", nullptr, 4}},
        MalformedCase{"NullInterface", {LOOKUP, 0, nullptr, "drv.x", nullptr, 3}},
        MalformedCase{"NoInterface", {LOOKUP, 0, IFACE, "drv.x", nullptr, 1}},
        MalformedCase{"NoName", {LOOKUP, 0, IFACE, "drv.x", nullptr, 2}},
        MalformedCase{"NullName", {LOOKUP, 0, IFACE, nullptr, nullptr, 3}},
        MalformedCase{"EmptyName", {PUBLISH, 0, IFACE, "", nullptr, 4}},
        MalformedCase{"PublishWithoutObject", {PUBLISH, 0, IFACE, "drv.x", nullptr, 3}},
        MalformedCase{"EmptyRequest", {LOOKUP, 0, IFACE, "drv.x", nullptr, 0}},
        MalformedCase{"UnknownCode", {1, 0, IFACE, "drv.x", nullptr, 3}}),
    [](const auto &info) { return std::string(info.param.what); });

}  // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new ServiceManagerEnvironment);
    return RUN_ALL_TESTS();
}
