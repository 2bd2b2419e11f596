// Waits and scenarios held for clients: ended when the client goes away or
// on reset, never left to keep a place.
#include "holds.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

namespace hmisvc::devsim {
namespace {

// Waits on the log, as a wait for a call does, until the hold ends (true)
// or a minute passes (false).
bool ends(CallLog &log, const Holds::Ticket &hold)
{
    std::vector<std::string> matched;
    CallFilter none;
    none.method = "never";
    log.wait(none, 1, std::chrono::steady_clock::now() + std::chrono::minutes(1), matched, &hold->ended);
    return hold->ended;
}

TEST(Holds, EndWhenTheirClientGoesAway)
{
    struct Case {
        const char *name;
        std::function<void(HoldClient &client, std::function<void()> &go_away)> make;
    };
    const Case cases[] = {
        {"a process that is killed",
         [](HoldClient &client, std::function<void()> &go_away) {
             pid_t child = fork();
             if (child == 0) {
                 pause();
                 _exit(0);
             }
             client.pid = child;
             go_away = [child] { kill(child, SIGKILL), waitpid(child, nullptr, 0); };
         }},
        {"a connection that is closed",
         [](HoldClient &client, std::function<void()> &go_away) {
             int pair[2];
             ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
             client.fd = pair[0];
             go_away = [pair] { close(pair[1]), close(pair[0]); };
         }},
    };
    for (const Case &c : cases) {
        CallLog log;
        Holds holds(log);
        std::function<void()> go_away;
        c.make(Holds::client(), go_away);
        Holds::Ticket hold = holds.take();
        Holds::client() = {};
        ASSERT_TRUE(hold) << c.name;
        EXPECT_FALSE(hold->ended) << c.name;
        std::thread away(go_away);
        EXPECT_TRUE(ends(log, hold)) << c.name;
        away.join();
        EXPECT_EQ(hold->why, "its client went away") << c.name;
        holds.release(hold);
        EXPECT_EQ(holds.held(), 0) << c.name;
    }
}

TEST(Holds, AtMostSixteenAndResetEndsAllButItsOwn)
{
    CallLog log;
    Holds holds(log);
    std::vector<Holds::Ticket> taken;
    for (int i = 0; i < Holds::kMax - 1; ++i)
        taken.push_back(holds.take());
    Holds::Ticket own = holds.take();
    ASSERT_TRUE(own);
    EXPECT_FALSE(holds.take()) << "a seventeenth";
    // From another thread: ends every one but the one it holds itself.
    std::thread([&] { holds.end_all("the device was reset"); }).join();
    for (const Holds::Ticket &t : taken)
        EXPECT_TRUE(t->ended && t->why == "the device was reset");
    EXPECT_TRUE(own->ended);
    Holds::Ticket mine = (holds.release(own), holds.take());
    holds.end_all("a scenario's own reset step");
    EXPECT_FALSE(mine->ended);
    for (const Holds::Ticket &t : taken)
        holds.release(t);
    EXPECT_EQ(holds.held(), 1);
}

}  // namespace
}  // namespace hmisvc::devsim
