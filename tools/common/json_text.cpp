#include "json_text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hmisvc::tools {

namespace {

// The length of the well-formed UTF-8 sequence at `s[i]`, or 0.
std::size_t sequence(std::string_view s, std::size_t i)
{
    auto at = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char c = at(i);
    if (c < 0x80)
        return 1;
    std::size_t n;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF)
        n = 2;
    else if (c >= 0xE0 && c <= 0xEF)
        n = 3, lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
    else if (c >= 0xF0 && c <= 0xF4)
        n = 4, lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
    else
        return 0;
    if (s.size() - i < n || at(i + 1) < lo || at(i + 1) > hi)
        return 0;
    for (std::size_t k = 2; k < n; ++k)
        if (at(i + k) < 0x80 || at(i + k) > 0xBF)
            return 0;
    return n;
}

void latin1(std::string_view bytes, std::string &out)
{
    for (unsigned char c : bytes) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
}

}  // namespace

bool is_utf8(std::string_view bytes)
{
    for (std::size_t i = 0; i < bytes.size();) {
        std::size_t n = sequence(bytes, i);
        if (n == 0)
            return false;
        i += n;
    }
    return true;
}

std::string to_json_text(std::string_view bytes)
{
    if ((bytes.empty() || bytes[0] != '\0') && is_utf8(bytes))
        return std::string(bytes);
    std::string out(1, '\0');
    latin1(bytes, out);
    return out;
}

bool from_json_text(std::string_view text, std::string &bytes)
{
    if (text.empty() || text[0] != '\0') {
        bytes = std::string(text);
        return true;
    }
    std::string out;
    for (std::size_t i = 1; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if ((c == 0xC2 || c == 0xC3) && i + 1 < text.size() &&
                   (static_cast<unsigned char>(text[i + 1]) & 0xC0) == 0x80) {
            // U+0080..U+00FF: two bytes, the low six bits in the second.
            out += static_cast<char>(((c & 0x03) << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F));
        } else {
            return false;
        }
    }
    bytes = std::move(out);
    return true;
}

std::string printable(std::string_view bytes)
{
    if (is_utf8(bytes))
        return std::string(bytes);
    std::string out;
    latin1(bytes, out);
    return out;
}

std::size_t json_depth(std::string_view text)
{
    std::size_t depth = 0, deepest = 0;
    bool in_string = false, escaped = false;
    for (char c : text) {
        if (in_string) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                in_string = false;
        } else if (c == '"') {
            in_string = true;
        } else if (c == '[' || c == '{') {
            if (++depth > deepest)
                deepest = depth;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

std::string read_json_file(const std::string &path, std::string &text, bool &refused)
{
    refused = false;
    // Without blocking on a pipe's writer; checked on what was opened.
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return path + ": cannot read (" + std::strerror(errno) + ")";
    struct stat st {};
    std::string why;
    if (::fstat(fd, &st) != 0) {
        why = path + ": cannot read (" + std::strerror(errno) + ")";
    } else if (!S_ISREG(st.st_mode)) {
        why = path + ": not a regular file", refused = true;
    } else if (static_cast<std::size_t>(st.st_size) > kMaxJsonBytes) {
        why = path + ": " + std::to_string(st.st_size) + " bytes; documents take at most " +
              std::to_string(kMaxJsonBytes), refused = true;
    } else {
        // One byte more than the bound tells a file that grew since.
        text.assign(kMaxJsonBytes + 1, '\0');
        std::size_t got = 0;
        while (got < text.size()) {
            ssize_t n = ::read(fd, &text[got], text.size() - got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                why = path + ": cannot read (" + std::strerror(errno) + ")";
                break;
            }
            if (n == 0)
                break;
            got += static_cast<std::size_t>(n);
        }
        text.resize(got);
        if (why.empty() && got > kMaxJsonBytes)
            why = path + ": grew past " + std::to_string(kMaxJsonBytes) + " bytes while read", refused = true;
    }
    ::close(fd);
    if (!why.empty())
        text.clear();
    return why;
}

}  // namespace hmisvc::tools
