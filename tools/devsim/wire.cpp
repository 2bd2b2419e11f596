#include "wire.h"

#include "records/encoding.h"

#include <map>
#include <sstream>

#include <cstring>

namespace hmisvc::devsim {

namespace {
constexpr uint32_t kNullItem = 0xFFFFFFFFu;
}

Request::Request(binder_io &msg) : msg_(msg)
{
    uint32_t header = bio_get_uint32(&msg_);
    if (!ran_short() && header != 0)
        fail("leading word is not 0");
}

bool Request::ran_short()
{
    if (msg_.flags & BIO_FLAG_OVERFLOW) {
        fail("request ends early");
        return true;
    }
    return false;
}

uint32_t Request::word()
{
    if (error_)
        return 0;
    uint32_t w = bio_get_uint32(&msg_);
    return ran_short() ? 0 : w;
}

bool Request::boolean()
{
    uint32_t w = word();
    if (w > 1)
        fail("bool argument is neither 0 nor 1");
    return w == 1;
}

const char *Request::counted(bool terminated, uint32_t &len)
{
    if (error_)
        return nullptr;
    // Refuse a length beyond the data before taking it: taken lengths are
    // rounded in 32 bits, so one near 2^32 would wrap to a short take.
    uint32_t ahead = 0;
    if (msg_.data_left >= sizeof ahead) {
        std::memcpy(&ahead, msg_.cursor, sizeof ahead);
        if (ahead != kNullItem && uint64_t{ahead} + terminated > msg_.data_left - sizeof ahead) {
            fail("request ends early");
            return nullptr;
        }
    }
    const void *p = terminated ? bio_get_string(&msg_, &len) : bio_get_mem(&msg_, &len);
    if (ran_short())
        return nullptr;
    if (len == kNullItem) {
        fail(terminated ? "null string" : "null block");
        return nullptr;
    }
    return static_cast<const char *>(p);
}

std::string Request::string()
{
    uint32_t len = 0;
    const char *s = counted(true, len);
    if (s && s[len] != '\0') {
        fail("string without its terminator");
        s = nullptr;
    }
    return s ? std::string(s, len) : std::string();
}

std::string Request::block()
{
    uint32_t len = 0;
    const char *p = counted(false, len);
    return p ? std::string(p, len) : std::string();
}

bool Request::complete()
{
    if (!error_ && msg_.data_left != 0)
        fail("bytes after the last argument");
    return error_ == nullptr;
}

void put(binder_io &reply, int32_t word) { bio_put_uint32(&reply, static_cast<uint32_t>(word)); }

void put(binder_io &reply, bool yes) { bio_put_uint32(&reply, yes ? 1 : 0); }

void put(binder_io &reply, const std::string &text) { bio_put_string(&reply, text.c_str()); }

void put(binder_io &reply, const std::vector<WifiList> &list)
{
    bio_put_uint32(&reply, static_cast<uint32_t>(list.size()));
    for (WifiList entry : list)
        put(reply, entry);
}

Json intent_json(const std::string &bytes)
{
    // Decoded here, as the intent's own fields are not to be listed from
    // outside; kept only when it is exactly what an Intent would send.
    std::string action;
    std::map<std::string, int> ints;
    std::map<std::string, std::string> strings;
    try {
        records::ViewInputArchive read(bytes.data(), bytes.size());
        read(action, ints, strings);
        std::ostringstream again;
        {
            cereal::BinaryOutputArchive write(again);
            write(action, ints, strings);
        }
        if (again.str() == bytes)
            return {{"action", to_json_value(action)}, {"ints", to_json_value(ints)}, {"strings", to_json_value(strings)}};
    } catch (const std::exception &) {  // not an intent: shown as its bytes
    }
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes)
        hex += digits[c >> 4], hex += digits[c & 15];
    return {{"bytes", hex}};
}

}  // namespace hmisvc::devsim
