#include "deviceobject.h"

#include <algorithm>

namespace hmisvc::qml {

namespace {
// A page shows a service back soon after it is, without polling a
// service that stays away hard.
constexpr int kFirstLook = 250;
constexpr int kLastLook = 4000;
} // namespace

DeviceObject::DeviceObject(QObject *parent) : QObject(parent)
{
    QObject::connect(&timer_, &QTimer::timeout, this, [this] {
        if (pending_ == 0) // a hanging service gets one refresh at a time
            refresh();
    });
    lookAgain_.setSingleShot(true);
    lookAgain_.setInterval(kFirstLook);
    QObject::connect(&lookAgain_, &QTimer::timeout, this, [this] {
        if (status_ != QLatin1String("down"))
            return;
        lookAgain_.setInterval(std::min(lookAgain_.interval() * 2, kLastLook));
        if (pending_ == 0)
            refresh();
        if (roundCalls_ == 0) // nothing to wait for: look again later all the same
            lookAgain_.start();
    });
}

// The handle goes first: it waits for a callback under way and drops the
// rest, so no answer is posted to this object once it is gone.
DeviceObject::~DeviceObject() { handle_.reset(); }

void DeviceObject::refresh()
{
    if (!complete_)
        return;
    ++round_; // a refresh before the last one ended: only the new one counts
    roundCalls_ = 0;
    roundFailed_ = false;
    fetching_ = true;
    fetch();
    fetching_ = false;
    reads_ = roundCalls_ != 0; // nothing to read (Beeper, Broadcasts): ready follows status
    if (!reads_)
        setReady(status_ == QLatin1String("up"));
}

void DeviceObject::readEnded(bool answered)
{
    roundFailed_ = roundFailed_ || !answered;
    if (--roundCalls_ != 0)
        return;
    if (!roundFailed_) {
        answered_ = true;
        setReady(status_ == QLatin1String("up"));
    }
    if (status_ == QLatin1String("down") && complete_)
        lookAgain_.start();
}

void DeviceObject::setReady(bool ready)
{
    if (ready == ready_)
        return;
    ready_ = ready;
    emit readyChanged();
}

void DeviceObject::setRefreshInterval(int ms)
{
    ms = std::max(0, ms);
    if (ms == timer_.interval() && (ms > 0) == timer_.isActive())
        return;
    timer_.setInterval(ms);
    if (ms > 0 && complete_)
        timer_.start();
    else if (ms == 0)
        timer_.stop();
    emit refreshIntervalChanged();
}

void DeviceObject::setTimeLimit(int ms)
{
    ms = std::max(1, ms);
    if (ms == timeLimit_)
        return;
    timeLimit_ = ms;
    handle_.reset(); // made again with the new limit; the old one's answers are dropped
    pending_ = 0;
    ++round_;
    emit timeLimitChanged();
}

void DeviceObject::classBegin() {}

void DeviceObject::componentComplete()
{
    complete_ = true;
    if (timer_.interval() > 0)
        timer_.start();
    refresh();
}

void DeviceObject::setLastError(const QString &error)
{
    if (error == lastError_)
        return;
    lastError_ = error;
    emit lastErrorChanged();
}

void DeviceObject::setStatus(const QString &status)
{
    if (status == status_)
        return;
    status_ = status;
    emit statusChanged();
    if (status_ == QLatin1String("down")) {
        answered_ = false; // values arrive again after the next refresh
        if (complete_ && !lookAgain_.isActive() && roundCalls_ == 0)
            lookAgain_.start();
    } else {
        lookAgain_.stop();
        lookAgain_.setInterval(kFirstLook);
    }
    // Up: the reads may have been answered before the news came.
    setReady(status_ == QLatin1String("up") && (answered_ || !reads_));
}

ServiceOptions DeviceObject::options()
{
    ServiceOptions options;
    options.callLimit = std::chrono::milliseconds(timeLimit_);
    options.lookupLimit = std::min(options.lookupLimit, options.callLimit);
    // On a lane's thread or the watch thread; never after the handle is gone.
    options.onStateChange = [this](ServiceChange change) {
        const QString status = QString::fromUtf8(serviceStateName(change.state()));
        QMetaObject::invokeMethod(this, [this, status] { setStatus(status); }, Qt::QueuedConnection);
    };
    return options;
}

} // namespace hmisvc::qml
