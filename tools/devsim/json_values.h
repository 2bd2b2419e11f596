// Values of the simulated device as JSON, written once per type: records
// travel as objects whose field names say what each text or number is (the
// simulator's reading of them, see device_state.h), and a value read back is
// checked strictly: a wrong type, a number out of range or an unknown field
// is an error (JsonError), never a conversion. Texts are bytes: they travel
// in the byte-string form of json_text.h, so any bytes survive a dump and a
// load.
#ifndef HMISVC_DEVSIM_JSON_VALUES_H
#define HMISVC_DEVSIM_JSON_VALUES_H

#include <hmisvc/records.h>

#include "json_text.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <limits>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace hmisvc::devsim {

using Json = nlohmann::ordered_json;

struct JsonError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Field tables: fields(record, visit) calls visit(name, member) per field.
template <class V> void fields(Date &r, V &&v)
{
    v("year", r.year), v("month", r.month), v("day", r.day), v("hour", r.hour), v("minute", r.minute),
        v("second", r.second), v("millisecond", r.subsecond), v("weekday", r.extra);
}
template <class V> void fields(NetInfo &r, V &&v)
{
    v("address", r.text1), v("netmask", r.text2), v("gateway", r.text3), v("dns1", r.text4), v("dns2", r.text5),
        v("interface", r.text6), v("dhcp", r.kind);
}
template <class V> void fields(P4gInfo &r, V &&v)
{
    v("operator", r.text1), v("imei", r.text2), v("address", r.text3), v("apn", r.text4), v("mode", r.text5),
        v("state", r.text6), v("registered", r.kind), v("level", r.value);
}
template <class V> void fields(WifiInfo &r, V &&v)
{
    v("ssid", r.text1), v("address", r.text2), v("netmask", r.text3), v("gateway", r.text4), v("bssid", r.text5),
        v("state", r.text6), v("signal_dbm", r.value);
}
template <class V> void fields(WifiList &r, V &&v)
{
    v("ssid", r.text1), v("bssid", r.text2), v("security", r.text3), v("signal_dbm", r.value),
        v("frequency_mhz", r.text4), v("security_kind", r.kind);
}

struct AnyField {
    template <class M> void operator()(const char *, M &) const {}
};
template <class T, class = void> struct has_fields : std::false_type {};
template <class T>
struct has_fields<T, std::void_t<decltype(fields(std::declval<T &>(), AnyField{}))>> : std::true_type {};
template <class T> struct is_vector : std::false_type {};
template <class T> struct is_vector<std::vector<T>> : std::true_type {};
template <class T> struct is_map : std::false_type {};
template <class V> struct is_map<std::map<std::string, V>> : std::true_type {};

template <class T> Json to_json_value(const T &x);
template <class T> void from_json_value(const Json &j, T &x, const std::string &where);

template <class T> Json to_json_value(const T &x)
{
    if constexpr (has_fields<T>::value) {
        Json out = Json::object();
        fields(const_cast<T &>(x), [&](const char *name, auto &m) { out[name] = to_json_value(m); });
        return out;
    } else if constexpr (std::is_enum_v<T>) {
        return static_cast<int32_t>(x);
    } else if constexpr (std::is_same_v<T, std::chrono::milliseconds>) {
        return static_cast<int64_t>(x.count());
    } else if constexpr (is_vector<T>::value || std::is_same_v<T, std::array<std::string, 4>>) {
        Json out = Json::array();
        for (const auto &e : x)
            out.push_back(to_json_value(e));
        return out;
    } else if constexpr (is_map<T>::value) {
        Json out = Json::object();
        for (const auto &[key, value] : x)
            out[tools::to_json_text(key)] = to_json_value(value);
        return out;
    } else if constexpr (std::is_same_v<T, std::string>) {
        return Json(tools::to_json_text(x));
    } else {
        return Json(x);  // numbers, bools
    }
}

// A value as a message shows it: printed, and cut short when long.
inline std::string shown(const Json &value)
{
    constexpr std::size_t kShown = 80;
    std::string text = tools::dump_json(value);
    return text.size() <= kShown ? text : text.substr(0, kShown) + "... (" + std::to_string(text.size()) + " bytes)";
}

[[noreturn]] inline void type_error(const std::string &where, const char *want, const Json &got)
{
    throw JsonError(where + ": expected " + want + ", got " + shown(got));
}

// The bytes a document's string stands for.
inline std::string bytes_of(const std::string &text, const std::string &where)
{
    std::string bytes;
    if (!tools::from_json_text(text, bytes))
        throw JsonError(where + ": a string that begins with \\u0000 holds bytes, \\u0000 to \\u00ff only");
    return bytes;
}

template <class T> void from_json_value(const Json &j, T &x, const std::string &where)
{
    if constexpr (has_fields<T>::value) {
        if (!j.is_object())
            type_error(where, "an object", j);
        std::size_t known = 0;
        fields(x, [&](const char *name, auto &m) {
            if (auto it = j.find(name); it != j.end())
                ++known, from_json_value(*it, m, where + "." + name);
        });
        if (known != j.size())
            for (auto it = j.begin(); it != j.end(); ++it) {
                bool found = false;
                fields(x, [&](const char *name, auto &) { found |= it.key() == name; });
                if (!found)
                    throw JsonError(where + "." + it.key() + ": no such field");
            }
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!j.is_boolean())
            type_error(where, "true or false", j);
        x = j.get<bool>();
    } else if constexpr (std::is_enum_v<T> || std::is_integral_v<T> ||
                         std::is_same_v<T, std::chrono::milliseconds>) {
        using N = std::conditional_t<std::is_same_v<T, std::chrono::milliseconds>, int64_t,
                                     std::conditional_t<std::is_enum_v<T>, int32_t, T>>;
        if (!j.is_number_integer())
            type_error(where, "an integer", j);
        bool fits = j.is_number_unsigned() ? j.get<uint64_t>() <= static_cast<uint64_t>(INT64_MAX) &&
                                                 j.get<int64_t>() <= std::numeric_limits<N>::max()
                                           : j.get<int64_t>() >= std::numeric_limits<N>::min() &&
                                                 j.get<int64_t>() <= std::numeric_limits<N>::max();
        if (!fits)
            type_error(where, "an integer in range", j);
        x = T(static_cast<N>(j.get<int64_t>()));
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!j.is_string())
            type_error(where, "a string", j);
        x = bytes_of(j.get_ref<const std::string &>(), where);
    } else if constexpr (std::is_same_v<T, std::array<std::string, 4>>) {
        if (!j.is_array() || j.size() != 4)
            type_error(where, "an array of 4 strings", j);
        for (std::size_t i = 0; i < 4; ++i)
            from_json_value(j[i], x[i], where + "[" + std::to_string(i) + "]");
    } else if constexpr (is_vector<T>::value) {
        if (!j.is_array())
            type_error(where, "an array", j);
        T out(j.size());
        for (std::size_t i = 0; i < j.size(); ++i)
            from_json_value(j[i], out[i], where + "[" + std::to_string(i) + "]");
        x = std::move(out);
    } else {  // a map from names to T::mapped_type
        if (!j.is_object())
            type_error(where, "an object", j);
        T out;
        for (auto it = j.begin(); it != j.end(); ++it)
            from_json_value(it.value(), out[bytes_of(it.key(), where + "." + it.key())], where + "." + it.key());
        x = std::move(out);
    }
}

// Type names of method arguments, as the method table reports them.
template <class T> const char *type_name()
{
    if constexpr (std::is_same_v<T, std::string>)
        return "string";
    else if constexpr (std::is_same_v<T, bool>)
        return "bool";
    else if constexpr (std::is_integral_v<T>)
        return "int";
    else if constexpr (std::is_same_v<T, Date>)
        return "Date";
    else if constexpr (std::is_same_v<T, NetInfo>)
        return "NetInfo";
    else
        return "record";
}

}  // namespace hmisvc::devsim

#endif
