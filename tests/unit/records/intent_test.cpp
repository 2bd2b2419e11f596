#include <hmisvc/broadcast.h>

#include <gtest/gtest.h>

#include <functional>
#include <utility>
#include <vector>

#include "wire.h"

using namespace wire;

namespace {

using Ints = std::vector<std::pair<std::string, int>>;
using Strings = std::vector<std::pair<std::string, std::string>>;

Intent makeIntent(std::string action, const Ints &ints, const Strings &strings)
{
    Intent intent(std::move(action));
    for (const auto &[key, value] : ints)
        intent.putExtra(key, value);
    for (const auto &[key, value] : strings)
        intent.putExtra(key, value);
    return intent;
}

// The whole content of an intent: its encoding is one-to-one with it.
std::string content(Intent intent) { return hex(intent.toString()); }

std::string printed(Intent intent)
{
    return captureStdout([&] { intent.printExtras(); });
}

const std::string kNul("\0", 1);

TEST(IntentWire, GoldenEncodings)
{
    struct Case {
        const char *name;
        Intent intent;
        std::string hexBytes;
    };
    const Case cases[] = {
        {"one int extra", makeIntent("a", {{"k", 5}}, {}),
         "01 00 00 00 00 00 00 00 61 01 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 6B 05 00 00 00 "
         "00 00 00 00 00 00 00 00"},
        {"default", Intent(),
         "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
        {"keys in byte order, a proper prefix first",
         makeIntent("", {{"b", 1}, {"a", -2}, {"ab", 3}}, {{"b", "x"}, {"ab", ""}}),
         "00 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00 "
         "01 00 00 00 00 00 00 00 61 FE FF FF FF "
         "02 00 00 00 00 00 00 00 61 62 03 00 00 00 "
         "01 00 00 00 00 00 00 00 62 01 00 00 00 "
         "02 00 00 00 00 00 00 00 "
         "02 00 00 00 00 00 00 00 61 62 00 00 00 00 00 00 00 00 "
         "01 00 00 00 00 00 00 00 62 01 00 00 00 00 00 00 00 78"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(content(c.intent), hex(bytes(c.hexBytes)));
        Intent decoded = makeIntent("stale", {{"z", 9}}, {{"y", "w"}});
        decoded.fromString(bytes(c.hexBytes) + "\x01trailing");
        EXPECT_EQ(content(decoded), content(c.intent));
    }
}

TEST(IntentWire, RoundTripKeepsEmptyKeysValuesAndZeroBytes)
{
    Intent sent = makeIntent("act" + kNul + "ion", {{"", -1}, {kNul, 2}, {"k" + kNul, 3}, {"shared", 4}},
                             {{"", ""}, {"v", "a" + kNul + "b"}, {"shared", kNul}});
    Intent received = makeIntent("stale", {{"z", 9}}, {{"y", "w"}});
    received.fromString(sent.toString());
    EXPECT_EQ(content(received), content(sent));
    EXPECT_EQ(received.getAction(), "act" + kNul + "ion");
    EXPECT_EQ(received.getIntExtra("", 0), -1);
    EXPECT_EQ(received.getIntExtra(kNul, 0), 2);
    EXPECT_EQ(received.getIntExtra("shared", 0), 4);
    EXPECT_EQ(received.getStringExtra("v"), "a" + kNul + "b");
    EXPECT_EQ(received.getStringExtra("shared"), kNul);
}

TEST(IntentWire, DuplicateKeysOnTheWireKeepTheFirstValue)
{
    Intent intent;
    intent.fromString(bytes("00 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 "
                            "01 00 00 00 00 00 00 00 6B 01 00 00 00 "
                            "01 00 00 00 00 00 00 00 6B 02 00 00 00 "
                            "02 00 00 00 00 00 00 00 "
                            "01 00 00 00 00 00 00 00 73 01 00 00 00 00 00 00 00 31 "
                            "01 00 00 00 00 00 00 00 73 01 00 00 00 00 00 00 00 32"));
    EXPECT_EQ(content(intent), content(makeIntent("", {{"k", 1}}, {{"s", "1"}})));
}

TEST(IntentWire, SizeFieldsAboveThirtyTwoBits)
{
    // A string's length is its lower half.
    Intent intent;
    intent.fromString(bytes("03 00 00 00 01 00 00 00 61 62 63 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
    EXPECT_EQ(intent.getAction(), "abc");

    // A map's count is taken whole, as the device's wrapping loop counter
    // does: the entries are read until the bytes run out.
    Intent counted;
    EXPECT_EQ(decodeError(counted, bytes("00 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 "
                                         "01 00 00 00 00 00 00 00 6B 05 00 00 00")),
              readError(8, 0));
    EXPECT_EQ(counted.getIntExtra("k", 0), 5);
}

// Decoding "act" {a:1, b:2} {s:"v"} over "older-action" {z:9} {y:"w"}, cut
// short: what arrived stays, a string whose bytes are not all there is
// unchanged, a map is cleared once its count is in and holds the entries
// that arrived whole.
TEST(IntentWire, ShortInputOfEveryLengthFailsAndLeavesWhatArrived)
{
    const std::string encoded = makeIntent("act", {{"a", 1}, {"b", 2}}, {{"s", "v"}}).toString();
    ASSERT_EQ(encoded.size(), 71u);
    // Each read the decoder makes, in bytes: action, int count, two int
    // entries, string count, one string entry.
    const std::size_t reads[] = {8, 3, 8, 8, 1, 4, 8, 1, 4, 8, 8, 1, 8, 1};
    const Ints staleInts = {{"z", 9}};
    const Strings staleStrings = {{"y", "w"}};
    // From this many bytes on, the intent holds this.
    const std::vector<std::pair<std::size_t, std::function<Intent(std::size_t)>>> stages = {
        {0, [&](std::size_t) { return makeIntent("older-action", staleInts, staleStrings); }},
        {11, [&](std::size_t) { return makeIntent("act", staleInts, staleStrings); }},
        {19, [&](std::size_t) { return makeIntent("act", {}, staleStrings); }},
        {32, [&](std::size_t) { return makeIntent("act", {{"a", 1}}, staleStrings); }},
        {45, [&](std::size_t) { return makeIntent("act", {{"a", 1}, {"b", 2}}, staleStrings); }},
        {53, [&](std::size_t) { return makeIntent("act", {{"a", 1}, {"b", 2}}, {}); }},
    };
    for (std::size_t cut = 0; cut < encoded.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        std::size_t at = 0;
        std::string expectedError;
        for (std::size_t size : reads) {
            if (at + size > cut) {
                expectedError = readError(size, cut - at);
                break;
            }
            at += size;
        }
        std::size_t stage = 0;
        while (stage + 1 < stages.size() && stages[stage + 1].first <= cut)
            ++stage;

        Intent received = makeIntent("older-action", staleInts, staleStrings);
        EXPECT_EQ(decodeError(received, encoded.substr(0, cut)), expectedError);
        EXPECT_EQ(content(received), content(stages[stage].second(cut)));
    }
}

TEST(IntentExtras, PutNeverOverwritesAndMapsAreIndependent)
{
    Intent intent;
    intent.putExtra("k", 1);
    intent.putExtra("k", 2);
    intent.putExtra("k", std::string("first"));
    intent.putExtra("k", std::string("second"));
    EXPECT_EQ(intent.getIntExtra("k", 0), 1);
    EXPECT_EQ(intent.getStringExtra("k"), "first");
    EXPECT_EQ(intent.getIntExtra("missing", -7), -7);
    EXPECT_EQ(intent.getStringExtra("missing"), "");
}

TEST(IntentExtras, ActionAndConstants)
{
    EXPECT_EQ(Intent().getAction(), "");
    Intent intent(Intent::ACTION_UDISK);
    EXPECT_EQ(intent.getAction(), "action.sys.udisk");
    intent.setAction("other");
    EXPECT_EQ(intent.getAction(), "other");
    EXPECT_EQ(Intent::ACTION_KEYBOARD, "sys.input.keyboard");
    EXPECT_EQ(Intent::ACTION_SHOW_SETTINGS, "hmi.action.show.settings");
}

TEST(IntentPrint, PrintsActionThenEachMapInKeyOrder)
{
    EXPECT_EQ(printed(Intent()), "Intent:    \nint: \nstring: \n");
    EXPECT_EQ(printed(makeIntent("go", {{"b", 1}, {"a", -2}, {"ab", 3}}, {{"s", "v w"}, {"", ""}})),
              "Intent:    go\n"
              "int: \n"
              "           a:-2\n"
              "           ab:3\n"
              "           b:1\n"
              "string: \n"
              "           :\n"
              "           s:v w\n");
}

} // namespace
