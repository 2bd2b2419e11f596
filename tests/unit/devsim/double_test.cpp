// The pure parts of the simulator as a test double: the call log's filters
// and bounds, scenario documents, decoded broadcasts, nearest names.
#include "call_log.h"
#include "names.h"
#include "scenario.h"
#include "wire.h"

#include <hmisvc/broadcast.h>

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

namespace hmisvc::devsim {
namespace {

Json call(const char *service, const char *method, Json args)
{
    return {{"time", 1.5}, {"pid", 7}, {"service", service}, {"method", method}, {"code", 0}, {"args", args},
            {"reply", 0}};
}

std::vector<uint64_t> seqs(const std::vector<std::string> &texts)
{
    std::vector<uint64_t> out;
    for (const std::string &t : texts)
        out.push_back(Json::parse(t)["seq"].get<uint64_t>());
    return out;
}

void fill(CallLog &log)
{
    log.add(call("backlight", "SetBrightness", {10}), "app");      // 1
    log.add(call("backlight", "GetBrightness", Json::array()), "app");  // 2
    log.add(call("backlight", "SetBrightness", {20}), "other");    // 3
    log.add(call("wifiinfo", "GetWifiinfo", Json::array()), "app");  // 4
    log.add(call("backlight", "SetBrightness", {10}), "app");      // 5
}

TEST(CallLog, Filters)
{
    struct Case {
        const char *name;
        CallFilter filter;
        std::vector<uint64_t> want;
    };
    auto f = [](std::string service, std::string method, std::string program, uint64_t since,
                std::optional<Json> args = std::nullopt) { return CallFilter{service, method, program, since, args}; };
    const Case cases[] = {
        {"all", f("", "", "", 0), {1, 2, 3, 4, 5}},
        {"service", f("backlight", "", "", 0), {1, 2, 3, 5}},
        {"method", f("", "SetBrightness", "", 0), {1, 3, 5}},
        {"program", f("", "", "other", 0), {3}},
        {"since", f("", "", "", 3), {4, 5}},
        {"args", f("", "SetBrightness", "", 0, Json{10}), {1, 5}},
        {"no args", f("", "GetBrightness", "", 0, Json::array()), {2}},
        {"args differ in type", f("", "SetBrightness", "", 0, Json{"10"}), {}},
        {"all parts", f("backlight", "SetBrightness", "app", 1, Json{10}), {5}},
        {"unknown method", f("", "Nope", "", 0), {}},
    };
    CallLog log;
    fill(log);
    for (const Case &c : cases)
        EXPECT_EQ(seqs(log.find(c.filter)), c.want) << c.name;
}

TEST(CallLog, RecordCarriesSeqAndProgram)
{
    CallLog log;
    log.add(call("backlight", "SetBrightness", {10}), "app");
    EXPECT_EQ(log.find({})[0],
              R"({"seq":1,"time":1.5,"pid":7,"service":"backlight","method":"SetBrightness","code":0,"args":[10],)"
              R"("reply":0,"program":"app"})");
}

TEST(CallLog, KeepsTheNewestAndNumbersOnAcrossClear)
{
    CallLog log(3);
    for (int i = 0; i < 5; ++i)
        log.add(call("beep", "Beep", {i, 0}), "app");
    EXPECT_EQ(log.size(), 3u);
    EXPECT_EQ(seqs(log.find({})), (std::vector<uint64_t>{3, 4, 5}));
    EXPECT_EQ(log.mark(), 5u);
    log.clear();
    EXPECT_EQ(log.size(), 0u);
    EXPECT_EQ(log.mark(), 5u);  // a mark taken before stays meaningful
    EXPECT_EQ(log.add(call("beep", "Beep", {0, 0}), "app"), 6u);
}

// Two 200,000-byte texts per call once took 884 MB in 160 calls; a text
// cut keeps whole characters; many short texts keep the JSON's start.
TEST(CallLog, BoundedInBytesWithCutTextsMarked)
{
    const std::string big(200000, 'x');
    CallLog log(CallLog::kDefaultKeep, 1024 * 1024);
    for (int i = 0; i < 2000; ++i)
        log.add(call("system", "SetText", {big, "short"}), "app");
    EXPECT_LE(log.bytes(), 1024u * 1024);
    EXPECT_EQ(log.dropped() + log.size(), 2000u);
    EXPECT_EQ(Json::parse(log.find({}).back())["args"],
              (Json{{{"cut", big.substr(0, CallLog::kTextBytes)}, {"bytes", 200000}}, "short"}));

    const Json many(std::vector<std::string>(2000, "v"));
    log.add(call("broadcast", "Send", {many}), "app");
    log.add(call("system", "SetText", {std::string(CallLog::kTextBytes - 1, 'a') + "\u00e9"}), "app");
    auto last = log.find({});
    EXPECT_EQ(Json::parse(last[last.size() - 2])["args"]["bytes"], tools::dump_json(Json{many}).size());
    EXPECT_EQ(Json::parse(last.back())["args"][0]["cut"], std::string(CallLog::kTextBytes - 1, 'a'));
}

// A page holds what fits, one call at least, so that paging ends.
TEST(CallLog, PagesBringOneCallAtLeast)
{
    CallLog log;
    fill(log);
    const std::size_t two = log.find({})[0].size() + log.find({})[1].size();
    bool more = false;
    for (auto [since, bytes, want, then] : {std::tuple{0, std::size_t{1}, std::vector<uint64_t>{1}, true},
                                            {0, two, {1, 2}, true}, {3, two, {4, 5}, false}}) {
        EXPECT_EQ(seqs(log.find({"", "", "", uint64_t(since), std::nullopt}, bytes, &more)), want);
        EXPECT_EQ(more, then);
    }
}

TEST(CallLog, Waits)
{
    CallLog log;
    fill(log);
    std::vector<std::string> matched;
    auto past = std::chrono::steady_clock::now();
    auto far = past + std::chrono::hours(1);
    CallFilter set10{"", "SetBrightness", "", 0, Json{10}};
    EXPECT_TRUE(log.wait(set10, 2, past, matched)) << "already there";
    EXPECT_EQ(seqs(matched), (std::vector<uint64_t>{1, 5}));
    EXPECT_FALSE(log.wait(set10, 3, past, matched)) << "not there, deadline passed";
    EXPECT_EQ(matched.size(), 2u);

    // Woken by the call itself (the deadline is never reached).
    std::thread caller([&] { log.add(call("backlight", "SetBrightness", {10}), "app"); });
    EXPECT_TRUE(log.wait(set10, 3, far, matched));
    caller.join();
    EXPECT_EQ(seqs(matched), (std::vector<uint64_t>{1, 5, 6}));

    std::thread stopper([&] { log.stop(); });
    EXPECT_FALSE(log.wait(set10, 4, far, matched));
    stopper.join();
}

Scenario::Checks checks()
{
    Scenario::Checks c;
    c.action = [](const std::string &action, const Json &arg) -> std::string {
        if ((action == "fail" || action == "heal") && arg != "backlight")
            return "no service " + tools::dump_json(arg);
        return "";
    };
    c.call = [](const CallFilter &f) -> std::string {
        return f.method == "SetBrightness" || f.method == "Beep" ? "" : "no method \"" + f.method + "\"";
    };
    return c;
}

TEST(Scenario, Documents)
{
    struct Case {
        const char *doc;
        const char *why;  // "" when valid
    };
    const Case cases[] = {
        {R"({"steps": [{"at": 1, "unpublish": "wifiinfo"}, {"at": 3, "publish": "wifiinfo"}]})", ""},
        {R"([{"at": 0, "reset": true}])", ""},
        {R"({"steps": [{"after": {"method": "SetBrightness", "args": [10]}, "delay": 0.5, "fail": "backlight"}]})", ""},
        {R"({"steps": [{"expect": {"method": "Beep", "count": 2}, "before": 4}], "end": 5})", ""},
        {R"({"steps": []})", "scenario: no steps"},
        {R"({"step": []})", "scenario: no field \"step\" (nearest: steps"},
        {R"({"steps": {}})", "scenario: steps: expected an array"},
        {R"({"steps": [], "end": -1})", "scenario: end: expected seconds"},
        {R"([{"at": 1, "heal": "backlight"}, {"at": 1, "heal": "backlight", "dealy": 2}])",
         "step 2: no field \"dealy\" (nearest: delay"},
        {R"([{"at": 1}])", "step 1: no action"},
        {R"([{"at": 1, "heal": "backlight", "fail": "backlight"}])", "step 1: two actions"},
        {R"([{"heal": "backlight"}])", "step 1: at/after: a step runs either"},
        {R"([{"at": 1, "after": {"method": "Beep"}, "heal": "backlight"}])", "step 1: at/after"},
        {R"([{"at": "soon", "heal": "backlight"}])", "step 1: at: expected seconds"},
        {R"([{"at": 1, "delay": 1, "heal": "backlight"}])", "step 1: delay: only a step \"after\""},
        {R"([{"at": 1, "heal": "backlite"}])", "step 1: heal: no service \"backlite\""},
        {R"([{"after": {"method": "SetBrightnes"}, "heal": "backlight"}])", "step 1: after: no method"},
        {R"([{"after": {"method": "Beep", "count": 2}, "heal": "backlight"}])", "step 1: after: no field \"count\""},
        {R"([{"after": {"args": [1]}, "heal": "backlight"}])", "step 1: after: \"method\" is missing"},
        {R"([{"after": {"method": "Beep", "args": 1}, "heal": "backlight"}])", "step 1: after.args: expected an array"},
        {R"([{"expect": {"method": "Beep"}}])", "step 1: before: an expectation needs"},
        {R"([{"expect": {"method": "Beep"}, "at": 1, "before": 2}])", "step 1: at: an expectation"},
        {R"([{"expect": {"method": "Beep", "count": 0}, "before": 2}])", "step 1: expect.count: expected a whole"},
        {R"([{"at": 1, "heal": "backlight", "before": 2}])", "step 1: before: only an expectation"},
        // Times past a day: a deadline that far overflows the clock.
        {R"([{"at": 1e10, "heal": "backlight"}])", "step 1: at: expected seconds (a number, 0 to 86400)"},
        {R"([{"after": {"method": "Beep"}, "delay": 86401, "heal": "backlight"}])", "step 1: delay: expected seconds"},
        {R"([{"expect": {"method": "Beep"}, "before": 1e300}])", "step 1: before: expected seconds"},
        {R"({"steps": [{"at": 0, "heal": "backlight"}], "end": 1e10})", "scenario: end: expected seconds"},
    };
    for (const Case &c : cases) {
        double end = 0;
        std::string why;
        std::vector<Step> steps = Scenario::parse(Json::parse(c.doc), checks(), end, why);
        if (*c.why == 0) {
            EXPECT_FALSE(steps.empty()) << c.doc << ": " << why;
        } else {
            EXPECT_TRUE(steps.empty()) << c.doc;
            EXPECT_EQ(why.rfind(c.why, 0), 0u) << c.doc << ": " << why;
        }
    }
}

TEST(Scenario, DocumentsAreBoundedInStepsAndBytes)
{
    Json steps = Json::array();
    for (std::size_t i = 0; i <= Scenario::kMaxSteps; ++i)
        steps.push_back({{"at", 0}, {"heal", "backlight"}});
    double end = 0;
    std::string why;
    EXPECT_TRUE(Scenario::parse(steps, checks(), end, why).empty());
    EXPECT_EQ(why, "scenario: steps: 1001 steps; a scenario has at most 1000");
    steps.erase(steps.size() - 1);
    EXPECT_EQ(Scenario::parse(steps, checks(), end, why).size(), Scenario::kMaxSteps);
    EXPECT_EQ(Scenario::too_large(Scenario::kMaxBytes), "");
    EXPECT_EQ(Scenario::too_large(Scenario::kMaxBytes + 1),
              "the scenario is 1048577 bytes; a scenario document has at most 1048576 (1 MiB)");
}

// A scenario whose client went away, or that a reset ended, stops at once
// and says which steps did not run.
TEST(Scenario, EndsWhenToldTo)
{
    CallLog log;
    double end = 0;
    std::string why;
    auto steps = Scenario::parse(Json::parse(R"([{"at": 0, "heal": "backlight"}, {"at": 3600, "reset": true}])"),
                                 checks(), end, why);
    std::atomic<bool> ended{false};
    std::thread client;
    std::string report = Scenario::run(
        steps, end, log,
        [&](const Step &) {
            client = std::thread([&] { ended = true, log.poke(); });
            return std::string();
        },
        [](const Step &, double, const std::string &) {}, &ended);
    client.join();
    EXPECT_EQ(report, "step 2: reset did not run: the scenario ended\n");
}

TEST(Scenario, EndDefaultsToTheLastTimeAndLongerWhenWaiting)
{
    double end = 0;
    std::string why;
    Scenario::parse(Json::parse(R"([{"at": 3, "reset": true}, {"expect": {"method": "Beep"}, "before": 4}])"), checks(),
                    end, why);
    EXPECT_EQ(end, 4);
    Scenario::parse(Json::parse(R"([{"at": 3, "reset": true}, {"after": {"method": "Beep"}, "reset": true}])"),
                    checks(), end, why);
    EXPECT_EQ(end, 13);
}

TEST(Scenario, RunsStepsAfterCallsAndReportsUnmetExpectations)
{
    CallLog log;
    std::vector<std::string> done;
    auto steps_of = [](const char *doc) {
        double end = 0;
        std::string why;
        auto steps = Scenario::parse(Json::parse(doc), checks(), end, why);
        return std::make_pair(steps, end);
    };
    // The call comes from another thread once the scenario has started (its
    // first step starts it): a call before the start does not count.
    auto [steps, end] = steps_of(R"({"steps": [{"at": 0, "heal": "backlight"}, {"after": {"method": "Beep"}, "reset": true},
        {"expect": {"method": "Beep", "args": [1, 2]}, "before": 300}], "end": 300})");
    std::thread app;
    std::string report = Scenario::run(
        steps, end, log,
        [&](const Step &s) {
            if (s.action == "heal")
                app = std::thread([&] { log.add(call("beep", "Beep", {1, 2}), "app"); });
            return done.push_back(s.action), std::string();
        },
        [](const Step &, double, const std::string &) {});
    if (app.joinable())
        app.join();
    EXPECT_EQ(report, "");
    EXPECT_EQ(done, (std::vector<std::string>{"heal", "reset"}));

    auto [unmet, end2] = steps_of(R"([{"expect": {"method": "SetBrightness", "args": [10]}, "before": 0}])");
    log.add(call("backlight", "SetBrightness", {20}), "app");  // before the start: not counted
    report = Scenario::run(unmet, end2, log, [](const Step &) { return std::string(); },
                           [](const Step &, double, const std::string &) {});
    EXPECT_EQ(report, "step 1: expected 1 call(s) of SetBrightness[10] before 0 s; calls of SetBrightness that came: 0\n");
}

TEST(Broadcast, DecodedAsActionAndExtras)
{
    Intent intent("sys.input.keyboard");
    intent.putExtra("key", 28);
    intent.putExtra("who", std::string("panel"));
    EXPECT_EQ(tools::dump_json(intent_json(intent.toString())),
              R"({"action":"sys.input.keyboard","ints":{"key":28},"strings":{"who":"panel"}})");
    EXPECT_EQ(tools::dump_json(intent_json(std::string("\x01\x02", 2))), R"({"bytes":"0102"})");
    // An intent with bytes after it is not what an Intent sends.
    EXPECT_EQ(intent_json(intent.toString() + "x").contains("bytes"), true);
}

TEST(Names, Nearest)
{
    const std::vector<std::string> known = {"GetBrightness", "SetBrightness", "SetBrightnessToMax", "Beep", "Lock"};
    EXPECT_EQ(nearest_names("SetBrightnes", known), "SetBrightness, GetBrightness, SetBrightnessToMax");
    EXPECT_EQ(unknown_name("method", "beap", known), "no method \"beap\" (nearest: Beep, Lock, GetBrightness)");
    // Past 128 bytes refused as it is: four 60,000-byte names once held
    // every service for minutes while the nearest were looked for.
    EXPECT_EQ(unknown_name("method", std::string(128, 'B'), known).substr(0, 12), "no method \"B");
    EXPECT_EQ(unknown_name("method", std::string(60000, 'B'), known), "no method of 60000 bytes (names have at most 128)");
}

}  // namespace
}  // namespace hmisvc::devsim
