// Helpers shared by the record tests: hex spelling of byte strings, the
// archive's read error, captured standard output.
#ifndef HMISVC_TESTS_RECORDS_WIRE_H
#define HMISVC_TESTS_RECORDS_WIRE_H

#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include <cereal/details/helpers.hpp>

namespace wire {

// "03 00 6E" -> the three bytes; blanks are ignored.
inline std::string bytes(const std::string &hex)
{
    std::string out;
    std::istringstream in(hex);
    std::string pair;
    while (in >> pair)
        out.push_back(static_cast<char>(std::stoul(pair, nullptr, 16)));
    return out;
}

inline std::string hex(const std::string &data)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : data) {
        if (!out.empty())
            out += ' ';
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

inline std::string readError(std::size_t requested, std::size_t transferred)
{
    return "Failed to read " + std::to_string(requested) + " bytes from input stream! Read " +
           std::to_string(transferred);
}

// The message of the cereal::Exception that decoding raises, or "no error".
template <class Record>
std::string decodeError(Record &record, const std::string &data)
{
    try {
        record.fromString(data);
    } catch (const cereal::Exception &e) {
        return e.what();
    }
    return "no error";
}

// The 4 bytes of an int or a 32-bit enumeration as they travel.
template <class T>
std::string raw(T value)
{
    static_assert(sizeof(T) == 4);
    std::string out(4, '\0');
    std::memcpy(&out[0], &value, 4);
    return out;
}

template <class Fn>
std::string captureStdout(Fn fn)
{
    std::ostringstream captured;
    std::streambuf *saved = std::cout.rdbuf(captured.rdbuf());
    fn();
    std::cout.rdbuf(saved);
    return captured.str();
}

} // namespace wire

#endif
