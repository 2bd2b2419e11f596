// What every hmisvc command shares: exit statuses, the reply it prints (as
// text or --json), the check that a service is reachable before a call, and
// the watch on the library's own failure lines during a call.
#ifndef HMISVC_CLI_OUTPUT_H
#define HMISVC_CLI_OUTPUT_H

#include <functional>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

namespace cli {

using Json = nlohmann::ordered_json;

// Exit statuses of the tool.
enum Status : int {
    kOk = 0,
    kFailed = 1,  // the call failed, or the service cannot be reached
    kUsage = 2,   // bad command line; nothing was sent
    kRefused = 3, // the service answered with a non-zero status
};

// What a command prints: `value` on stdout (null prints nothing), `error` as
// one line on stderr.
struct Reply {
    int status = kOk;
    Json value;
    std::string text; // the text form, when the generic one will not do
    std::string error;
};

Reply failed(const std::string &why);
Reply refused(const std::string &service, long answer);
// "ok" in text mode; nothing in JSON mode (the exit status says it).
Reply done();

// Prints a reply in the chosen form and gives its exit status.
int print(const Reply &reply, bool json);

// Whether the driver opens and the service manager knows `service`: an empty
// Reply when so, otherwise the failure to print. Nothing is sent to the
// service itself.
Reply reachable(const std::string &service);

// Captures what the library writes to std::cout while it lives and relays it
// to stderr when it ends, so that stdout carries results only. The library
// reports each failed call there with a "Fail binder call" line.
class LibraryLines {
public:
    LibraryLines();
    ~LibraryLines();
    LibraryLines(const LibraryLines &) = delete;
    LibraryLines &operator=(const LibraryLines &) = delete;
    bool callFailed() const;

private:
    std::stringbuf lines_;
    std::streambuf *saved_;
};

// Runs one call on `service`: checks it is reachable, watches the library's
// lines, and turns a failed call or an exception into a failure reply
// instead of the library's answer. A failure reply without a line of its
// own (a success flag that came back false) gets one naming the service.
Reply callService(const std::string &service, const std::function<Reply()> &call);

} // namespace cli

#endif
