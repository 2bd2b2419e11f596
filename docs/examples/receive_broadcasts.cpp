// Receive broadcasts: one broadcast service per process, receivers that
// return quickly, and a wait before the first broadcast is expected.
#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/wait.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

// onReceive runs on a new thread per delivery: copy what you need and
// hand it over; never block here.
class SettingsRequests : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        page = intent->getIntExtra("page", 0); // the intent is shared: read only
        arrived.notify_all();
    }
    std::mutex mutex;
    std::condition_variable arrived;
    int page = -1;
};

int main()
{
    // Receiver and filter live as long as the broadcast service: for good.
    static SettingsRequests receiver;
    static IntentFilter filter;
    filter.addAction(Intent::ACTION_SHOW_SETTINGS);

    BroadcastService *service = Context::CreateBroadcastService(); // never deleted
    service->registerReceiver(&receiver, &filter);
    // Broadcasts sent before the endpoint receives are lost.
    if (!hmisvc::waitForReceiving(service, std::chrono::seconds(5)))
        return 1;

    Intent request(Intent::ACTION_SHOW_SETTINGS);
    request.putExtra("page", 2);
    Context::SendBroadcast(request); // to every endpoint of the device, this one included

    std::unique_lock<std::mutex> lock(receiver.mutex);
    if (!receiver.arrived.wait_for(lock, std::chrono::seconds(5), [] { return receiver.page >= 0; }))
        return 1;
    std::cout << "show settings page " << receiver.page << std::endl;
    return 0;
}
