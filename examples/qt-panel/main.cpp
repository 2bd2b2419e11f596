// An operator panel as HMI applications are written on this library: a
// brightness slider, the Wi-Fi networks in range, and the last "show
// settings" broadcast.
//
// Two rules shape it. Proxy calls block until the service answers, with no
// time limit, so they never run on the GUI thread: one service thread owns
// the proxies and hands results back with queued calls. Receivers run on
// threads the library starts, so onReceive copies what it needs out of the
// intent and hands it to the GUI thread the same way.
//
//   qt-panel [--set-brightness N] [--print-state]
//
// --set-brightness moves the slider once the panel is up, as a user would;
// --print-state prints what the panel shows once it has loaded (and applied
// the brightness, and received one broadcast) and quits: for scripts and
// tests, together with QT_QPA_PLATFORM=offscreen.
#include <QApplication>
#include <QCommandLineParser>
#include <QLabel>
#include <QListWidget>
#include <QSignalBlocker>
#include <QSlider>
#include <QThread>
#include <QVBoxLayout>
#include <QWidget>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>
#include <hmisvc/records.h>
#include <hmisvc/wait.h>

namespace {

using namespace std::chrono_literals;

// Runs posted work in order on a thread of its own. Its stack is ample: a
// proxy call alone needs more than 40 KB.
class ServiceThread {
public:
    ServiceThread()
    {
        thread_.setStackSize(512 * 1024);
        thread_.start();
        context_.moveToThread(&thread_);
    }
    ~ServiceThread()
    {
        thread_.quit();
        thread_.wait();
    }
    template <class F> void post(F work) { QMetaObject::invokeMethod(&context_, std::move(work), Qt::QueuedConnection); }

private:
    QThread thread_;
    QObject context_;
};

// Hands each intent to the GUI thread; the intent itself stays here.
class PanelReceiver : public BroadcastReceiver {
public:
    explicit PanelReceiver(QObject *gui, std::function<void(QString)> show) : gui_(gui), show_(std::move(show)) {}
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        const QString text = QString::fromStdString(intent->getAction()) +
                             QString(" page=%1").arg(intent->getIntExtra("page", 0));
        QMetaObject::invokeMethod(gui_, [this, text] { show_(text); }, Qt::QueuedConnection);
    }

private:
    QObject *gui_;
    std::function<void(QString)> show_;
};

class Panel : public QWidget {
public:
    Panel(int set_brightness, bool print_state)
        : set_brightness_(set_brightness), print_state_(print_state),
          receiver_(this, [this](QString text) { show_broadcast(text); })
    {
        setWindowTitle("Panel");
        auto *layout = new QVBoxLayout(this);
        layout->addWidget(new QLabel("Brightness"));
        slider_->setOrientation(Qt::Horizontal);
        slider_->setTracking(false); // one call when the finger lifts, not per step
        slider_->setEnabled(false);
        layout->addWidget(slider_);
        layout->addWidget(level_);
        layout->addWidget(new QLabel("Wi-Fi networks"));
        layout->addWidget(wifi_);
        layout->addWidget(broadcast_);
        broadcast_->setText("no broadcast yet");
        connect(slider_, &QSlider::valueChanged, this, [this](int value) { apply_brightness(value); });
        filter_.addAction(Intent::ACTION_SHOW_SETTINGS);
        services_.post([this] { load(); });
    }

private:
    // On the service thread: every proxy call of the panel happens here.
    void load()
    {
        if (!hmisvc::waitForService(Context::BACKLIGHT_SERVICE, 10s)) {
            gui([this] { fail(level_, "backlight service not running"); });
            return;
        }
        backlight_ = std::dynamic_pointer_cast<BacklightManager>(Context::getSystemService(Context::BACKLIGHT_SERVICE));
        const int max = backlight_->GetMaxBrightness();
        const int level = backlight_->GetBrightness();
        gui([this, max, level] { show_brightness(level, max); });

        std::vector<WifiList> networks;
        if (auto wifi = std::dynamic_pointer_cast<WifiManager>(Context::getSystemService(Context::WIFIINFO_SERVICE)))
            wifi->GetWifilist(networks);
        QStringList rows;
        // The simulator fills text1 with the SSID and value with the signal
        // in dBm; the device's service defines its own fields.
        for (WifiList &n : networks)
            rows << QString("%1 (%2 dBm)").arg(QString::fromStdString(n.text1)).arg(n.value);
        gui([this, rows] {
            wifi_->addItems(rows);
            done_loading();
        });

        BroadcastService *service = Context::CreateBroadcastService();
        service->registerReceiver(&receiver_, &filter_);
        if (!hmisvc::waitForReceiving(service, 10s)) {
            gui([this] { fail(broadcast_, "broadcasts do not arrive"); });
            return;
        }
        gui([this] {
            if (print_state_) {
                std::printf("receiving\n"); // a broadcast sent from now on arrives
                std::fflush(stdout);
            }
            done_loading();
        });
    }

    void apply_brightness(int value)
    {
        level_->setText("setting...");
        services_.post([this, value] {
            backlight_->SetBrightness(value);
            const int level = backlight_->GetBrightness();
            const int max = backlight_->GetMaxBrightness();
            gui([this, level, max] {
                show_brightness(level, max);
                brightness_applied_ = true;
                maybe_print();
            });
        });
    }

    // On the GUI thread from here on.
    template <class F> void gui(F work) { QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection); }

    void show_brightness(int level, int max)
    {
        const QSignalBlocker quiet(slider_); // showing the level is not a change
        slider_->setRange(0, max);
        slider_->setValue(level);
        slider_->setEnabled(level >= 0);
        level_->setText(level >= 0 ? QString("%1 of %2").arg(level).arg(max) : "unavailable");
    }

    // Shown in the panel; a --print-state run ends there, unsuccessfully.
    void fail(QLabel *where, const QString &what)
    {
        where->setText(what);
        if (!print_state_)
            return;
        std::fprintf(stderr, "qt-panel: %s\n", what.toUtf8().constData());
        QApplication::exit(1);
    }

    void show_broadcast(const QString &text)
    {
        broadcast_->setText(text);
        maybe_print();
    }

    void done_loading()
    {
        if (++loaded_ < 2)
            return;
        if (set_brightness_ >= 0)
            slider_->setValue(set_brightness_); // as the user would
        else
            brightness_applied_ = true;
        maybe_print();
    }

    void maybe_print()
    {
        if (!print_state_ || loaded_ < 2 || !brightness_applied_ || broadcast_->text() == "no broadcast yet")
            return;
        std::printf("brightness: %s\n", level_->text().toUtf8().constData());
        for (int i = 0; i < wifi_->count(); ++i)
            std::printf("wifi: %s\n", wifi_->item(i)->text().toUtf8().constData());
        std::printf("broadcast: %s\n", broadcast_->text().toUtf8().constData());
        std::fflush(stdout);
        QApplication::quit();
    }

    const int set_brightness_;
    const bool print_state_;
    QSlider *slider_ = new QSlider;
    QLabel *level_ = new QLabel("loading...");
    QListWidget *wifi_ = new QListWidget;
    QLabel *broadcast_ = new QLabel;
    int loaded_ = 0;
    bool brightness_applied_ = false;
    // Receiver and filter must outlive the broadcast service: the panel is
    // built once and lives until the process ends.
    PanelReceiver receiver_;
    IntentFilter filter_;
    std::shared_ptr<BacklightManager> backlight_; // used on the service thread only
    ServiceThread services_;                      // last member: stops first
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription("Operator panel on the hmisvc system services");
    parser.addHelpOption();
    parser.addOption({"set-brightness", "Move the brightness slider to <level> once loaded.", "level"});
    parser.addOption({"print-state", "Print what the panel shows once loaded, then quit."});
    if (!parser.parse(QApplication::arguments())) {
        std::fprintf(stderr, "qt-panel: %s\n", parser.errorText().toUtf8().constData());
        return 2;
    }
    if (parser.isSet("help"))
        parser.showHelp(0);
    int level = -1;
    if (parser.isSet("set-brightness")) {
        bool ok = false;
        level = parser.value("set-brightness").toInt(&ok);
        if (!ok || level < 0) {
            std::fprintf(stderr, "qt-panel: --set-brightness wants a level of 0 or more, not \"%s\"\n",
                         parser.value("set-brightness").toUtf8().constData());
            return 2;
        }
    }
    // Built once and never destroyed: the broadcast service keeps pointers
    // to its receiver for the rest of the process.
    auto *panel = new Panel(level, parser.isSet("print-state"));
    panel->show();
    return app.exec();
}
