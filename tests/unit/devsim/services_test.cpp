// The services served straight from transaction buffers, without a driver:
// request decoding, refusals, reply layouts and the request record.
#include "services.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace hmisvc::devsim;

// Request bytes in the buffer's layout, spelled independently of bio_put_*.
struct Bytes {
    std::string data;
    Bytes &word(uint32_t w)
    {
        data.append(reinterpret_cast<const char *>(&w), 4);
        return *this;
    }
    Bytes &pad()
    {
        data.append((4 - data.size() % 4) % 4, '\0');
        return *this;
    }
    Bytes &str(const std::string &s) { return word(static_cast<uint32_t>(s.size())).raw(s + '\0').pad(); }
    Bytes &mem(const std::string &b) { return word(static_cast<uint32_t>(b.size())).raw(b).pad(); }
    Bytes &raw(const std::string &b)
    {
        data += b;
        return *this;
    }
};

std::string hex(const std::string &bytes)
{
    std::string out;
    char two[3];
    for (unsigned char c : bytes) {
        std::snprintf(two, sizeof two, "%02x", c);
        out += two;
    }
    return out;
}

struct Answer {
    int status;
    std::string reply;  // what was written into the reply
};

class Services : public ::testing::Test {
protected:
    Answer call(const char *service, uint32_t code, const Bytes &request, std::size_t reply_area = 40960)
    {
        const Service *s = sim.find(service);
        return call_object(s ? reinterpret_cast<binder_uintptr_t>(s) : 0, code, request, reply_area);
    }
    Answer call_object(binder_uintptr_t target, uint32_t code, const Bytes &request, std::size_t reply_area = 40960)
    {
        std::vector<uint32_t> in((request.data.size() + 3) / 4 + 1);
        std::memcpy(in.data(), request.data.data(), request.data.size());
        binder_transaction_data txn{};
        txn.target.ptr = target;
        txn.code = code;
        txn.data_size = request.data.size();
        txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(in.data());
        binder_io msg, reply;
        bio_init_from_txn(&msg, &txn);
        std::vector<uint32_t> out(reply_area / 4);
        bio_init(&reply, out.data(), static_cast<uint32_t>(reply_area), 4);
        int status = sim.handle(txn, msg, reply);
        return {status, std::string(reply.data_start, reply.cursor)};
    }
    static Bytes req() { return Bytes().word(0); }
    static std::string word(uint32_t w) { return Bytes().word(w).data; }

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
        Bytes request;
        int status;
    } cases[] = {
        {"no leading word", "backlight", 2, Bytes(), kBadRequest},
        {"leading word not 0", "backlight", 2, Bytes().word(1).word(10), kBadRequest},
        {"argument missing", "backlight", 2, req(), kBadRequest},
        {"word after the arguments", "backlight", 2, req().word(10).word(0), kBadRequest},
        {"half an argument", "backlight", 2, req().raw(std::string("\x0a\0", 2)), kBadRequest},
        {"unknown code", "backlight", 6, req(), kUnknownMethod},
        {"code the service leaves unused", "system", 1, req(), kUnknownMethod},
        {"null string", "settings", 2, req().word(0xFFFFFFFF).str("k").str("v"), kBadRequest},
        {"string longer than the data", "settings", 2, req().word(0xFFFFFFFE).word(0), kBadRequest},
        {"string without terminator", "settings", 2,
         req().word(4).raw("abcd").word(0x41414141).str("k").str("v"), kBadRequest},
        {"bool neither 0 nor 1", "date", 2, req().word(2), kBadRequest},
        {"record cut short", "ethinfo", 1, req().mem(record.substr(0, record.size() - 1)), kBadRequest},
        {"record with bytes after it", "ethinfo", 1, req().mem(record + "x"), kBadRequest},
        {"null block", "ethinfo", 1, req().word(0xFFFFFFFF), kBadRequest},
        {"endpoint name missing", "broadcast", 0, req(), kBadRequest},
        {"intent missing", "broadcast", 1, req(), kBadRequest},
        {"unknown broadcast code", "broadcast", 2, req(), kUnknownMethod},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(call(c.service, c.code, c.request).status, c.status) << c.what;
    }
    EXPECT_EQ(call_object(12345, 0, req()).status, kUnknownMethod) << "unknown object";

    EXPECT_EQ(device.backlight.level(), 80);
    EXPECT_TRUE(device.settings.sections().empty());
    EXPECT_TRUE(device.clock.modifiable());
    EXPECT_EQ(device.network.ethernet().toString(), record);
    EXPECT_EQ(device.broadcasts.endpoints(), 0u);
}

TEST_F(Services, AnswersInTheLayoutsTheProxiesDecode)
{
    // A method without a decoded reply answers the status word 0.
    EXPECT_EQ(hex(call("beep", 0, req().word(5).word(7)).reply), "00000000");
    EXPECT_EQ(device.beeper.last[1], 7);

    EXPECT_EQ(hex(call("backlight", 0, req()).reply), "50000000");
    EXPECT_EQ(hex(call("backlight", 2, req().word(101)).reply), "00000000");
    EXPECT_EQ(hex(call("backlight", 2, req().word(30)).reply), "01000000");

    // Strings: length, bytes, NUL, padding; the default comes back for a
    // missing setting.
    EXPECT_EQ(hex(call("settings", 0, req().str("a").str("b").str("dflt")).reply), "04000000" "64666c74" "00000000");
    EXPECT_EQ(hex(call("settings", 3, req().str("a").str("n").word(0xFFFFFFFE)).reply), "00000000");
    EXPECT_EQ(hex(call("settings", 1, req().str("a").str("n").word(9)).reply), "feffffff");
    EXPECT_EQ(hex(call("system", 10, req().str("no-such-part")).reply), "00000000" "00000000");

    // Records: one block holding toString()'s bytes.
    NetInfo eth = device.network.ethernet();
    EXPECT_EQ(call("ethinfo", 0, req()).reply, Bytes().mem(eth.toString()).data);
    eth.text1 = "10.0.0.9";
    EXPECT_EQ(hex(call("ethinfo", 1, req().mem(eth.toString())).reply), "00000000");
    EXPECT_EQ(device.network.ethernet().text1, "10.0.0.9");

    Answer connect = call("wifiinfo", 1, req().str("Office-WiFi").str("secret-pass").word(0));
    EXPECT_EQ(hex(connect.reply), "00000000");
    EXPECT_EQ(call("wifiinfo", 0, req()).reply, Bytes().mem(device.network.wifi().toString()).data);

    // The scan list: a count, then one block per network.
    Bytes list;
    list.word(static_cast<uint32_t>(device.network.scan().size()));
    for (WifiList n : device.network.scan())
        list.mem(n.toString());
    EXPECT_EQ(call("wifiinfo", 2, req()).reply, list.data);
    EXPECT_EQ(call("date", 0, req()).reply.size(), 4u + 32u);
    // A name is remembered once, however often it registers.
    EXPECT_EQ(hex(call("broadcast", 0, req().str("BroadCast#7")).reply), "00000000");
    EXPECT_EQ(hex(call("broadcast", 0, req().str("BroadCast#7")).reply), "00000000");
    EXPECT_EQ(device.broadcasts.endpoints(), 1u);
    EXPECT_EQ(call("broadcast", 1, req().mem("intent bytes")).status, kOk);
}

TEST_F(Services, AnAnswerTooLargeForTheReplyIsAnError)
{
    EXPECT_EQ(call("wifiinfo", 2, req(), 256).status, kReplyTooLarge);
}

TEST(ServicesRecord, EveryRequestIsRecordedAsReceived)
{
    char *text = nullptr;
    std::size_t size = 0;
    std::FILE *record = open_memstream(&text, &size);
    Device device;
    Simulator sim(device, record);
    const Service *beep = sim.find("beep");
    uint32_t words[] = {0, 5, 7};
    for (uint32_t code : {0u, 3u}) {
        binder_transaction_data txn{};
        txn.target.ptr = reinterpret_cast<binder_uintptr_t>(beep);
        txn.code = code;
        txn.data_size = sizeof words;
        txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(words);
        binder_io msg, reply;
        uint32_t area[16];
        bio_init_from_txn(&msg, &txn);
        bio_init(&reply, area, sizeof area, 4);
        sim.handle(txn, msg, reply);
    }
    std::fclose(record);
    EXPECT_STREQ(text, "beep 0 000000000500000007000000\nbeep 3 000000000500000007000000\n");
    std::free(text);
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
            std::string bytes = call(s.name, code, req()).reply;
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
