#include "panel_server.h"

#include <gtest/gtest.h>

namespace hmisvc::devsim {
namespace {

TEST(PanelAddress, ParsesAddressAndPortOrSaysWhatIsWrong)
{
    struct Case {
        const char *text;
        bool ok;
        const char *host;
        int port;
    } cases[] = {
        {"8080", true, "127.0.0.1", 8080},   {"0", true, "127.0.0.1", 0},
        {"0.0.0.0:80", true, "0.0.0.0", 80}, {"[::1]:9000", true, "::1", 9000},
        {"65536", false, "", 0},             {"http", false, "", 0},
        {":80", false, "", 0},               {"127.0.0.1:", false, "", 0},
        {"-1", false, "", 0},                {"", false, "", 0},
    };
    for (const Case &c : cases) {
        HttpAddress a;
        std::string why;
        ASSERT_EQ(HttpAddress::parse(c.text, a, why), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(a.host, c.host);
            EXPECT_EQ(a.port, c.port);
        } else {
            EXPECT_NE(why.find("--http"), std::string::npos) << why;
        }
    }
}

// A page served under a rebound domain name must not reach the panel.
TEST(PanelAddress, AcceptsOnlyAddressesAndLocalhostAsHost)
{
    for (const char *ok : {"127.0.0.1:8080", "localhost:8080", "localhost", "[::1]:8080", "10.0.2.15:1"})
        EXPECT_TRUE(panel_host_allowed(ok)) << ok;
    for (const char *bad : {"", "evil.example:8080", "localhost.evil.example", "127.0.0.1.nip.io:80", "localhost:x",
                            "[evil.example]", "[evil.example]:80", "[::1]evil", "[::1]:x", "[]:80"})
        EXPECT_FALSE(panel_host_allowed(bad)) << bad;
}

}  // namespace
}  // namespace hmisvc::devsim
