// The services served straight from transaction buffers, without a driver:
// request decoding and refusals. The answers' layouts and the request record
// are checked where the proxies read them, over the driver.
#include "services.h"

#include "looper.h"

#include "../../common/request_bytes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <thread>
#include <string>
#include <vector>

namespace {

using namespace hmisvc::devsim;

class Services : public ::testing::Test {
protected:
    int call(const char *service, uint32_t code, const RequestBytes &bytes, std::size_t reply_area = 40960)
    {
        const Service *s = sim.find(service);
        return call_object(s ? object_word(s) : 0, code, bytes, reply_area);
    }
    int call_object(binder_uintptr_t target, uint32_t code, const RequestBytes &bytes, std::size_t reply_area = 40960)
    {
        return serve(target, code, bytes, reply_area, last_reply);
    }
    // As the serving threads do, several at once.
    int serve(binder_uintptr_t target, uint32_t code, const RequestBytes &bytes, std::size_t reply_area,
              std::string &answer)
    {
        std::vector<uint32_t> in((bytes.data.size() + 3) / 4 + 1);
        std::memcpy(in.data(), bytes.data.data(), bytes.data.size());
        binder_transaction_data txn{};
        txn.target.ptr = target;
        txn.code = code;
        txn.data_size = bytes.data.size();
        txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(in.data());
        binder_io msg, reply;
        bio_init_from_txn(&msg, &txn);
        std::vector<uint32_t> out(reply_area / 4);
        bio_init(&reply, out.data(), static_cast<uint32_t>(reply_area), 4);
        int status = sim.handle(txn, msg, reply);
        answer.assign(reply.data_start, reply.cursor);
        return status;
    }

    std::string last_reply;  // the answer of the last call
    Device device;
    Simulator sim{device};
};

TEST_F(Services, MalformedRequestsAreRefusedAndChangeNothing)
{
    NetInfo eth = device.network.ethernet();
    std::string record = eth.toString();
    const struct {
        const char *what;
        const char *service;
        uint32_t code;
        RequestBytes bytes;
        int status;
    } cases[] = {
        {"no leading word", "backlight", 2, RequestBytes(), kBadRequest},
        {"leading word not 0", "backlight", 2, RequestBytes().word(1).word(10), kBadRequest},
        {"argument missing", "backlight", 2, request(), kBadRequest},
        {"word after the arguments", "backlight", 2, request().word(10).word(0), kBadRequest},
        {"half an argument", "backlight", 2, request().raw(std::string("\x0a\0", 2)), kBadRequest},
        {"unknown code", "backlight", 6, request(), kUnknownMethod},
        {"code the service leaves unused", "system", 1, request(), kUnknownMethod},
        {"null string", "settings", 2, request().word(0xFFFFFFFF).str("k").str("v"), kBadRequest},
        {"string longer than the data", "settings", 2, request().word(0xFFFFFFFE).word(0), kBadRequest},
        {"string without terminator", "settings", 2,
         request().word(4).raw("abcd").word(0x41414141).str("k").str("v"), kBadRequest},
        {"bool neither 0 nor 1", "date", 2, request().word(2), kBadRequest},
        {"record cut short", "ethinfo", 1, request().mem(record.substr(0, record.size() - 1)), kBadRequest},
        {"record with bytes after it", "ethinfo", 1, request().mem(record + "x"), kBadRequest},
        {"null block", "ethinfo", 1, request().word(0xFFFFFFFF), kBadRequest},
        {"endpoint name missing", "broadcast", 0, request(), kBadRequest},
        {"intent missing", "broadcast", 1, request(), kBadRequest},
        {"unknown broadcast code", "broadcast", 2, request(), kUnknownMethod},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(call(c.service, c.code, c.bytes), c.status) << c.what;
    }
    EXPECT_EQ(call_object(12345, 0, request()), kUnknownMethod) << "unknown object";

    EXPECT_EQ(device.backlight.level(), 80);
    EXPECT_TRUE(device.settings.sections().empty());
    EXPECT_TRUE(device.clock.modifiable());
    EXPECT_EQ(device.network.ethernet().toString(), record);
    EXPECT_EQ(device.broadcasts.endpoints(), 0u);
}

TEST_F(Services, ANameRegisteredTwiceIsOneEndpoint)
{
    EXPECT_EQ(call("broadcast", 0, request().str("BroadCast#7")), kOk);
    EXPECT_EQ(call("broadcast", 0, request().str("BroadCast#7")), kOk);
    EXPECT_EQ(device.broadcasts.endpoints(), 1u);
}

// Delayed calls wait without the device's lock, up to a limit past which a
// call fails at once; a heal answers the waiting ones at once.
TEST_F(Services, DelayedCallsAreCappedAndReleasedByHeal)
{
    std::atomic<int> waiting{0};
    int most = 0;  // under the simulator's lock, as the hook is called
    sim.on_delay([&](bool starts) { most = std::max(most, waiting += starts ? 1 : -1); });
    const Service &backlight = *sim.find("backlight");
    sim.fail(backlight, {Fault::kFailCall, -1, 600000});
    std::vector<std::future<int>> calls;
    for (int i = 0; i < Simulator::kMaxDelayed + 2; ++i)
        calls.push_back(std::async(std::launch::async, [&] {
            std::string answer;
            return serve(object_word(&backlight), 0, RequestBytes().word(0), 40960, answer);
        }));
    auto ready = [](std::future<int> &f, auto wait) { return f.wait_for(wait) == std::future_status::ready; };
    auto refused = [&] {
        std::vector<int> out;
        for (auto &f : calls)
            if (f.valid() && ready(f, std::chrono::seconds(0)))
                out.push_back(f.get());
        return out;
    };
    std::vector<int> failed_at_once;
    for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
         (waiting < Simulator::kMaxDelayed || failed_at_once.size() < 2) && std::chrono::steady_clock::now() < until;
         std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        for (int status : refused())
            failed_at_once.push_back(status);
    EXPECT_EQ(failed_at_once, std::vector<int>(2, hmisvc::tools::kFailTransaction));
    ASSERT_EQ(waiting, Simulator::kMaxDelayed);
    EXPECT_EQ(call("system", 6, RequestBytes().word(0)), kOk) << "another service answers meanwhile";

    sim.heal(backlight);
    for (auto &f : calls)
        if (f.valid()) {
            ASSERT_TRUE(ready(f, std::chrono::seconds(60)));
            EXPECT_EQ(f.get(), kOk);
        }
    EXPECT_EQ(most, Simulator::kMaxDelayed);
    EXPECT_EQ(waiting, 0);
}

TEST(BroadcastHubLimits, RefusesRegistrationsPastItsLimit)
{
    BroadcastHub hub(1000, std::chrono::seconds(1));  // nobody dropped while the test runs
    for (std::size_t i = 0; i < BroadcastHub::kMaxEndpoints; ++i)
        ASSERT_TRUE(hub.add("BroadCast#" + std::to_string(i)));
    EXPECT_TRUE(hub.add("BroadCast#0")) << "a known name is still taken";
    EXPECT_FALSE(hub.add("BroadCast#x"));
    EXPECT_EQ(hub.endpoints(), BroadcastHub::kMaxEndpoints);
}

// An endpoint that takes nothing (here: never found) keeps the newest
// intents up to the bytes bound; an intent past its own bound is not sent.
TEST(BroadcastHubLimits, QueuesAreBoundedInBytes)
{
    BroadcastHub hub(1000, std::chrono::seconds(1));
    ASSERT_TRUE(hub.add("BroadCast#never"));
    const std::string largest(BroadcastHub::kMaxIntentBytes, 'x');
    const std::size_t fit = BroadcastHub::kMaxKeptBytes / largest.size();
    for (std::size_t i = 0; i < fit + 10; ++i)
        ASSERT_TRUE(hub.send(largest));
    EXPECT_EQ(hub.queued_bytes(), fit * largest.size());
    EXPECT_EQ(hub.dropped(), 10u);
    EXPECT_FALSE(hub.send(largest + "x"));
    EXPECT_EQ(hub.dropped(), 11u);
    EXPECT_EQ(hub.queued_bytes(), fit * largest.size());
}

TEST_F(Services, AnAnswerTooLargeForTheReplyIsAnError)
{
    EXPECT_EQ(call("wifiinfo", 2, request(), 256), kReplyTooLarge);
}

TEST_F(Services, QueriesReadTheirAnswersBackAsServedOrSayTheyAreCut)
{
    Json served;
    sim.observe([&](const Json *c) { served = c ? c->value("reply", Json()) : Json(); });
    for (const Service &s : sim.services())
        for (uint32_t code = 0; code < s.methods.size(); ++code) {
            const Method &m = s.methods[code];
            if (!m.query || !m.arg_types.empty())
                continue;
            ASSERT_EQ(call(s.name, code, request()), kOk) << m.name;
            std::string bytes = last_reply;
            for (std::size_t cut : {0, 4}) {  // whole, then without its last word
                std::vector<uint32_t> area(bytes.size() / 4 + 1);
                std::memcpy(area.data(), bytes.data(), bytes.size() - cut);
                binder_transaction_data txn{};
                txn.data_size = bytes.size() - cut;
                txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(area.data());
                binder_io reply;
                bio_init_from_txn(&reply, &txn);
                Json answer = m.answer(reply);
                EXPECT_EQ((reply.flags & BIO_FLAG_OVERFLOW) != 0, cut != 0) << m.name;
                if (!cut) {
                    EXPECT_EQ(answer, served) << m.name;
                }
            }
        }
}

}  // namespace
