#include "output.h"

#include <cstdio>
#include <iostream>

#include <hmisvc/binder.h>

#include "json_text.h"

namespace cli {
namespace {

std::string scalar(const Json &v) { return v.is_string() ? v.get<std::string>() : v.dump(); }

// Text form: scalars as they are, an object as NAME=VALUE lines, a list one
// element a line (an object's values tab-separated, in field order).
void printText(const Json &v)
{
    if (v.is_object()) {
        for (auto &[name, field] : v.items())
            std::cout << name << '=' << scalar(field) << '\n';
    } else if (v.is_array()) {
        for (const Json &e : v) {
            if (!e.is_object()) {
                std::cout << scalar(e) << '\n';
                continue;
            }
            const char *sep = "";
            for (const Json &field : e)
                std::cout << sep << scalar(field), sep = "\t";
            std::cout << '\n';
        }
    } else if (!v.is_null()) {
        std::cout << scalar(v) << '\n';
    }
}

} // namespace

Reply failed(const std::string &why) { return {kFailed, nullptr, "", "failed: " + why}; }

Reply refused(const std::string &service, long answer)
{
    return {kRefused, answer, "", "refused: " + service + " answered " + std::to_string(answer)};
}

Reply done() { return {kOk, nullptr, "ok", ""}; }

int print(const Reply &reply, bool json)
{
    // Texts are bytes: JSON carries them in the byte-string form.
    if (json && !reply.value.is_null())
        std::cout << hmisvc::tools::dump_json(hmisvc::tools::encode_strings(reply.value)) << '\n';
    else if (!json && !reply.text.empty())
        std::cout << reply.text << '\n';
    else if (!json)
        printText(reply.value);
    std::cout << std::flush;
    if (!reply.error.empty())
        std::cerr << reply.error << std::endl;
    return reply.status;
}

Reply reachable(const std::string &service)
{
    // The binder layer prints why an open failed.
    binder_connection *bs = binder_open(1024);
    if (!bs)
        return failed("no usable binder driver (/dev/binder)");
    uint32_t handle = svcmgr_lookup(bs, 0, service.c_str());
    binder_close(bs);
    if (handle == 0)
        return failed(service + " is not registered");
    return {};
}

LibraryLines::LibraryLines() : saved_(std::cout.rdbuf(&lines_)) {}

LibraryLines::~LibraryLines()
{
    std::cout.rdbuf(saved_);
    std::cerr << lines_.str() << std::flush;
}

bool LibraryLines::callFailed() const
{
    const std::string text = lines_.str();
    return text.find("Fail binder call") != std::string::npos ||
           text.find("Failed to find service") != std::string::npos;
}

Reply callService(const std::string &service, const std::function<Reply()> &call)
{
    if (Reply r = reachable(service); r.status != kOk)
        return r;
    LibraryLines lines;
    try {
        Reply r = call();
        if (lines.callFailed())
            return failed(service + " did not answer");
        if (r.status == kFailed && r.error.empty())
            r.error = "failed: " + service + " answered false";
        return r;
    } catch (const std::logic_error &) {
        // A string getter whose call failed builds its result from nothing.
        return failed(service + " did not answer");
    } catch (const std::exception &) {
        // A record the library could not decode.
        return failed(service + " sent a reply that could not be read");
    }
}

} // namespace cli
