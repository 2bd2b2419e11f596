// A console HMI in miniature, made to be tested: it reads the operator's
// commands on standard input ("brightness N", "quit") and prints what its
// screen would show: the backlight's state ("service down", "reconnected"),
// the Wi-Fi networks in range as they change, and the messages broadcast to
// it ("hmi.console.message", string extra "text").
#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <hmisvc/broadcast.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>
#include <hmisvc/receiving.h>
#include <hmisvc/service.h>
#include <hmisvc/wait.h>

using namespace std::chrono_literals;

namespace {

std::mutex screen;

void show(const std::string &line)
{
    std::lock_guard<std::mutex> lock(screen);
    std::cout << line << std::endl;
}

class Messages : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        show("message: " + intent->getStringExtra("text"));
    }
};

// The networks in range, or "none" when the Wi-Fi service is gone.
std::string networks(hmisvc::Service<WifiManager> &wifi)
{
    std::vector<WifiList> list;
    if (!hmisvc::waitForService(Context::WIFIINFO_SERVICE, 0ms) || !wifi.call(&WifiManager::GetWifilist, list).valueOr(false))
        return "none";
    std::string names;
    for (const WifiList &n : list)
        names += (names.empty() ? "" : " ") + n.text1;
    return names.empty() ? "none" : names;
}

} // namespace

int main()
{
    hmisvc::ServiceOptions options;
    options.callLimit = 1s;
    options.onStateChange = [](hmisvc::ServiceChange change) {
        if (change.state() == hmisvc::ServiceState::Down)
            show("backlight: service down");
        else if (change.recovered())
            show("backlight: reconnected");
    };
    hmisvc::Service<BacklightManager> backlight(options);
    hmisvc::Service<WifiManager> wifi;

    Messages messages;
    IntentFilter filter;
    filter.addAction("hmi.console.message");
    hmisvc::Receiving receiving;
    receiving.registerReceiver(&messages, &filter);
    if (!receiving.start(5s)) {
        std::cerr << "hmi-console: broadcasts do not arrive (is the device running?)" << std::endl;
        return 1;
    }

    // The screen refreshes itself: the backlight's level and the networks;
    // "ready" once it shows them.
    std::string shown;
    auto refresh = [&] {
        backlight.call(&BacklightManager::GetBrightness);
        if (std::string now = networks(wifi); now != shown)
            show("wifi: " + (shown = now));
    };
    refresh();
    show("ready");
    std::atomic<bool> running{true};
    std::thread refreshing([&] {
        while (running) {
            std::this_thread::sleep_for(100ms);
            refresh();
        }
    });

    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        int level = 0;
        words >> command;
        if (command == "quit")
            break;
        if (command == "brightness" && words >> level) {
            auto done = backlight.call(&BacklightManager::SetBrightness, level);
            show(done.valueOr(false) ? "brightness " + std::to_string(level) : "brightness not set: " +
                                                                   std::string(hmisvc::outcomeName(done.outcome())));
        } else if (!command.empty()) {
            show("unknown command: " + line + " (brightness N, quit)");
        }
    }
    running = false;
    refreshing.join();
    return 0;
}
