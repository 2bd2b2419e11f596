// The one shape of every proxy method: build the request (the word 0, then
// the arguments), make the transaction, decode the reply, give the reply
// back, and on failure print "Fail binder call <label>" and hand back the
// method's failure value. A method states only what is its own.
#ifndef HMISVC_PROXIES_CALL_H
#define HMISVC_PROXIES_CALL_H

#include <cstdint>
#include <iostream>
#include <numeric>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <hmisvc/binder.h>
#include <hmisvc/context.h>

#include "proxies/call_record.h"

namespace hmisvc::proxy {

// Request data areas: most services take short requests, the network ones
// records and long strings.
inline constexpr unsigned kSmall = 128;
inline constexpr unsigned kLarge = 4096;

// Method codes are data in the object, numbered in method order.
template <std::size_t N> void number(unsigned int (&codes)[N]) {
    std::iota(codes, codes + N, 0u);
}

// What every proxy class defines alike: its name, its mapping size, and a
// constructor that looks the service up and numbers the method codes.
#define HMISVC_DEFINE_PROXY(Class, name)                                                           \
    std::string Class::SERVICE_NAME = name;                                                        \
    const unsigned int Class::MAP_SIZE;                                                            \
    Class::Class() : ServiceManager(SERVICE_NAME, MAP_SIZE) { hmisvc::proxy::number(codes_); }     \
    Class::~Class() = default

void report_failure(const char *label);

// What std::string construction from a null pointer raised on the device's
// C++ library; kept as the one error for a reply that lacks its string.
[[noreturn]] void throw_null_string();

// ---- arguments ----

struct Block {
    std::string bytes;
};

inline void put(binder_io *msg, const std::string &s) { bio_put_string(msg, s.c_str()); }
inline void put(binder_io *msg, const Block &b) {
    bio_put_mem(msg, b.bytes.data(), static_cast<uint32_t>(b.bytes.size()));
}
inline void put(binder_io *msg, uint32_t v) { bio_put_uint32(msg, v); }

template <class T, class = void> struct is_record : std::false_type {};
template <class T>
struct is_record<T, std::void_t<decltype(std::declval<T &>().toString())>> : std::true_type {};

// Records travel as their encoding in one block, which must outlive the
// call; numbers (int, long, bool) as one 32-bit word; strings as C strings.
template <class T> auto wire(T &v) {
    if constexpr (is_record<T>::value)
        return Block{v.toString()};
    else if constexpr (std::is_same_v<std::remove_const_t<T>, std::string>)
        return std::cref(v);
    else
        return static_cast<uint32_t>(v);
}
inline void put(binder_io *msg, std::reference_wrapper<const std::string> s) { put(msg, s.get()); }

// ---- replies ----

// One memory block of the reply as a string; a null block reads as empty.
std::string take_block(binder_io *reply);
std::string take_string(binder_io *reply);

inline constexpr auto nothing = [](binder_io *) {};
inline constexpr auto word = [](binder_io *r) { return static_cast<int32_t>(bio_get_uint32(r)); };
// A long is 32 bits on the device; sign-extend it where long is wider.
inline constexpr auto long_word = [](binder_io *r) -> long { return static_cast<int32_t>(bio_get_uint32(r)); };
inline constexpr auto flag = [](binder_io *r) { return bio_get_uint32(r) != 0; };
inline constexpr auto text = [](binder_io *r) { return take_string(r); };
// Delivery is the answer: the reply is not read.
template <bool V> inline constexpr auto delivered = [](binder_io *) { return V; };

// Decodes a record block into the caller's record.
template <class R> auto into(R &record) {
    return [&record](binder_io *r) {
        record.fromString(take_block(r));
        return true;
    };
}

// ---- failure ----

// How a failed call departs from "print and return the failure value".
enum class OnFailure {
    Return,       // the rule
    StillRelease, // still gives the (empty) reply back
    StillDecode,  // still decodes the (empty) reply and gives it back
};

struct NoValue {};  // for methods without a result
struct Throws {};   // the MAC/CCID getters raise instead of returning
inline constexpr NoValue no_value{};
inline constexpr Throws throws{};

template <unsigned Area, OnFailure Mode = OnFailure::Return, class Decode, class Fail, class... Args>
auto call(ServiceManager &sm, unsigned int code, const char *label, Decode decode, Fail &&fail,
          Args &...args) -> decltype(decode(nullptr)) {
    using Result = decltype(decode(nullptr));
    alignas(8) unsigned char area[Area];
    binder_io msg;
    binder_io reply{}; // reads as empty if nothing ever fills it
    bio_init(&msg, area, Area, 4);
    bio_put_uint32(&msg, 0);
    auto wired = std::make_tuple(wire(args)...);
    std::apply([&msg](const auto &...w) { (put(&msg, w), ...); }, wired);

    detail::CallRecord record;
    if (sm.BinderCall(&msg, &reply, code) != 0) {
        detail::CallRecord::failed(reply);
        report_failure(label);
        if constexpr (Mode == OnFailure::StillRelease) {
            sm.BinderDone(&msg, &reply);
        } else if constexpr (Mode == OnFailure::StillDecode) {
            Result value = decode(&reply);
            sm.BinderDone(&msg, &reply);
            return value;
        }
        if constexpr (std::is_same_v<std::decay_t<Fail>, Throws>)
            throw_null_string();
        else if constexpr (!std::is_void_v<Result>)
            return static_cast<Result>(std::forward<Fail>(fail));
        else
            return;
    }
    if constexpr (std::is_void_v<Result>) {
        decode(&reply);
        detail::CallRecord::decoded(reply);
        sm.BinderDone(&msg, &reply);
    } else {
        Result value = decode(&reply);
        detail::CallRecord::decoded(reply);
        sm.BinderDone(&msg, &reply);
        return value;
    }
}

} // namespace hmisvc::proxy

#endif
