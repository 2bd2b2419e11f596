// A request as the binder buffer lays it out, spelled independently of
// bio_put_*: 32-bit little-endian words, 8-bit strings with their NUL,
// blocks, each counted item padded to 4 bytes after its length word.
#ifndef HMISVC_TESTS_REQUEST_BYTES_H
#define HMISVC_TESTS_REQUEST_BYTES_H

#include <cstdint>
#include <cstdio>
#include <string>

struct RequestBytes {
    std::string data;

    RequestBytes &word(uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            data += static_cast<char>(v >> (8 * i));
        return *this;
    }
    RequestBytes &str(const std::string &s) { return counted(s.size(), s + '\0'); }
    RequestBytes &mem(const std::string &m) { return counted(m.size(), m); }
    RequestBytes &raw(const std::string &b)
    {
        data += b;
        return *this;
    }
    std::string hex() const
    {
        std::string out;
        char two[3];
        for (unsigned char c : data)
            std::snprintf(two, sizeof two, "%02x", c), out += two;
        return out;
    }

private:
    RequestBytes &counted(std::size_t length, const std::string &payload)
    {
        word(static_cast<uint32_t>(length));
        data += payload;
        data.append((4 - payload.size() % 4) % 4, '\0');
        return *this;
    }
};

// Every request starts with the word 0.
inline RequestBytes request() { return RequestBytes().word(0); }

#endif
