// Page inspection for tests. A Qt Quick application loads this generic
// plugin only when its environment names it (QT_QPA_GENERIC_PLUGINS=
// hmisvcinspect); it then connects to the test's Unix socket at
// $HMISVC_INSPECT and answers requests there, one JSON object a line each
// way, on the GUI thread:
//
//   {"op": "find", "name": "brightness"}          -> {"ok": true, "class": "Slider", ...}
//   {"op": "get", "name": N, "prop": "value"}     -> {"ok": true, "value": 40}
//   {"op": "wait", "name": N, "prop": P, "value": V, "timeout": S}
//   {"op": "set" | "slide", ..., "value": V}, {"op": "click", ...}, {"op": "type", ..., "keys": K}
//   {"op": "screenshot", "path": F}, {"op": "tree"}
//
// An item is named by its objectName ("name") or by its visible text
// ("text"). A failed request answers {"ok": false, "error": "..."}.
//
// The test side listens and this side connects, so the test learns that the
// application is up from the connection itself; each side takes the other
// only when it runs as the same user.
#include "edit_distance.h"

#include <QDir>
#include <QFileInfo>
#include <QGenericPlugin>
#include <QGuiApplication>
#include <QJSValue>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QMetaProperty>
#include <QPointer>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSet>
#include <QTest>
#include <QTimer>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace {

constexpr int kNearest = 5;
// How long a request waits for the page's first window to be shown (within
// the 10 s the test side gives a request beyond its own time limit).
constexpr int kPageShownMs = 5000;

// The known names nearest WANTED, quoted and comma-separated.
QString nearest(const QString &wanted, QStringList known)
{
    known.removeDuplicates();
    known.removeAll(QString());
    // Each distance once: a page has hundreds of objects.
    std::vector<std::pair<std::size_t, qsizetype>> by_distance; // distance, index
    for (qsizetype i = 0; i < known.size(); ++i)
        by_distance.emplace_back(hmisvc::tools::edit_distance(wanted, known[i]), i);
    std::stable_sort(by_distance.begin(), by_distance.end(),
                     [](const auto &x, const auto &y) { return x.first < y.first; });
    QStringList shown;
    for (std::size_t i = 0; i < by_distance.size() && i < std::size_t(kNearest); ++i)
        shown << '"' + known[by_distance[i].second] + '"';
    return shown.isEmpty() ? QStringLiteral("(none)") : shown.join(", ");
}

QList<QQuickWindow *> quickWindows()
{
    QList<QQuickWindow *> found;
    for (QWindow *w : QGuiApplication::topLevelWindows())
        if (auto *quick = qobject_cast<QQuickWindow *>(w))
            found << quick;
    return found;
}

void collect(QObject *o, QList<QObject *> &out, QSet<QObject *> &seen)
{
    if (!o || seen.contains(o))
        return;
    seen.insert(o);
    out << o;
    if (auto *window = qobject_cast<QQuickWindow *>(o))
        collect(window->contentItem(), out, seen);
    if (auto *item = qobject_cast<QQuickItem *>(o))
        for (QQuickItem *child : item->childItems())
            collect(child, out, seen);
    for (QObject *child : o->children())
        collect(child, out, seen);
}

// Every object of the page's windows, in tree order.
QList<QObject *> everything()
{
    QList<QObject *> all;
    QSet<QObject *> seen;
    for (QQuickWindow *w : quickWindows())
        collect(w, all, seen);
    return all;
}

// QML's own type name: "Slider" for QQuickSlider and its QML subclasses.
QString className(const QObject *o)
{
    for (const QMetaObject *m = o->metaObject(); m; m = m->superClass()) {
        QString name = QString::fromLatin1(m->className());
        if (name.contains("_QML"))
            continue;
        return name.startsWith("QQuick") ? name.mid(6) : name;
    }
    return {};
}

QVariant plain(QVariant v)
{
    if (v.metaType() == QMetaType::fromType<QJSValue>())
        v = v.value<QJSValue>().toVariant();
    return v;
}

QJsonValue toJson(const QVariant &value)
{
    const QVariant v = plain(value);
    if (v.metaType().flags() & QMetaType::PointerToQObject) {
        QObject *o = v.value<QObject *>();
        return o ? QJsonValue(className(o) + (o->objectName().isEmpty() ? "" : " \"" + o->objectName() + '"'))
                 : QJsonValue();
    }
    return QJsonValue::fromVariant(v);
}

bool same(const QJsonValue &a, const QJsonValue &b)
{
    return a.isDouble() && b.isDouble() ? a.toDouble() == b.toDouble() : a == b;
}

QString visibleText(const QObject *o)
{
    const QVariant text = o->property("text");
    return text.metaType() == QMetaType::fromType<QString>() ? text.toString() : QString();
}

QString describe(const QObject *o)
{
    QString d = className(o);
    if (!o->objectName().isEmpty())
        d += " \"" + o->objectName() + '"';
    const QString text = visibleText(o);
    if (!text.isEmpty())
        d += " text=\"" + text + '"';
    return d;
}

class Inspector : public QObject {
    Q_OBJECT
public:
    explicit Inspector(QLocalSocket *socket) : socket_(socket)
    {
        socket_->setParent(this);
        connect(socket_, &QLocalSocket::readyRead, this, &Inspector::serve);
        timer_.setSingleShot(true);
        connect(&timer_, &QTimer::timeout, this, [this] { fire(true); });
        serve();
    }

private slots:
    void changed() { fire(false); }

private:
    using Reply = QJsonObject;

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Expose && qobject_cast<QQuickWindow *>(watched))
            QTimer::singleShot(0, this, [this] { fire(false); });
        return false;
    }

    static bool shown()
    {
        const QList<QQuickWindow *> windows = quickWindows();
        return std::any_of(windows.begin(), windows.end(), [](QQuickWindow *w) { return w->isExposed(); });
    }

    // Requests are answered in order; one that waits holds those after it.
    void serve()
    {
        while (socket_->canReadLine()) {
            const QByteArray line = socket_->readLine();
            QJsonParseError error;
            const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
            if (doc.isObject())
                queue_ << doc.object();
            else
                queue_ << QJsonObject{{"op", "bad"}, {"error", "not a JSON object: " + error.errorString()}};
        }
        while (!pending_ && !queue_.isEmpty()) {
            if (!shown()) {
                // The page is not up yet: the request waits for its first window.
                qApp->installEventFilter(this);
                hold(kPageShownMs, [this](bool timedOut) {
                    if (timedOut) {
                        queue_.removeFirst();
                        answer(failed(QString("no Qt Quick window was shown within %1 s").arg(kPageShownMs / 1000)));
                    }
                    return timedOut || shown();
                });
                return;
            }
            const QJsonObject request = queue_.takeFirst();
            if (request.value("op") == "bad")
                answer(failed(request.value("error").toString()));
            else
                handle(request);
        }
    }

    // Holds later requests until DONE (called on each change, and once with
    // true at the time-out) says it answered.
    void hold(int ms, std::function<bool(bool)> done)
    {
        pending_ = std::move(done);
        timer_.start(ms);
    }

    void fire(bool timedOut)
    {
        if (!pending_)
            return;
        const std::function<bool(bool)> done = pending_;
        if (!done(timedOut))
            return;
        timer_.stop();
        pending_ = nullptr;
        QObject::disconnect(watch_);
        qApp->removeEventFilter(this);
        QTimer::singleShot(0, this, &Inspector::serve);
    }

    void answer(const Reply &reply)
    {
        socket_->write(QJsonDocument(reply).toJson(QJsonDocument::Compact) + '\n');
        socket_->flush();
    }

    static Reply failed(const QString &why) { return {{"ok", false}, {"error", why}}; }

    // The first object the request names, or null with the reason in WHY.
    static QObject *target(const QJsonObject &request, QString *why, int *count = nullptr)
    {
        const bool byName = request.contains("name");
        const QString wanted = request.value(byName ? "name" : "text").toString();
        QList<QObject *> matches;
        QStringList known;
        for (QObject *o : everything()) {
            const QString key = byName ? o->objectName() : visibleText(o);
            known << key;
            if (key == wanted)
                matches << o;
        }
        if (count)
            *count = matches.size();
        if (!matches.isEmpty())
            return matches.first();
        *why = QString(byName ? "no item named \"%1\" on the page; nearest: %2"
                              : "no item with the text \"%1\" on the page; nearest: %2")
                   .arg(wanted, nearest(wanted, known));
        return nullptr;
    }

    // The index of O's property PROP, or -1 with the reason in WHY.
    static int property(QObject *o, const QString &prop, QString *why)
    {
        const QMetaObject *m = o->metaObject();
        const int index = m->indexOfProperty(prop.toUtf8());
        if (index < 0) {
            QStringList known;
            for (int i = 0; i < m->propertyCount(); ++i)
                known << QString::fromLatin1(m->property(i).name());
            *why = QString("%1 has no property \"%2\"; nearest: %3").arg(describe(o), prop, nearest(prop, known));
        }
        return index;
    }

    static QQuickItem *visibleItem(QObject *o, QString *why)
    {
        auto *item = qobject_cast<QQuickItem *>(o);
        if (!item || !item->window())
            *why = describe(o) + " is not an item in a window";
        else if (!item->isVisible() || item->width() <= 0 || item->height() <= 0)
            *why = describe(o) + " is not visible";
        else
            return item;
        return nullptr;
    }

    void handle(const QJsonObject &request)
    {
        const QString op = request.value("op").toString();
        static const QStringList ops = {"find", "get", "set", "wait", "click", "slide", "type", "screenshot", "tree"};
        if (!ops.contains(op))
            return answer(failed("unknown request \"" + op + "\" (" + ops.join(", ") + ")"));
        if (op == "tree")
            return answer({{"ok", true}, {"tree", tree()}});
        if (op == "screenshot")
            return answer(screenshot(request.value("path").toString()));
        QString why;
        int count = 0;
        QObject *o = request.contains("name") || request.contains("text") ? target(request, &why, &count) : nullptr;
        if (!o)
            return answer(failed(why.isEmpty() ? "the request names no item (\"name\" or \"text\")" : why));
        const QString prop = request.value("prop").toString();
        const QJsonValue value = request.value("value");
        if (op == "find")
            return answer({{"ok", true}, {"class", className(o)}, {"count", count}, {"item", describe(o)}});
        if (op == "get" || op == "set" || op == "wait") {
            const int index = property(o, prop, &why);
            if (index < 0)
                return answer(failed(why));
            const QMetaProperty p = o->metaObject()->property(index);
            if (op == "get")
                return answer({{"ok", true}, {"value", toJson(p.read(o))}});
            if (op == "set") {
                if (!p.write(o, value.toVariant()))
                    return answer(failed(QString("%1 did not take %2 = %3").arg(describe(o), prop, value.toVariant().toString())));
                return answer({{"ok", true}, {"value", toJson(p.read(o))}});
            }
            return wait(o, p, value, request.value("timeout").toDouble(5.0));
        }
        if (op == "slide")
            return answer(slide(o, value));
        QQuickItem *item = visibleItem(o, &why);
        if (!item)
            return answer(failed(why));
        QQuickWindow *window = item->window();
        if (op == "click") {
            const QPointF centre = item->mapToScene(QPointF(item->width() / 2, item->height() / 2));
            QTest::mouseClick(window, Qt::LeftButton, Qt::NoModifier, centre.toPoint());
        } else {
            window->requestActivate();
            item->forceActiveFocus(Qt::OtherFocusReason);
            for (const QChar c : request.value("keys").toString()) {
                const Qt::Key key = c == '\n' ? Qt::Key_Return : c == '\t' ? Qt::Key_Tab : c == '\b' ? Qt::Key_Backspace
                                                                                              : Qt::Key(c.toUpper().unicode());
                QTest::sendKeyEvent(QTest::Click, window, key, c == '\n' ? QString("\r") : QString(c), Qt::NoModifier);
            }
        }
        answer({{"ok", true}});
    }

    // Answered when the property's change signal brings VALUE, or at the time-out with what it had.
    void wait(QObject *o, const QMetaProperty &p, const QJsonValue &value, double seconds)
    {
        if (same(toJson(p.read(o)), value))
            return answer({{"ok", true}, {"value", value}});
        if (!p.hasNotifySignal())
            return answer(failed(describe(o) + "'s " + p.name() + " has no change signal to wait for"));
        QPointer<QObject> watched(o);
        watch_ = QObject::connect(o, p.notifySignal(), this, metaObject()->method(metaObject()->indexOfSlot("changed()")));
        hold(std::max(0, int(seconds * 1000)), [this, watched, p, value](bool timedOut) {
            if (!watched) {
                answer(failed(QString("the item went away while waiting for its %1").arg(p.name())));
                return true;
            }
            const QJsonValue now = toJson(p.read(watched));
            if (same(now, value)) {
                answer({{"ok", true}, {"value", now}});
                return true;
            }
            if (timedOut)
                answer({{"ok", false}, {"timeout", true}, {"value", now},
                        {"error", QString("%1's %2 did not become the value wanted").arg(describe(watched), p.name())}});
            return timedOut;
        });
    }

    // As a user's drag ends: the value set, then moved().
    static Reply slide(QObject *o, const QJsonValue &value)
    {
        const QMetaObject *m = o->metaObject();
        const int moved = m->indexOfSignal("moved()");
        const int index = m->indexOfProperty("value");
        if (moved < 0 || index < 0)
            return failed(describe(o) + " is not a slider (it has no value and moved())");
        // A finger stops at the ends: a value past them is the test's
        // mistake (often: the page has not its range yet), not a slide.
        const QVariant from = o->property("from"), to = o->property("to");
        if (from.isValid() && to.isValid() && value.isDouble()) {
            const double low = std::min(from.toDouble(), to.toDouble()), high = std::max(from.toDouble(), to.toDouble());
            if (value.toDouble() < low || value.toDouble() > high)
                return failed(describe(o) + " goes from " + from.toString() + " to " + to.toString() +
                              " now: it cannot slide to " + QString::number(value.toDouble()));
        }
        if (!m->property(index).write(o, value.toVariant()))
            return failed(describe(o) + " did not take the value");
        m->method(moved).invoke(o);
        return {{"ok", true}, {"value", toJson(m->property(index).read(o))}};
    }

    static Reply screenshot(const QString &path)
    {
        const QList<QQuickWindow *> windows = quickWindows();
        if (windows.isEmpty())
            return failed("no Qt Quick window to take");
        if (path.isEmpty())
            return failed("a screenshot needs a \"path\"");
        const QImage image = windows.first()->grabWindow();
        if (!image.save(path, "PNG"))
            return failed("cannot write the screenshot to " + path);
        return {{"ok", true}, {"width", image.width()}, {"height", image.height()}};
    }

    static QString tree()
    {
        QString text;
        std::function<void(QObject *, int)> walk = [&](QObject *o, int depth) {
            auto *item = qobject_cast<QQuickItem *>(o);
            const bool shownHere = item || qobject_cast<QQuickWindow *>(o) || !o->objectName().isEmpty();
            if (shownHere)
                text += QString(depth * 2, ' ') + describe(o) +
                        (item && !item->isVisible() ? " (hidden)" : "") + '\n';
            QList<QObject *> children;
            if (auto *window = qobject_cast<QQuickWindow *>(o))
                children << window->contentItem();
            if (item)
                for (QQuickItem *child : item->childItems())
                    children << child;
            for (QObject *child : o->children())
                if (!qobject_cast<QQuickItem *>(child) && !qobject_cast<QQuickWindow *>(child))
                    children << child;
            for (QObject *child : children)
                walk(child, depth + (shownHere ? 1 : 0));
        };
        for (QQuickWindow *w : quickWindows())
            walk(w, 0);
        return text;
    }

    QLocalSocket *socket_;
    QTimer timer_;
    QList<QJsonObject> queue_;
    std::function<bool(bool)> pending_;
    QMetaObject::Connection watch_;
};

void say(const QString &what) { std::fprintf(stderr, "hmisvcinspect: %s\n", qPrintable(what)); }

uid_t peerUid(int fd)
{
    ucred cred{};
    socklen_t size = sizeof cred;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) == 0 ? cred.uid : uid_t(-1);
}

}  // namespace

class InspectPlugin : public QGenericPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid FILE "hmisvcinspect.json")
public:
    // Where it does not inspect, an inert object: Qt takes none for a missing plugin.
    QObject *create(const QString &key, const QString &) override
    {
        if (key.compare("hmisvcinspect", Qt::CaseInsensitive) != 0)
            return nullptr;
        // Only this process: programs it starts inherit no connection to make.
        const QString path = qEnvironmentVariable("HMISVC_INSPECT");
        qunsetenv("HMISVC_INSPECT");
        if (path.isEmpty())
            return new QObject;
        // The socket's directory is the test's own: another user could
        // otherwise have put a socket of theirs there.
        struct stat dir {};
        const QString dirPath = QFileInfo(path).absolutePath();
        if (stat(QFile::encodeName(dirPath).constData(), &dir) != 0 || dir.st_uid != getuid() || (dir.st_mode & 077)) {
            say(QString("not inspecting: %1 must be a directory of this user's only (mode 0700)").arg(dirPath));
            return new QObject;
        }
        auto *socket = new QLocalSocket;
        socket->connectToServer(path);
        if (!socket->waitForConnected(5000)) {
            say(QString("not inspecting: cannot reach %1: %2")
                    .arg(path, QFileInfo::exists(path) ? socket->errorString() : QString("no such socket")));
            delete socket;
            return new QObject;
        }
        if (peerUid(int(socket->socketDescriptor())) != getuid()) {
            say(QString("not inspecting: %1 is served by another user").arg(path));
            delete socket;
            return new QObject;
        }
        return new Inspector(socket);
    }
};

#include "inspect.moc"
