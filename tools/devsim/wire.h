// Request decoding and reply encoding, written once for every method: a
// method states its arguments as parameter types and its answer as its
// result type, and serve() turns that into a handler that reads the
// request strictly, refuses a malformed one before touching any state, and
// writes the answer in the layout the proxies decode.
#ifndef HMISVC_DEVSIM_WIRE_H
#define HMISVC_DEVSIM_WIRE_H

#include <hmisvc/binder.h>
#include <hmisvc/records.h>

#include "json_values.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

namespace hmisvc::devsim {

// Reply status of a request that was not served (0: served).
enum Status : int {
    kOk = 0,
    kBadRequest = -EINVAL,
    kUnknownMethod = -ENOSYS,
    kReplyTooLarge = -EMSGSIZE,
};

// Reads one request: the leading word 0, then the arguments. The first
// problem is kept; reads after it give empty values without looking at the
// data again.
class Request {
public:
    explicit Request(binder_io &msg);

    uint32_t word();
    bool boolean();
    std::string string();
    std::string block();
    template <class R> R record();

    // After the last argument: true when nothing was missing, malformed or
    // left over.
    bool complete();
    const char *error() const { return error_; }

private:
    void fail(const char *why)
    {
        if (!error_)
            error_ = why;
    }
    // Sets the error when the last read ran past the data.
    bool ran_short();
    // A length-prefixed item (a NUL-terminated string or a block): its
    // bytes, or null after noting why there are none.
    const char *counted(bool terminated, uint32_t &len);

    binder_io &msg_;
    const char *error_ = nullptr;
};

template <class R> R Request::record()
{
    std::string bytes = block();
    R r;
    if (error_)
        return r;
    try {
        r.fromString(bytes);
    } catch (const std::exception &) {  // cereal::Exception, or a size no string can take
        fail("record does not decode");
        return R{};
    }
    // The proxies send exactly toString()'s bytes; anything else (bytes
    // after the record, a size field with its upper half set) is not theirs.
    if (r.toString() != bytes)
        fail("record block is not an exact encoding");
    return r;
}

template <class T> T read(Request &in)
{
    if constexpr (std::is_same_v<T, std::string>)
        return in.string();
    else if constexpr (std::is_same_v<T, bool>)
        return in.boolean();
    else if constexpr (std::is_integral_v<T>)
        return static_cast<T>(static_cast<int32_t>(in.word()));
    else
        return in.record<T>();
}

// An intent's encoding as the trace shows it: action and extras, or its
// bytes in hex when they are not an intent.
Json intent_json(const std::string &bytes);

// ---- answers ----

void put(binder_io &reply, int32_t word);
void put(binder_io &reply, bool yes);
void put(binder_io &reply, const std::string &text);
void put(binder_io &reply, const std::vector<WifiList> &list);  // count, then one block each
template <class R, class = decltype(std::declval<R &>().toString())>
void put(binder_io &reply, R record)
{
    std::string bytes = record.toString();
    bio_put_mem(&reply, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// Reads an answer back out of a reply, as a caller does; the reply's
// overflow flag is set when it was not there whole or does not decode.
template <class T> T take(binder_io &reply)
{
    if constexpr (std::is_same_v<T, std::string>) {
        uint32_t len = 0;
        const char *s = bio_get_string(&reply, &len);
        return s ? std::string(s, len) : std::string();
    } else if constexpr (std::is_same_v<T, bool>) {
        return bio_get_uint32(&reply) != 0;
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(static_cast<int32_t>(bio_get_uint32(&reply)));
    } else if constexpr (std::is_same_v<T, std::vector<WifiList>>) {
        uint32_t count = bio_get_uint32(&reply);
        if (count > reply.data_left / 4) {  // more entries than words left: not a list
            reply.flags |= BIO_FLAG_OVERFLOW;
            return {};
        }
        std::vector<WifiList> list(count);
        for (WifiList &entry : list)
            entry = take<WifiList>(reply);
        return list;
    } else {
        uint32_t len = 0;
        const void *p = bio_get_mem(&reply, &len);
        T r{};
        try {
            if (p && !(reply.flags & BIO_FLAG_OVERFLOW))
                r.fromString(std::string(static_cast<const char *>(p), len));
        } catch (const std::exception &) {  // a block that is not this record
            reply.flags |= BIO_FLAG_OVERFLOW;
        }
        return r;
    }
}
template <class T> Json answer_json(binder_io &reply) { return to_json_value(take<T>(reply)); }

// ---- methods ----

// With a trace object, the handler adds the decoded arguments ("args") and
// answer ("reply") to it.
using Handler = std::function<int(Request &in, binder_io &reply, Json *trace)>;

namespace detail {
template <class F> struct signature : signature<decltype(&F::operator())> {};
template <class C, class R, class S, class... A> struct signature<R (C::*)(S &, A...) const> {
    using result = R;
    using args = std::tuple<std::decay_t<A>...>;
    static std::vector<const char *> arg_types() { return {type_name<std::decay_t<A>>()...}; }
};
template <class... A> std::tuple<A...> read_all(Request &in, std::tuple<A...> *)
{
    return std::tuple<A...>{read<A>(in)...};  // braces: read in argument order
}
}  // namespace detail

// The arguments of a request as JSON (as a trace shows them), or null when
// the request is malformed; and an answer given as JSON written as the
// method answers it, or only checked (no reply), with `why` set when it is
// not a value of the method's result type.
template <class Args> Json args_json(Request &in)
{
    auto args = detail::read_all(in, static_cast<Args *>(nullptr));
    if (!in.complete())
        return nullptr;
    return std::apply([](auto &...a) { return Json::array({to_json_value(a)...}); }, args);
}
template <class R> const char *answer_type()
{
    if constexpr (std::is_void_v<R>)
        return "nothing (a status word 0)";
    else if constexpr (std::is_same_v<R, std::vector<WifiList>>)
        return "a list of WifiList records";
    else if constexpr (std::is_same_v<R, P4gInfo>)
        return "a P4gInfo record";
    else if constexpr (std::is_same_v<R, WifiInfo>)
        return "a WifiInfo record";
    else
        return type_name<R>();
}
template <class R> bool answer_with(const Json &value, binder_io *reply, std::string &why)
{
    if constexpr (std::is_void_v<R>) {
        why = "answers nothing";
        return false;
    } else {
        R answer{};
        try {
            from_json_value(value, answer, "answer");
        } catch (const JsonError &e) {
            why = e.what();
            return false;
        }
        if (reply)
            put(*reply, answer);
        return true;
    }
}

// f is called as f(state, arguments...) once the whole request has been
// read and found well-formed. A void result answers the status word 0.
template <class State, class F> Handler serve(State &state, F f)
{
    return [&state, f](Request &in, binder_io &reply, Json *trace) -> int {
        using Sig = detail::signature<F>;
        auto args = detail::read_all(in, static_cast<typename Sig::args *>(nullptr));
        if (!in.complete())
            return kBadRequest;
        if (trace)
            std::apply([&](auto &...a) { (*trace)["args"] = Json::array({to_json_value(a)...}); }, args);
        auto call = [&](auto &...a) { return f(state, a...); };
        if constexpr (std::is_void_v<typename Sig::result>) {
            std::apply(call, args);
            put(reply, int32_t{0});
        } else {
            auto answer = std::apply(call, args);
            if (trace)
                (*trace)["reply"] = to_json_value(answer);
            put(reply, answer);
        }
        return kOk;
    };
}

}  // namespace hmisvc::devsim

#endif
