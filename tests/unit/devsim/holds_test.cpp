// Waits and scenarios held for clients: a reset ends all but its own. That
// a client going away ends its hold is check-hold's, on the driver (a
// process) and through the panel (a connection).
#include "holds.h"

#include <gtest/gtest.h>

#include <thread>

namespace hmisvc::devsim {
namespace {

TEST(Holds, AtMostSixteenAndResetEndsAllButItsOwn)
{
    CallLog log;
    Holds holds(log);
    std::vector<Holds::Ticket> taken;
    for (int i = 0; i < Holds::kMax; ++i)
        taken.push_back(holds.take());
    EXPECT_FALSE(holds.take()) << "a seventeenth";
    holds.end_all("a scenario's own reset step");  // this thread took them all
    EXPECT_FALSE(taken[0]->ended);
    std::thread([&] { holds.end_all("the device was reset"); }).join();
    for (const Holds::Ticket &t : taken)
        EXPECT_TRUE(t->ended && t->why == "the device was reset");
}

}  // namespace
}  // namespace hmisvc::devsim
