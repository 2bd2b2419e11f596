#include "devicecontrol.h"

#include <QEventLoop>
#include <QFile>
#include <QJSEngine>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <memory>

namespace hmisvc::qml {

using tools::ControlArg;
using namespace tools::control;

namespace {

ControlArg text(const QString &s) { return {true, s.toStdString(), 0}; }
ControlArg text(std::string s) { return {true, std::move(s), 0}; }
ControlArg word(int32_t n) { return {false, {}, n}; }

template <class J> std::string compact(const J &json) { return QJsonDocument(json).toJson(QJsonDocument::Compact).toStdString(); }

// The longest a scenario can run by its times: the sum of every time in it
// (a bound, as "after" steps start from calls).
double scenario_seconds(const std::string &document)
{
    const QJsonObject doc = QJsonDocument::fromJson(QByteArray::fromStdString(document)).object();
    double sum = doc.value("end").toDouble();
    for (const QJsonValue &step : doc.value("steps").toArray())
        for (const char *key : {"at", "delay", "before"})
            sum += std::max(0.0, step.toObject().value(key).toDouble());
    return sum;
}

// One line a call, as the fixtures' failure messages show them.
QString call_lines(const QJsonArray &calls)
{
    QString out;
    for (const QJsonValue &v : calls) {
        const QJsonObject c = v.toObject();
        const QString args = QString::fromUtf8(QJsonDocument(c.value("args").toArray()).toJson(QJsonDocument::Compact));
        QString outcome = c.contains("reply")
                              ? "-> " + QString::fromUtf8(QJsonDocument(QJsonArray{c.value("reply")})
                                                              .toJson(QJsonDocument::Compact)).mid(1).chopped(1)
                              : "failed: " + (c.value("error").toString().isEmpty()
                                                  ? "status " + QString::number(c.value("status").toInt())
                                                  : c.value("error").toString());
        out += QString("  #%1 %2 %3[%4] %5.%6(%7) %8\n")
                   .arg(c.value("seq").toInteger()).arg(c.value("time").toDouble(), 0, 'f', 3)
                   .arg(c.value("program").toString("?")).arg(c.value("pid").toInteger())
                   .arg(c.value("service").toString(), c.value("method").toString(), args.mid(1).chopped(1), outcome);
    }
    return out.isEmpty() ? "  (none)\n" : out;
}

}  // namespace

void DeviceControl::setTimeLimit(int ms)
{
    ms = std::max(ms, 1);
    if (ms != timeLimit_) {
        timeLimit_ = ms;
        emit timeLimitChanged();
    }
}

void DeviceControl::fail_with(const QString &message)
{
    if (QJSEngine *engine = qjsEngine(this))
        engine->throwError(QJSValue::GenericError, message);
    else
        qWarning("%s", qPrintable(message));
}

DeviceControl::Answer DeviceControl::ask(const char *verb, uint32_t code, std::vector<ControlArg> args,
                                         double waiting_s)
{
    // The call may outlive this verb (a simulator that stopped answering):
    // the thread owns what it writes and ends on its own.
    struct Pending {
        Answer answer;
        std::atomic<bool> over{false};
    };
    auto pending = std::make_shared<Pending>();
    QThread *call = QThread::create([pending, code, args = std::move(args)] {
        pending->answer.code = tools::control_call(code, args, pending->answer.text);
        pending->over = true;
    });
    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    connect(call, &QThread::finished, &loop, &QEventLoop::quit);
    connect(call, &QThread::finished, call, &QObject::deleteLater);
    connect(&bound, &QTimer::timeout, &loop, &QEventLoop::quit);
    const int bound_ms = static_cast<int>(std::min(waiting_s * 1000 + timeLimit_, 2e9));
    bound.start(bound_ms);
    call->start();
    loop.exec();
    if (!pending->over) {
        fail_with(QString("DeviceControl.%1: no answer from the simulator within %2 ms").arg(verb).arg(bound_ms));
        return {};
    }
    if (pending->answer.code < 0) {
        fail_with(QString("DeviceControl.%1: %2").arg(verb, QString::fromStdString(pending->answer.text)));
        return {};
    }
    return pending->answer;
}

DeviceControl::Answer DeviceControl::done(const char *verb, uint32_t code, std::vector<ControlArg> args)
{
    Answer a = ask(verb, code, std::move(args));
    if (a.code > 0)
        fail_with(QString("DeviceControl.%1: %2").arg(verb, QString::fromStdString(a.text)));
    return a;
}

QString DeviceControl::json(const QJSValue &value)
{
    QJSEngine *engine = qjsEngine(this);
    return engine ? engine->globalObject().property("JSON").property("stringify").call({value}).toString()
                  : QString();
}

QJSValue DeviceControl::parsed(const std::string &text)
{
    QJSEngine *engine = qjsEngine(this);
    return engine ? engine->globalObject().property("JSON").property("parse").call({QString::fromStdString(text)})
                  : QJSValue();
}

bool DeviceControl::document(const char *verb, const QJSValue &given, std::string &out)
{
    if (!given.isString()) {
        out = json(given).toStdString();
        return true;
    }
    const QString s = given.toString();
    if (s.trimmed().startsWith('{') || s.trimmed().startsWith('[')) {
        out = s.toStdString();
        return true;
    }
    QFile file(s.startsWith("file:") ? QUrl(s).toLocalFile() : s);
    if (!file.open(QIODevice::ReadOnly)) {
        fail_with(QString("DeviceControl.%1: %2: %3").arg(verb, s, file.errorString()));
        return false;
    }
    out = file.readAll().toStdString();
    return true;
}

bool DeviceControl::optional(const char *verb, const char *what, const QJSValue &given, bool array, QJsonValue &out)
{
    out = QJsonValue::Undefined;
    if (given.isUndefined() || given.isNull())
        return true;
    const QJsonDocument doc = QJsonDocument::fromJson(json(given).toUtf8());
    if (array ? !doc.isArray() : !doc.isObject()) {
        fail_with(QString("DeviceControl.%1: %2: expected %3, got %4")
                      .arg(verb, what, array ? "an array" : "an object", json(given)));
        return false;
    }
    out = array ? QJsonValue(doc.array()) : QJsonValue(doc.object());
    return true;
}

void DeviceControl::set(const QString &key, const QJSValue &value) { done("set", kSet, {text(key), text(json(value))}); }

void DeviceControl::load(const QJSValue &document_or_path)
{
    if (std::string doc; document("load", document_or_path, doc))
        done("load", kLoadState, {text(std::move(doc))});
}

void DeviceControl::fail(const QString &service, int calls, int status, int delayMs)
{
    done("fail", kFail, {text(service), word(status), word(calls), word(delayMs)});
}

void DeviceControl::heal(const QString &service) { done("heal", kHeal, {text(service)}); }
void DeviceControl::publish(const QString &service) { done("publish", kPublish, {text(service)}); }
void DeviceControl::unpublish(const QString &service) { done("unpublish", kUnpublish, {text(service)}); }
void DeviceControl::crash(const QString &service, int restartAfterMs)
{
    done("crash", kCrash, {text(service), word(restartAfterMs)});
}
void DeviceControl::restart(const QString &service) { done("restart", kRestart, {text(service)}); }
void DeviceControl::reset() { done("reset", kReset, {}); }
void DeviceControl::clearCalls() { done("clearCalls", kClearCalls, {}); }

void DeviceControl::broadcast(const QString &action, const QJSValue &ints, const QJSValue &strings)
{
    QJsonValue i, s;
    if (optional("broadcast", "ints", ints, false, i) && optional("broadcast", "strings", strings, false, s))
        done("broadcast", kBroadcast, {text(action), text(compact(QJsonObject{{"ints", i.toObject()}, {"strings", s.toObject()}}))});
}

void DeviceControl::reply(const QString &method, const QJSValue &answers)
{
    // Values as JSON texts; the words as they are.
    static const QRegularExpression word_answer(QRegularExpression::anchoredPattern("fail|status:-?\\d+|delay:\\d+"));
    QJsonValue given;
    if (!optional("reply", "answers", answers, true, given))
        return;
    QJsonArray texts;
    for (int i = 0, n = given.toArray().size(); i < n; ++i) {
        QJSValue a = answers.property(i);
        texts.append(a.isString() && word_answer.match(a.toString()).hasMatch() ? a.toString() : json(a));
    }
    done("reply", kReply, {text(method), text(compact(texts))});
}

void DeviceControl::play(const QJSValue &scenario)
{
    std::string doc;
    if (!document("play", scenario, doc))
        return;
    double seconds = scenario_seconds(doc);
    Answer a = ask("play", kPlay, {text(doc)}, seconds);
    if (a.code == 1)
        fail_with("scenario not met:\n" + QString::fromStdString(a.text));
    else if (a.code == 2)
        fail_with("DeviceControl.play: " + QString::fromStdString(a.text));
}

QJSValue DeviceControl::state()
{
    Answer a = done("state", kDump, {});
    return a.code == 0 ? parsed(a.text) : QJSValue();
}

QJSValue DeviceControl::calls(const QJSValue &filter)
{
    // The log comes in pages of what a reply holds.
    QJsonValue given;
    if (!optional("calls", "filter", filter, false, given))
        return {};
    QJsonObject f = given.toObject();
    QJsonArray all;
    for (;;) {
        Answer a = done("calls", kCalls, {text(compact(f))});
        if (a.code != 0)
            return {};
        const QJsonObject page = QJsonDocument::fromJson(QByteArray::fromStdString(a.text)).object();
        const QJsonArray got = page.value("calls").toArray();
        for (const QJsonValue &c : got)
            all.append(c);
        if (!page.value("more").toBool() || got.isEmpty())
            break;
        f["since"] = got.last().toObject().value("seq");
    }
    return parsed(compact(all));
}

double DeviceControl::mark()
{
    Answer a = done("mark", kMark, {});
    return a.code == 0 ? QString::fromStdString(a.text).toDouble() : 0;
}

QJSValue DeviceControl::waitForCall(const QString &method, const QJSValue &args, double timeout, const QJSValue &filter)
{
    QJsonValue given, wanted;
    if (!optional("waitForCall", "filter", filter, false, given) || !optional("waitForCall", "args", args, true, wanted))
        return {};
    QJsonObject request = given.toObject();
    request["method"] = method;
    request["timeout"] = timeout;
    const bool with_args = wanted.isArray();
    if (with_args)
        request["args"] = wanted;
    Answer a = ask("waitForCall", kWaitCall, {text(compact(request))}, timeout);
    if (a.code == 0)
        return parsed(a.text);
    if (a.code < 0)
        return {};
    const QJsonDocument came = QJsonDocument::fromJson(QByteArray::fromStdString(a.text));
    if (a.code == 2 || !came.isArray()) {
        fail_with("DeviceControl.waitForCall: " + QString::fromStdString(a.text));
        return {};
    }
    fail_with(QString("%1 call(s) of %2%3 expected within %4 s; %5 came:\n%6")
                  .arg(request.value("count").toInt(1)).arg(method)
                  .arg(with_args ? " with arguments " + json(args) : QString())
                  .arg(timeout).arg(came.array().size()).arg(call_lines(came.array())));
    return {};
}

}  // namespace hmisvc::qml
