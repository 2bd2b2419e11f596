// Call a service: wait until it is registered, get its proxy, call it.
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/wait.h>

#include <chrono>
#include <iostream>
#include <memory>

int main()
{
    // A proxy built before its service is registered stays unusable.
    if (!hmisvc::waitForService(Context::BACKLIGHT_SERVICE, std::chrono::seconds(5))) {
        std::cerr << "no backlight service" << std::endl;
        return 1;
    }
    // Keep the proxy: each getSystemService() opens a new connection.
    auto backlight = std::dynamic_pointer_cast<BacklightManager>(
        Context::getSystemService(Context::BACKLIGHT_SERVICE));

    const int level = backlight->GetBrightness(); // -1 when the call failed
    const int max = backlight->GetMaxBrightness();
    if (level < 0 || max < 0)
        return 1; // the failure line is already on standard output
    std::cout << "brightness " << level << " of " << max << std::endl;
    return backlight->SetBrightness(max / 2) ? 0 : 1;
}
