#include "device_state.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

using namespace hmisvc::devsim;
using namespace std::chrono;

TEST(Backlight, SetAnswersFalseAndKeepsTheLevelOutOfRangeOrLocked)
{
    const struct {
        bool locked;
        int32_t level;
        bool ok;
        int32_t after;
    } cases[] = {
        {false, 0, true, 0},    {false, 100, true, 100}, {false, 55, true, 55}, {false, -1, false, 80},
        {false, 101, false, 80}, {true, 55, false, 80},   {true, 80, false, 80},
    };
    for (const auto &c : cases) {
        Backlight b(100, 80);
        if (c.locked)
            b.lock(3);
        EXPECT_EQ(b.set(c.level), c.ok) << c.level << (c.locked ? " locked" : "");
        EXPECT_EQ(b.level(), c.after) << c.level << (c.locked ? " locked" : "");
    }
}

TEST(Backlight, ToMaxFollowsTheLockAndUnlockReleasesIt)
{
    Backlight b(255, 10);
    b.lock(1);
    EXPECT_FALSE(b.set_to_max());
    EXPECT_EQ(b.level(), 10);
    b.unlock();
    EXPECT_TRUE(b.set_to_max());
    EXPECT_EQ(b.level(), 255);
}

// Dates are local time; the tests pin the zone so the expectations hold
// anywhere.
class ClockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char *tz = std::getenv("TZ");
        saved = tz ? tz : "";
        had_tz = tz != nullptr;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override
    {
        if (had_tz)
            setenv("TZ", saved.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

    static Date date(int year, int month, int day, int hour, int minute, int second, int ms, int extra = 0)
    {
        Date d;
        d.year = year, d.month = month, d.day = day, d.hour = hour, d.minute = minute, d.second = second;
        d.subsecond = ms, d.extra = extra;
        return d;
    }
    static void expect_date(const Date &d, const Date &want)
    {
        EXPECT_EQ(const_cast<Date &>(d).toString(), const_cast<Date &>(want).toString())
            << d.year << "-" << d.month << "-" << d.day << " " << d.hour << ":" << d.minute << ":" << d.second
            << "." << d.subsecond << " wd" << d.extra;
    }

    // 2024-05-17 09:03:07.250 UTC, a Friday.
    Clock::TimePoint host = Clock::TimePoint(milliseconds(1715936587250));
    Clock clock{[this] { return host; }};
    std::string saved;
    bool had_tz = false;
};

TEST_F(ClockTest, ReadsTheHostTimeWithMillisecondsMonthFromOneAndWeekday)
{
    expect_date(clock.now(), date(2024, 5, 17, 9, 3, 7, 250, 5));
}

TEST_F(ClockTest, SetTimeKeepsAnOffsetThatRunsOnWithTheHostClock)
{
    ASSERT_TRUE(clock.set(date(2000, 2, 29, 12, 0, 0, 500, 6)));  // extra is ignored
    expect_date(clock.now(), date(2000, 2, 29, 12, 0, 0, 500, 2));
    host += milliseconds(1500);
    expect_date(clock.now(), date(2000, 2, 29, 12, 0, 2, 0, 2));
    host += hours(12);
    expect_date(clock.now(), date(2000, 3, 1, 0, 0, 2, 0, 3));
}

TEST_F(ClockTest, TimesBeforeTheEpochKeepAPositiveSubsecond)
{
    ASSERT_TRUE(clock.set(date(1969, 12, 31, 23, 59, 59, 750)));
    expect_date(clock.now(), date(1969, 12, 31, 23, 59, 59, 750, 3));
}

TEST_F(ClockTest, InvalidDatesChangeNothing)
{
    const Date bad[] = {
        date(2023, 2, 29, 0, 0, 0, 0), date(2024, 4, 31, 0, 0, 0, 0), date(2024, 13, 1, 0, 0, 0, 0),
        date(2024, 0, 1, 0, 0, 0, 0),  date(2024, 1, 0, 0, 0, 0, 0),  date(2024, 1, 1, 24, 0, 0, 0),
        date(2024, 1, 1, 0, 60, 0, 0), date(2024, 1, 1, 0, 0, 60, 0), date(2024, 1, 1, 0, 0, 0, 1000),
        date(2024, 1, 1, 0, 0, 0, -1), date(1899, 1, 1, 0, 0, 0, 0),  date(2024, INT32_MIN, 1, 0, 0, 0, 0),
    };
    for (const Date &d : bad) {
        EXPECT_FALSE(clock.set(d)) << d.year << "-" << d.month << "-" << d.day << " " << d.hour << ":"
                                   << d.minute << ":" << d.second << "." << d.subsecond;
        EXPECT_EQ(clock.offset(), milliseconds(0));
    }
}

TEST(Network, WifiJoinsAListedNetworkWithAPasswordOfEightOrMore)
{
    const struct {
        const char *ssid, *password;
        int32_t answer;
    } cases[] = {
        {"Workshop", "12345678", Network::kConnected},
        {"Workshop", "a much longer passphrase", Network::kConnected},
        {"Workshop", "1234567", Network::kBadPassword},
        {"Workshop", "", Network::kBadPassword},
        {"workshop", "12345678", Network::kUnknownNetwork},
        {"Nowhere", "12345678", Network::kUnknownNetwork},
        {"", "12345678", Network::kUnknownNetwork},
    };
    for (const auto &c : cases) {
        Network n;
        ASSERT_EQ(n.connect("Guest", "guestpass", 0), Network::kConnected);
        EXPECT_EQ(n.connect(c.ssid, c.password, 1), c.answer) << c.ssid << " / " << c.password;
        // A refused attempt keeps the connection there was.
        EXPECT_EQ(n.wifi().text1, c.answer == Network::kConnected ? "Workshop" : "Guest") << c.ssid;
    }
}

TEST(Network, WifiInfoFollowsConnectAndDisconnect)
{
    Network n;
    EXPECT_EQ(n.wifi().text1, "");
    EXPECT_EQ(n.wifi().text6, "disconnected");
    EXPECT_FALSE(n.disconnect()) << "nothing to drop";

    ASSERT_EQ(n.connect("Line-3-AP", "wep-key-123", 0), Network::kConnected);
    WifiInfo info = n.wifi();
    EXPECT_EQ(info.text1, "Line-3-AP");
    EXPECT_EQ(info.text5, "00:0e:8e:7a:8b:9c");
    EXPECT_EQ(info.text6, "connected");
    EXPECT_EQ(info.value, -84);

    EXPECT_TRUE(n.disconnect());
    EXPECT_EQ(n.wifi().text6, "disconnected");
    EXPECT_EQ(n.wifi().value, 0);
}

TEST(Network, CurrentNetIsThePreferredOneWhenUpElseEthernet)
{
    Network n;
    EXPECT_EQ(n.current(), Network::kEthernet);
    EXPECT_EQ(n.level(), 5);

    EXPECT_TRUE(n.set_first(Network::kWifi));
    EXPECT_EQ(n.current(), Network::kEthernet) << "Wi-Fi preferred but not joined";
    n.connect("Line-3-AP", "wep-key-123", 0);
    EXPECT_EQ(n.current(), Network::kWifi);
    EXPECT_EQ(n.level(), 1);  // -84 dBm

    EXPECT_TRUE(n.set_first(Network::k4G));
    EXPECT_EQ(n.current(), Network::k4G);
    EXPECT_EQ(n.level(), n.modem().value);

    EXPECT_FALSE(n.set_first(3));
    EXPECT_FALSE(n.set_first(-1));
    EXPECT_EQ(n.first(), Network::k4G);
}

TEST(Network, SignalLevelsFromDbm)
{
    const std::pair<int32_t, int32_t> cases[] = {{-30, 5}, {-50, 5}, {-51, 4}, {-63, 3}, {-90, 1}, {-91, 0}, {-120, 0}};
    for (auto [dbm, level] : cases)
        EXPECT_EQ(Network::level_of(dbm), level) << dbm;
}

}  // namespace
