// Page inspection for hmisvc::testing: the test listens, the application's
// plugin (inspect/) connects as its QGuiApplication starts; requests and
// answers are JSON objects, one a line.
#include <hmisvc/testing.h>

#include "inspect.h"

#include <nlohmann/json.hpp>

#include <glob.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

extern char **environ;

namespace hmisvc::testing {

namespace {

using json = nlohmann::json;

constexpr const char *kPlugin = "hmisvcinspect";
// How long page() waits for the application to connect.
constexpr double kConnectSeconds = 10;
// Beyond a request's own time limit: a page busy with a long frame still answers.
constexpr double kAnswerMargin = 10;

std::string socket_path(const std::string &dir) { return dir + "/inspect.sock"; }

bool has_plugin(const std::string &dir)
{
    struct stat st {};
    return stat((dir + "/generic/lib" + kPlugin + ".so").c_str(), &st) == 0;
}

// The plugin's directory: $HMISVC_QT_PLUGIN_PATH, else where this library's
// packages install it, else under the prefix `hmisvc` is installed in, or
// /usr; empty where it is nowhere.
std::string plugin_dir()
{
    const char *named = std::getenv("HMISVC_QT_PLUGIN_PATH");
    if (named && *named)
        return named;
    if (has_plugin(HMISVC_TESTING_QT_PLUGINS))
        return HMISVC_TESTING_QT_PLUGINS;
    std::string cli = std::getenv("HMISVC_CLI") ? std::getenv("HMISVC_CLI") : "";
    for (std::string rest = std::getenv("PATH") ? std::getenv("PATH") : ""; cli.empty() && !rest.empty();) {
        const std::string dir = rest.substr(0, rest.find(':'));
        rest.erase(0, dir.size() + 1);
        if (access((dir + "/hmisvc").c_str(), X_OK) == 0)
            cli = dir + "/hmisvc";
    }
    std::vector<std::string> prefixes;
    if (char *real = cli.empty() ? nullptr : realpath(cli.c_str(), nullptr)) {
        const std::string at = real;
        std::free(real);
        prefixes.push_back(at.substr(0, at.rfind('/')) + "/..");
    }
    prefixes.push_back("/usr");
    std::string found;
    for (const std::string &prefix : prefixes) {
        glob_t matches{};
        if (found.empty() &&
            glob((prefix + "/lib/*/qt6/plugins/generic/lib" + kPlugin + ".so").c_str(), 0, nullptr, &matches) == 0)
            found = std::string(matches.gl_pathv[0]).substr(0, std::string(matches.gl_pathv[0]).rfind("/generic/"));
        globfree(&matches);
    }
    return found;
}

// Waits up to SECONDS for FD to be readable, or REPORTS (the App's status pipe) to be: 1, 2, 0 at the time-out.
int await(int fd, int reports, double seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p[2] = {{fd, POLLIN, 0}, {reports, POLLIN, 0}};
        const int n = poll(p, reports >= 0 ? 2 : 1, std::max<int>(0, static_cast<int>(left.count())));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        return p[0].revents ? 1 : 2;
    }
}

}  // namespace

namespace detail {

int inspect_listener(std::string &dir)
{
    // In hmisvc-run's guest /tmp is the host's over 9p, where no socket can
    // be bound: then the guest's own /dev/shm.
    const char *tmp = std::getenv("TMPDIR");
    std::string why;
    for (const std::string &base : {std::string(tmp && *tmp ? tmp : "/tmp"), std::string("/dev/shm")}) {
        std::string pattern = base + "/hmisvc-page.XXXXXX";
        if (!mkdtemp(pattern.data())) {
            why = pattern + ": " + std::strerror(errno);
            continue;
        }
        dir = pattern;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = socket_path(dir);
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && path.size() < sizeof address.sun_path &&
            bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(fd, 4) == 0)
            return fd;
        why = path + ": " + std::strerror(errno);
        inspect_close(fd, dir);
        dir.clear();
    }
    throw Refused("page inspection: cannot listen on " + why);
}

std::vector<std::string> inspect_environment(const std::string &dir)
{
    // Asked for only where the plugin is: Qt would warn of a missing one in every Qt program.
    const std::string ours = plugin_dir();
    std::string plugins = kPlugin, plugin_path = ours;
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        const std::string value = entry.substr(std::min(entry.size(), name.size() + 1));
        if (ours.empty() || (name != "QT_QPA_GENERIC_PLUGINS" && name != "QT_PLUGIN_PATH" && name != "HMISVC_INSPECT"))
            env.push_back(entry);
        else if (name == "QT_QPA_GENERIC_PLUGINS" && !value.empty())
            plugins = (',' + value + ',').find(std::string(",") + kPlugin + ',') == std::string::npos
                          ? value + ',' + kPlugin : value;
        else if (name == "QT_PLUGIN_PATH" && !value.empty())
            plugin_path += ':' + value;
    }
    if (!ours.empty()) {
        env.push_back("QT_QPA_GENERIC_PLUGINS=" + plugins);
        env.push_back("QT_PLUGIN_PATH=" + plugin_path);
        env.push_back("HMISVC_INSPECT=" + socket_path(dir));
    }
    return env;
}

void inspect_close(int listener, const std::string &dir)
{
    if (listener >= 0)
        close(listener);
    if (!dir.empty()) {
        unlink(socket_path(dir).c_str());
        rmdir(dir.c_str());
    }
}

}  // namespace detail

Page &App::page()
{
    if (!page_)
        page_.reset(new Page(*this, inspect_));
    return *page_;
}

Page::Page(App &app, int listener) : app_(app)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(kConnectSeconds);
    while (socket_ < 0) {
        const double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        const int ready = app_.status_ >= 0 ? 2 : await(listener, app_.reports_, left);
        if (ready != 1)
            fail("its page could not be reached (" + (ready == 2 ? ended() : "not within 10 s") +
                 "): is it a Qt Quick application, and is " + kPlugin +
                 " installed (qml6-module-hmisvc, or $HMISVC_QT_PLUGIN_PATH)?");
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ucred peer{};
        socklen_t size = sizeof peer;
        // Only a process of this user is taken for the application.
        if (fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == getuid())
            socket_ = fd;
        else if (fd >= 0)
            close(fd);
    }
}

Page::~Page()
{
    if (socket_ >= 0)
        close(socket_);
}

std::string Page::ended()
{
    if (app_.status_ < 0)
        app_.await_status(0);
    return app_.status_ >= 0 ? "it ended with status " + std::to_string(app_.status_) : "it is still running";
}

void Page::fail(const std::string &what)
{
    const std::string who = "'" + app_.command_ + "' (pid " + std::to_string(app_.pid_) + "): " + what;
    const std::string out = app_.output();
    ADD_FAILURE() << who << "; it printed:\n" << (out.empty() ? "  (nothing)\n" : out);
    throw Refused(who);
}

std::string Page::request(const std::string &request, double bound, bool timeout_ok)
{
    const std::string line = request + "\n";
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t n = send(socket_, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("its page is gone (" + ended() + ")");
        done += n;
    }
    const std::string op = json::parse(request).value("op", "");
    bound += kAnswerMargin;
    std::size_t eol;
    while ((eol = buffer_.find('\n')) == std::string::npos) {
        if (await(socket_, -1, bound) == 0) {
            const std::string state = ended();
            fail("its page did not answer " + op + " within " + std::to_string(bound) + " s (" +
                 (state == "it is still running" ? "it hangs" : state) + ")");
        }
        char chunk[65536];
        const ssize_t n = recv(socket_, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            fail("its page closed the connection (" + ended() + ")");
        buffer_.append(chunk, n);
    }
    const std::string answer = buffer_.substr(0, eol);
    buffer_.erase(0, eol + 1);
    const json parsed = json::parse(answer);
    if (!parsed.value("ok", false) && !(timeout_ok && parsed.value("timeout", false)))
        fail(parsed.value("error", "the request failed"));
    return answer;
}

Item Page::find(const std::string &object_name)
{
    const std::string query = "\"name\":" + json(object_name).dump();
    const json found = json::parse(request("{\"op\":\"find\"," + query + "}"));
    return Item(*this, query, found.value("class", "") + " " + json(object_name).dump());
}

Item Page::findText(const std::string &text)
{
    const std::string query = "\"text\":" + json(text).dump();
    const json found = json::parse(request("{\"op\":\"find\"," + query + "}"));
    return Item(*this, query, found.value("class", "") + " showing " + json(text).dump());
}

void Page::screenshot(const std::string &path)
{
    request(json{{"op", "screenshot"}, {"path", path}}.dump());
}

std::string Page::tree() { return json::parse(request(R"({"op":"tree"})")).value("tree", ""); }

Value::Value(const char *text) : json_(nlohmann::json(text).dump()) {}
Value::Value(const std::string &text) : json_(nlohmann::json(text).dump()) {}
Value::Value(int number) : json_(nlohmann::json(number).dump()) {}
Value::Value(double number) : json_(nlohmann::json(number).dump()) {}
Value::Value(bool truth) : json_(nlohmann::json(truth).dump()) {}

Item::Item(Page &page, std::string query, std::string description)
    : page_(&page), query_(std::move(query)), description_(std::move(description))
{
}

std::string Item::request(const std::string &op, const std::string &fields)
{
    return page_->request("{\"op\":\"" + op + "\"," + query_ + fields + "}");
}

std::string Item::get(const std::string &prop)
{
    const json value = json::parse(request("get", ",\"prop\":" + json(prop).dump()))["value"];
    return value.is_string() ? value.get<std::string>() : value.dump();
}

void Item::set(const std::string &prop, const Value &value)
{
    request("set", ",\"prop\":" + json(prop).dump() + ",\"value\":" + value.json());
}

bool Item::wait(const std::string &prop, const Value &value, double timeout_seconds)
{
    const json answer = json::parse(page_->request("{\"op\":\"wait\"," + query_ + ",\"prop\":" + json(prop).dump() +
                                                       ",\"value\":" + value.json() +
                                                       ",\"timeout\":" + json(timeout_seconds).dump() + "}",
                                                   timeout_seconds, true));
    if (answer.value("ok", false))
        return true;
    ADD_FAILURE() << description_ << ": " << prop << " is " << answer["value"].dump() << ", not " << value.json()
                  << ", after " << timeout_seconds << " s";
    return false;
}

void Item::click() { request("click"); }

void Item::slide(double value) { request("slide", ",\"value\":" + json(value).dump()); }

void Item::type(const std::string &text) { request("type", ",\"keys\":" + json(text).dump()); }

}  // namespace hmisvc::testing
