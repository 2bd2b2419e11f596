// An HMI application in miniature: asks every system service something,
// changes a few settings, and sends itself a broadcast. Run it where the
// services are (the device, or hmisvc-devsim with hmisvc-servicemanager).
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>
#include <hmisvc/wait.h>

namespace {

template <class Proxy> std::shared_ptr<Proxy> get(const std::string &name) {
    return std::dynamic_pointer_cast<Proxy>(Context::getSystemService(name));
}

void heading(const char *title) { std::cout << "\n== " << title << " ==" << std::endl; }

template <class T> void show(const char *what, const T &value) {
    std::cout << "  " << what << ": " << value << std::endl;
}

// Waits for the one broadcast the demo sends itself.
class Inbox : public BroadcastReceiver {
public:
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override {
        std::lock_guard<std::mutex> lock(mutex_);
        received_ = intent;
        arrived_.notify_all();
    }
    std::shared_ptr<Intent> wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        arrived_.wait_for(lock, timeout, [this] { return received_ != nullptr; });
        return received_;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::shared_ptr<Intent> received_;
};

void system_info() {
    heading("system");
    auto sys = get<SystemManager>(Context::SYSTEM_SERVICE);
    show("HMI name", sys->GetHmiName());
    show("device id", sys->GetDeviceID());
    show("type/series/model", std::to_string(sys->GetDeviceType()) + "/" +
                                  std::to_string(sys->GetDeviceSeries()) + "/" +
                                  std::to_string(sys->GetDeviceModel()));
    show("firmware version", sys->GetVersion("firmware"));
    show("free storage (KiB)", sys->GetStorageFreeSpace());
    show("free RAM (KiB)", sys->GetRamFreeSpace());
    show("USB disk root", sys->GetUDiskRoot());
    show("USB disk mounted", sys->UDiskMounted() ? "yes" : "no");
}

void settings() {
    heading("settings");
    auto s = get<SettingsManager>(Context::SETTINGS_SERVICE);
    show("set demo/greeting", s->SetValue("demo", "greeting", "hello"));
    show("get demo/greeting", s->GetValue("demo", "greeting", "(none)"));
    show("set demo/count", s->SetLongValue("demo", "count", 42));
    show("get demo/count", s->GetLongValue("demo", "count", -1));
    show("get demo/missing", s->GetValue("demo", "missing", "(default)"));
    show("save", s->SaveFile());
}

void backlight_and_beep() {
    heading("backlight");
    auto b = get<BacklightManager>(Context::BACKLIGHT_SERVICE);
    show("brightness", b->GetBrightness());
    show("maximum", b->GetMaxBrightness());
    show("set to 60", b->SetBrightness(60) ? "done" : "refused");
    show("brightness now", b->GetBrightness());
    b->Lock(1);
    show("set to 10 while locked", b->SetBrightness(10) ? "done" : "refused");
    b->Unlock();
    get<BeepManager>(Context::BEEP_SERVICE)->Beep(100, 1);
    show("beep", "sent");
}

void date() {
    heading("date");
    auto d = get<DateManager>(Context::DATE_SERVICE);
    Date now;
    d->GetTime(now);
    std::cout << "  device time: ";
    now.PrintTime();
    show("user may change it", d->Modifiable() ? "yes" : "no");
}

void network() {
    heading("network");
    NetInfo eth;
    auto e = get<EthInfoManager>(Context::ETHINFO_SERVICE);
    if (e->GetEthinfo(eth))
        show("ethernet", eth.text6 + " " + eth.text1 + "/" + eth.text2 + " via " + eth.text3);
    show("ethernet MAC", e->GetEthMac());

    auto p = get<P4gManager>(Context::P4GINFO_SERVICE);
    P4gInfo modem;
    show("4G module", p->GetIs4G() ? "present" : "absent");
    if (p->Get4ginfo(modem))
        show("4G", modem.text1 + ", level " + std::to_string(modem.value));

    auto w = get<WifiManager>(Context::WIFIINFO_SERVICE);
    WifiInfo wifi;
    if (w->GetWifiinfo(wifi))
        show("Wi-Fi", wifi.text1 + " (" + wifi.text6 + ")");
    std::vector<WifiList> networks;
    if (w->GetWifilist(networks))
        for (WifiList &n : networks)
            show("  in range", n.text1 + " " + std::to_string(n.value) + " dBm");

    auto n = get<NetChanageManager>(Context::NETCHANAGE_SERVICE);
    show("current network", n->GetCurrentNet());
    show("its level", n->GetNetLevel());
}

void remote_access() {
    heading("remote access");
    auto r = get<VncFrpVpnManager>(Context::VNCFRPVPN_SERVICE);
    show("VNC password set", r->Set_Vnc_Passwd("operator") ? "yes" : "no");
    show("VNC restarted", r->Vnc_Restart(1) ? "yes" : "no");
    show("VNC flag", r->Get_Vnc_Flag());
    get<VpnManager>(Context::VPN_SERVICE)->Start(1);
    show("VPN", "started");
}

bool broadcast() {
    heading("broadcast");
    static Inbox inbox;
    static IntentFilter filter;
    filter.addAction("hmi.demo.hello");
    BroadcastService *service = Context::CreateBroadcastService();
    service->registerReceiver(&inbox, &filter);

    Intent hello("hmi.demo.hello");
    hello.putExtra("screen", 3);
    hello.putExtra("user", std::string("operator"));
    // The endpoint announces itself on its own thread: a broadcast sent
    // before it receives would be lost.
    if (!hmisvc::waitForReceiving(service, std::chrono::seconds(5))) {
        std::cout << "  the endpoint did not start receiving" << std::endl;
        return false;
    }
    Context::SendBroadcast(hello);
    if (auto got = inbox.wait(std::chrono::seconds(5))) {
        std::cout << "  received:" << std::endl;
        got->printExtras();
        return true;
    }
    std::cout << "  nothing arrived" << std::endl;
    return false;
}

} // namespace

int main() {
    std::cout << "hmi-demo: talking to the system services" << std::endl;
    // A proxy built before its service is up stays unusable: wait first.
    if (!hmisvc::waitForService(Context::SYSTEM_SERVICE, std::chrono::seconds(5))) {
        std::cerr << "hmi-demo: the \"system\" service is not running" << std::endl;
        return 1;
    }
    system_info();
    settings();
    backlight_and_beep();
    date();
    network();
    remote_access();
    const bool ok = broadcast();
    std::cout << "\nhmi-demo: " << (ok ? "done" : "done, but the broadcast did not arrive") << std::endl;
    return ok ? 0 : 1;
}
