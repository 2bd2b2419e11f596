// An operator panel as HMI applications are written on this library: a
// brightness slider, the Wi-Fi networks in range, the last "show settings"
// broadcast, and whether the services are there.
//
// The supervised layer does the service work. Every call has a 500 ms limit
// and runs on a thread the layer shares per service, so a stopped service
// costs a "timed out" result, not a frozen window; the GUI thread still
// waits for no call: calls are made from Qt's thread pool and their results
// posted back. The handles and the receiver report the services going and
// coming back; the panel shows it and reads them again. Receivers run on
// the supervised receiver's handler thread; onReceive copies what it needs
// and posts it to the GUI thread.
//
//   qt-panel [--set-brightness N] [--print-state] [--watch]
//
// --set-brightness moves the slider once the panel is up, as a user would;
// --print-state prints what the panel shows once it has loaded (and applied
// the brightness, and received one broadcast) and quits: for scripts and
// tests, together with QT_QPA_PLATFORM=offscreen. --watch reads the services
// every 100 ms, prints each line of what the panel shows when it changes
// ("ready" once loaded), and takes "brightness N" lines on standard input as
// slider moves: for tests of the panel as it runs.
#include <QApplication>
#include <QCommandLineParser>
#include <QLabel>
#include <QListWidget>
#include <QMap>
#include <QSignalBlocker>
#include <QSlider>
#include <QSocketNotifier>
#include <QThreadPool>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <hmisvc/broadcast.h>
#include <hmisvc/proxies.h>
#include <hmisvc/receiving.h>
#include <hmisvc/records.h>
#include <hmisvc/service.h>
#include <hmisvc/wait.h>

namespace {

using namespace std::chrono_literals;

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

// What the backlight says; the panel shows both or neither.
struct Levels {
    hmisvc::Result<int> level, max;
};

class Panel : public QWidget {
public:
    Panel(int set_brightness, bool print_state, bool watch)
        : set_brightness_(set_brightness), print_state_(print_state), watch_(watch), backlight_(options("backlight")),
          wifi_(options("Wi-Fi")), receiver_(this, [this](QString text) { show_broadcast(text); }),
          receiving_(receivingOptions())
    {
        setWindowTitle("Panel");
        auto *layout = new QVBoxLayout(this);
        layout->addWidget(status_);
        layout->addWidget(new QLabel("Brightness"));
        slider_->setOrientation(Qt::Horizontal);
        slider_->setTracking(false); // one call when the finger lifts, not per step
        slider_->setEnabled(false);
        layout->addWidget(slider_);
        layout->addWidget(level_);
        layout->addWidget(new QLabel("Wi-Fi networks"));
        layout->addWidget(networks_);
        layout->addWidget(broadcast_);
        broadcast_->setText("no broadcast yet");
        connect(slider_, &QSlider::valueChanged, this, [this](int value) { apply_brightness(value); });
        filter_.addAction(Intent::ACTION_SHOW_SETTINGS);
        receiving_.registerReceiver(&receiver_, &filter_);
        load();
        if (print_state_)
            QTimer::singleShot(30s, this, [this] {
                fail(status_, QString("nothing to print after 30 s (brightness: %1; broadcast: %2)")
                                  .arg(level_->text(), broadcast_->text()));
            });
        if (watch_)
            start_watching();
        off_gui([this] { return receiving_.start(10s); },
                [this](bool receiving) {
                    if (!receiving)
                        return fail(broadcast_, "broadcasts do not arrive");
                    if (print_state_) {
                        std::printf("receiving\n"); // a broadcast sent from now on arrives
                        std::fflush(stdout);
                    }
                });
    }

private:
    enum Part { Brightness = 1, Networks = 2, Receiver = 4, All = 7 };

    // Runs call on Qt's thread pool and then with its result on the GUI
    // thread. The handles' call limit bounds how long a pool thread waits.
    template <class Call, class Then> void off_gui(Call call, Then then)
    {
        QThreadPool::globalInstance()->start([this, call, then] {
            auto result = call();
            gui([then, result] { then(result); });
        });
    }
    template <class F> void gui(F work) { QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection); }

    // The layer reports state changes on its own threads.
    hmisvc::ServiceOptions options(const QString &who)
    {
        hmisvc::ServiceOptions options;
        options.callLimit = 500ms;
        options.onStateChange = [this, who](hmisvc::ServiceState state) {
            gui([this, who, up = state == hmisvc::ServiceState::Up] {
                show_state(who, up);
                if (!up)
                    unavailable();
            });
        };
        return options;
    }
    hmisvc::ReceivingOptions receivingOptions()
    {
        hmisvc::ReceivingOptions options;
        options.onStateChange = [this](hmisvc::ReceivingState state) {
            if (state == hmisvc::ReceivingState::Down)
                gui([this] { show_state("broadcasts", false); });
            if (state == hmisvc::ReceivingState::Receiving)
                gui([this] {
                    show_state("broadcasts", true);
                    loaded(Receiver);
                });
        };
        return options;
    }

    // From here on, on the GUI thread.

    // A source that went down gets a status line: "service down", then
    // "reconnected" (for a service: once the panel's next read is answered).
    void show_state(const QString &who, bool up)
    {
        if (up && !states_.contains(who))
            return; // up as expected
        states_[who] = up ? "reconnected" : "service down";
        QStringList lines;
        for (auto it = states_.cbegin(); it != states_.cend(); ++it)
            lines << it.key() + ": " + it.value();
        status_->setText(lines.join('\n'));
    }

    // On a pool thread.
    Levels read_levels()
    {
        return Levels{backlight_.call(&BacklightManager::GetBrightness),
                      backlight_.call(&BacklightManager::GetMaxBrightness)};
    }

    void load()
    {
        off_gui(
            [this] { return read_levels(); },
            [this](const Levels &levels) {
                if (show_brightness(levels))
                    loaded(Brightness);
            });
        off_gui(
            [this] {
                std::vector<WifiList> networks;
                // An unregistered service is gone, though a proxy built before may still answer.
                if (!hmisvc::waitForService(Context::WIFIINFO_SERVICE, 0ms))
                    return std::make_pair(hmisvc::Outcome::NotRegistered, QStringList());
                const hmisvc::Result<bool> listed = wifi_.call(&WifiManager::GetWifilist, networks);
                QStringList rows;
                // The simulator fills text1 with the SSID and value with the
                // signal in dBm; the device's service defines its own fields.
                for (const WifiList &n : networks)
                    rows << QString("%1 (%2 dBm)").arg(QString::fromStdString(n.text1)).arg(n.value);
                return std::make_pair(listed.outcome(), rows);
            },
            [this](const std::pair<hmisvc::Outcome, QStringList> &listed) {
                networks_->clear();
                if (listed.first != hmisvc::Outcome::Ok) {
                    networks_->addItem(QString("unavailable (%1)").arg(hmisvc::outcomeName(listed.first)));
                    return unavailable();
                }
                networks_->addItems(listed.second);
                loaded(Networks);
            });
    }

    void apply_brightness(int value)
    {
        level_->setText("setting...");
        off_gui(
            [this, value] {
                backlight_.call(&BacklightManager::SetBrightness, value);
                return read_levels();
            },
            [this](const Levels &levels) {
                show_brightness(levels);
                brightness_applied_ = true;
                maybe_print();
            });
    }

    bool show_brightness(const Levels &levels)
    {
        const QSignalBlocker quiet(slider_); // showing the level is not a change
        const bool ok = levels.level && levels.max;
        slider_->setEnabled(ok);
        if (!ok) {
            const hmisvc::Outcome why = levels.level ? levels.max.outcome() : levels.level.outcome();
            level_->setText(QString("unavailable (%1)").arg(hmisvc::outcomeName(why)));
            unavailable();
            return false;
        }
        slider_->setRange(0, *levels.max);
        slider_->setValue(*levels.level);
        level_->setText(QString("%1 of %2").arg(*levels.level).arg(*levels.max));
        return true;
    }

    // Read the services again a second later.
    void unavailable()
    {
        if (std::exchange(retry_pending_, true))
            return;
        QTimer::singleShot(1s, this, [this] {
            retry_pending_ = false;
            load();
        });
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

    // --watch: the services read again every 100 ms, each changed line
    // printed; "brightness N" on standard input moves the slider.
    void start_watching()
    {
        auto *tick = new QTimer(this);
        connect(tick, &QTimer::timeout, this, [this] {
            QStringList rows;
            for (int i = 0; i < networks_->count(); ++i)
                rows << networks_->item(i)->text();
            const QStringList now = {status_->text(), "brightness: " + level_->text(),
                                     "wifi: " + rows.join(", "), "broadcast: " + broadcast_->text()};
            if (loaded_ == All && shown_.isEmpty())
                shown_ = QStringList{"", "", "", ""}, std::printf("ready\n");
            for (int i = 0; i < now.size() && !shown_.isEmpty(); ++i)
                if (now[i] != shown_[i] && !now[i].isEmpty())
                    std::printf("%s\n", (shown_[i] = now[i]).toUtf8().constData());
            std::fflush(stdout);
            load();
        });
        tick->start(100ms);
        auto *input = new QSocketNotifier(0, QSocketNotifier::Read, this);
        connect(input, &QSocketNotifier::activated, this, [this, input] {
            std::string line;
            do {
                if (!std::getline(std::cin, line))
                    return input->setEnabled(false);
                if (int level = 0; std::sscanf(line.c_str(), "brightness %d", &level) == 1)
                    slider_->setValue(level); // as the user would
                else if (!line.empty())
                    std::fprintf(stderr, "qt-panel: unknown command \"%s\" (brightness N)\n", line.c_str());
            } while (std::cin.rdbuf()->in_avail() > 0);
        });
    }

    void show_broadcast(const QString &text)
    {
        broadcast_->setText(text);
        maybe_print();
    }

    // Each part counts once, however often the services are read again.
    void loaded(Part part)
    {
        const int before = loaded_;
        loaded_ |= part;
        if (before == All || loaded_ != All)
            return;
        if (set_brightness_ >= 0)
            slider_->setValue(set_brightness_); // as the user would
        else
            brightness_applied_ = true;
        maybe_print();
    }

    void maybe_print()
    {
        if (!print_state_ || loaded_ != All || !brightness_applied_ || broadcast_->text() == "no broadcast yet")
            return;
        std::printf("brightness: %s\n", level_->text().toUtf8().constData());
        for (int i = 0; i < networks_->count(); ++i)
            std::printf("wifi: %s\n", networks_->item(i)->text().toUtf8().constData());
        std::printf("broadcast: %s\n", broadcast_->text().toUtf8().constData());
        std::fflush(stdout);
        QApplication::quit();
    }

    const int set_brightness_;
    const bool print_state_;
    const bool watch_;
    QStringList shown_; // --watch: what was printed, line by line
    QLabel *status_ = new QLabel;
    QSlider *slider_ = new QSlider;
    QLabel *level_ = new QLabel("loading...");
    QListWidget *networks_ = new QListWidget;
    QLabel *broadcast_ = new QLabel;
    QMap<QString, QString> states_;
    int loaded_ = 0;
    bool brightness_applied_ = false, retry_pending_ = false;
    hmisvc::Service<BacklightManager> backlight_;
    hmisvc::Service<WifiManager> wifi_;
    PanelReceiver receiver_;
    IntentFilter filter_;
    hmisvc::Receiving receiving_; // uses receiver_ and filter_: goes first
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
    parser.addOption({"watch", "Print what the panel shows as it changes; take \"brightness N\" lines on stdin."});
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
    // Never destroyed: a pool thread may still be waiting out a call's limit
    // when the window closes, and the broadcast endpoints read the filter
    // for good.
    auto *panel = new Panel(level, parser.isSet("print-state"), parser.isSet("watch"));
    panel->show();
    return app.exec();
}
