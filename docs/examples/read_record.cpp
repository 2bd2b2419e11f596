// Read a record: the proxy fills the caller's record in place.
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

int main()
{
    auto wifi = std::dynamic_pointer_cast<WifiManager>(Context::getSystemService(Context::WIFIINFO_SERVICE));
    try {
        WifiInfo now;
        if (wifi->GetWifiinfo(now)) // false: the call failed and `now` is untouched
            std::cout << "Wi-Fi " << now.text1 << " (" << now.text6 << ")" << std::endl;

        std::vector<WifiList> networks; // appended to, not cleared
        if (wifi->GetWifilist(networks))
            for (const WifiList &n : networks)
                std::cout << n.text1 << " " << n.value << " dBm" << std::endl;

        // The MAC and CCID getters throw instead of returning on failure.
        std::cout << "MAC " << wifi->GetWifiMac() << std::endl;
    } catch (const std::logic_error &e) {
        std::cerr << "no MAC address: " << e.what() << std::endl;
        return 1;
    } catch (const std::runtime_error &e) { // cereal::Exception: a record that does not decode
        std::cerr << "malformed record: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
