#include "broadcasts.h"

#include "records/encoding.h"

#include <hmisvc/proxies.h>

#include <map>

namespace hmisvc::qml {

namespace {

// An intent's extras, read from its encoding (the intent offers them by key only).
void extras(Intent &intent, QVariantMap &ints, QVariantMap &strings)
{
    std::string action;
    std::map<std::string, int> i;
    std::map<std::string, std::string> s;
    try {
        std::istringstream in(intent.toString());
        cereal::BinaryInputArchive ar(in);
        ar(action, i, s);
    } catch (const std::exception &) {
        return; // a delivery that decoded once decodes again
    }
    for (const auto &[key, value] : i)
        ints.insert(QString::fromStdString(key), value);
    for (const auto &[key, value] : s)
        strings.insert(QString::fromStdString(key), QString::fromStdString(value));
}

} // namespace

// On the Receiving's handler thread: the delivery goes on to the GUI thread.
class Broadcasts::Receiver : public BroadcastReceiver {
public:
    explicit Receiver(Broadcasts *owner) : owner_(owner) {}
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        const QString action = QString::fromStdString(intent->getAction());
        QVariantMap ints, strings;
        extras(*intent, ints, strings);
        QMetaObject::invokeMethod(
            owner_, [o = owner_, action, ints, strings] { emit o->received(action, ints, strings); },
            Qt::QueuedConnection);
    }

private:
    Broadcasts *owner_;
};

Broadcasts::Broadcasts(QObject *parent) : DeviceObject(parent), receiver_(std::make_unique<Receiver>(this)) {}

Broadcasts::~Broadcasts() = default;

void Broadcasts::setActions(const QStringList &actions)
{
    if (actions == actions_)
        return;
    for (const QString &action : actions)
        if (!actions_.contains(action))
            filter_.addAction(action.toStdString());
    actions_ = actions;
    emit actionsChanged();
    start();
}

void Broadcasts::componentComplete()
{
    DeviceObject::componentComplete();
    start();
}

// Starts in the background: start() with no time waits for nothing.
void Broadcasts::start()
{
    if (receiving_layer_ || actions_.isEmpty())
        return;
    ReceivingOptions options;
    options.onStateChange = [this](ReceivingState state) {
        QMetaObject::invokeMethod(
            this,
            [this, state] {
                const bool now = state == ReceivingState::Receiving;
                if (state == ReceivingState::Receiving || state == ReceivingState::Down)
                    setStatus(QString::fromUtf8(now ? "up" : "down"));
                assign(receiving_, now, &Broadcasts::receivingChanged);
            },
            Qt::QueuedConnection);
    };
    receiving_layer_ = std::make_unique<Receiving>(options);
    receiving_layer_->registerReceiver(receiver_.get(), &filter_);
    receiving_layer_->start(std::chrono::milliseconds(0));
}

void Broadcasts::send(const QString &action, const QVariantMap &ints, const QVariantMap &strings)
{
    if (action.isEmpty()) {
        writeEnded("send", QStringLiteral("no action to send"), nullptr);
        return;
    }
    Intent intent(action.toStdString());
    for (auto it = ints.begin(); it != ints.end(); ++it) {
        bool number = false;
        const int value = it.value().toInt(&number);
        if (!number) {
            writeEnded("send", QStringLiteral("extra %1 is not an integer").arg(it.key()), nullptr);
            return;
        }
        intent.putExtra(it.key().toStdString(), value);
    }
    for (auto it = strings.begin(); it != strings.end(); ++it)
        intent.putExtra(it.key().toStdString(), it.value().toString().toStdString());
    write(
        "send", &BroadcastManager::SendBroadcast, nullptr,
        [](const Result<void> &, const Intent &) { return QString(); }, intent);
}

} // namespace hmisvc::qml
