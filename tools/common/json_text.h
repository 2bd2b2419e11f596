// Byte strings in JSON documents, and the limits JSON input is read under.
//
// JSON strings hold Unicode text, but what clients send (settings values
// and keys, record texts, names) is bytes. One form carries any bytes:
//
//  - a byte string that is valid UTF-8 and does not begin with a NUL byte
//    is written as the text it is;
//  - any other byte string is written as U+0000 followed by its Latin-1
//    reading: each byte 0xXX becomes the code point U+00XX. "caf" E9
//    (Latin-1 for "café") becomes "\u0000café".
//
// Reading a string back undoes this: one that begins with U+0000 must hold
// code points up to U+00FF only, which give its bytes; any other gives its
// UTF-8 bytes. So every byte string is written as valid UTF-8 and read back
// to the same bytes.
#ifndef HMISVC_TOOLS_JSON_TEXT_H
#define HMISVC_TOOLS_JSON_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace hmisvc::tools {

// Well-formed UTF-8 as JSON takes it: no overlong forms, no surrogates,
// nothing above U+10FFFF.
bool is_utf8(std::string_view bytes);

// The JSON string's text for `bytes` (the form above).
std::string to_json_text(std::string_view bytes);
// The bytes a JSON string's text stands for; false when it begins with
// U+0000 but holds a code point above U+00FF (then `bytes` is unchanged).
bool from_json_text(std::string_view text, std::string &bytes);

// For messages: the bytes as they are when they are UTF-8, otherwise their
// Latin-1 reading (without the marker).
std::string printable(std::string_view bytes);

// JSON input is refused beyond these: no document the tools write comes
// near either, and a deeper one would exhaust the stack of the recursive
// steps (copy, compare, print) that follow the parse. The size bound keeps
// a request within the simulator's binder mapping (1 MiB), which several
// calls share.
constexpr std::size_t kMaxJsonDepth = 64;
constexpr std::size_t kMaxJsonBytes = 512 * 1024;

// A JSON document from a file, read whole: "" with `text` set, or why not
// ("PATH: ..."), with `refused` set when it is not a regular file or is
// larger than kMaxJsonBytes (both found before reading: /dev/zero or a pipe
// would never end) rather than unreadable.
std::string read_json_file(const std::string &path, std::string &text, bool &refused);

// The deepest nesting of arrays and objects in `text`, read as JSON would
// be (brackets inside strings do not count); the text need not be JSON.
std::size_t json_depth(std::string_view text);

// Parses `text` into `out` within the limits. Returns "" on success;
// otherwise why not: kNotJson, or a refusal that names the limit.
constexpr const char *kNotJson = "not JSON";
template <class J> std::string parse_json(std::string_view text, J &out)
{
    if (text.size() > kMaxJsonBytes)
        return "larger than " + std::to_string(kMaxJsonBytes) + " bytes (the most JSON input may take)";
    if (json_depth(text) > kMaxJsonDepth) {
        // The parser itself does not recurse: it can tell JSON from not.
        if (!J::accept(text))
            return kNotJson;
        return "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels (the most JSON input may take)";
    }
    J parsed = J::parse(text, nullptr, false);
    if (parsed.is_discarded())
        return kNotJson;
    out = std::move(parsed);
    return "";
}

// A copy of `raw` with every string and object key (bytes) in the form
// above, so that it prints whatever bytes it holds.
template <class J> J encode_strings(const J &raw)
{
    if (raw.is_string())
        return J(to_json_text(raw.template get_ref<const std::string &>()));
    if (raw.is_array()) {
        J out = J::array();
        for (const J &e : raw)
            out.push_back(encode_strings(e));
        return out;
    }
    if (raw.is_object()) {
        J out = J::object();
        for (auto it = raw.begin(); it != raw.end(); ++it)
            out[to_json_text(it.key())] = encode_strings(it.value());
        return out;
    }
    return raw;
}

// Prints a document whose strings are in the form above. A string that
// missed the encoding is printed with U+FFFD for its bad bytes rather than
// ending the program.
template <class J> std::string dump_json(const J &j, int indent = -1)
{
    return j.dump(indent, ' ', false, J::error_handler_t::replace);
}

}  // namespace hmisvc::tools

#endif
