// Qt Quick Test cases of the QML module Hmisvc, offscreen, against the
// simulator on the real driver. The page steers the simulated device
// through `sim`: the hmisvc tool, SIGSTOP and SIGCONT, and a watch of the
// GUI thread's longest stall.
#include "process.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QQmlContext>
#include <QQmlEngine>
#include <QTimer>
#include <QtQuickTest>

#include <signal.h>

#include <algorithm>
#include <memory>

class Sim : public QObject {
    Q_OBJECT
public:
    // `hmisvc sim ARGS...`; its output, or null when it failed.
    Q_INVOKABLE QVariant run(const QStringList &args)
    {
        QProcess cli;
        cli.start(HMISVC_CLI, QStringList{"sim"} + args);
        cli.waitForFinished(60000);
        if (cli.exitStatus() != QProcess::NormalExit || cli.exitCode() != 0) {
            qWarning("hmisvc sim %s: %s", qPrintable(args.join(' ')), cli.readAllStandardError().constData());
            return {};
        }
        return QString::fromUtf8(cli.readAllStandardOutput());
    }
    // A value of `hmisvc sim dump` by its dotted path.
    Q_INVOKABLE QVariant value(const QString &path)
    {
        QVariant at = QJsonDocument::fromJson(run({"dump"}).toString().toUtf8()).object().toVariantMap();
        for (const QString &step : path.split('.'))
            at = at.toMap().value(step);
        return at;
    }
    Q_INVOKABLE bool stop() { return peer::stop_process(devsim->pid()); }
    // SIGKILL, and a new simulator.
    Q_INVOKABLE void kill() { devsim.reset(); }
    Q_INVOKABLE bool start()
    {
        devsim = peer::start_program({HMISVC_DEVSIM});
        return devsim->ready();
    }
    Q_INVOKABLE bool resume() { return ::kill(devsim->pid(), SIGCONT) == 0; }
    // This process's threads and open descriptors.
    Q_INVOKABLE int threads() { return peer::threads_of(); }
    Q_INVOKABLE int descriptors() { return peer::descriptors_of(); }
    // On hmisvc-binderd each thread calling through a connection holds a
    // socket of its own on it.
    Q_INVOKABLE bool userspaceDriver() { return qEnvironmentVariableIsSet("HMISVC_BINDER_SOCKET"); }

    // The longest gap between ticks of a 1 ms timer on the GUI thread.
    Q_INVOKABLE void watchStalls()
    {
        longest_ = 0;
        clock_.start();
        ticks_.start();
    }
    Q_INVOKABLE double longestStall()
    {
        ticks_.stop();
        return longest_;
    }

    std::unique_ptr<peer::Child> devsim;

    Sim()
    {
        ticks_.setInterval(1);
        ticks_.setTimerType(Qt::PreciseTimer);
        connect(&ticks_, &QTimer::timeout, this, [this] {
            longest_ = std::max(longest_, clock_.nsecsElapsed() / 1e6);
            clock_.restart();
        });
    }

private:
    QTimer ticks_;
    QElapsedTimer clock_;
    double longest_ = 0;
};

class Setup : public QObject {
    Q_OBJECT
public slots:
    void applicationAvailable()
    {
        if (!peer::start_service_manager(HMISVC_SERVICEMANAGER))
            qFatal("the service manager did not start");
        sim_.devsim = peer::start_program({HMISVC_DEVSIM});
        if (!sim_.devsim->ready())
            qFatal("hmisvc-devsim did not start");
    }
    void qmlEngineAvailable(QQmlEngine *engine)
    {
        engine->addImportPath(HMISVC_QML_IMPORT_PATH);
        engine->rootContext()->setContextProperty("sim", &sim_);
    }
    void cleanupTestCase()
    {
        sim_.devsim.reset();
        peer::stop_service_manager();
    }

private:
    Sim sim_;
};

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    Setup setup;
    return quick_test_main_with_setup(argc, argv, "hmisvc_qml", QUICK_TEST_SOURCE_DIR, &setup);
}

#include "main.moc"
