// Supervised: a call with a time limit whose result tells a failure from an
// answer, and broadcasts that keep arriving when the broadcast service
// restarts, handled on one thread of the layer's.
#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/receiving.h>
#include <hmisvc/service.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

using namespace std::chrono_literals;

// Runs on the Receiving's handler thread, one delivery at a time: it may
// take its time; what arrives meanwhile waits in the queue.
class SettingsRequests : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        std::printf("show settings page %d\n", intent->getIntExtra("page", 0));
    }
};

int main()
{
    hmisvc::ServiceOptions options;
    options.callLimit = 300ms; // a stopped service costs 300 ms, not a hang
    options.onStateChange = [](hmisvc::ServiceChange change) { // on a thread of the layer's
        std::printf("backlight %s%s\n", hmisvc::serviceStateName(change.state()),
                    change.recovered() ? " again" : ""); // the first answer is change.firstUp()
    };
    hmisvc::Service<BacklightManager> backlight(options); // looks the service up on the first call

    const hmisvc::Result<int> level = backlight.call(&BacklightManager::GetBrightness);
    if (!level) { // no value at all, not -1
        std::printf("no brightness: %s\n", hmisvc::outcomeName(level.outcome()));
        return 1;
    }
    std::printf("brightness %d\n", *level);

    IntentFilter filter; // receiver and filter outlive the Receiving: made before it
    filter.addAction(Intent::ACTION_SHOW_SETTINGS);
    SettingsRequests receiver;
    hmisvc::Receiving receiving; // its own endpoint, one handler thread, 1024 queued deliveries
    receiving.registerReceiver(&receiver, &filter);
    if (!receiving.start(5s)) // true once broadcasts sent now arrive
        return 1;

    Intent request(Intent::ACTION_SHOW_SETTINGS);
    request.putExtra("page", 2);
    Context::SendBroadcast(request);
    for (int i = 0; i < 50 && receiving.stats().handled == 0; ++i)
        std::this_thread::sleep_for(100ms);
    return receiving.stats().handled == 1 ? 0 : 1;
}
