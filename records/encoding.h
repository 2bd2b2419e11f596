// The record encoding: cereal's binary archives over string streams, with the
// string and map conventions of the device spelled out here.
//
// Include this header instead of cereal/types/string.hpp and
// cereal/types/map.hpp: the overloads below take their place, and mixing the
// two in one library would give the same archive two meanings for a string.
#ifndef HMISVC_RECORDS_ENCODING_H
#define HMISVC_RECORDS_ENCODING_H

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include <cereal/archives/binary.hpp>
#include <cereal/cereal.hpp>

// The archives copy values as they lie in memory; that is the wire format only
// on a little-endian host like the device.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "records are encoded little-endian; a big-endian build must swap every number");

namespace cereal {

// A string: an 8-byte size field, then the bytes. The device takes the size
// field through its 32-bit size_t, so only the lower half counts; every
// build does the same. The string is resized before its bytes are read, so a
// short read leaves it at the new length holding the bytes that arrived.
inline void CEREAL_SAVE_FUNCTION_NAME(BinaryOutputArchive &ar, const std::string &str)
{
    ar(make_size_tag(static_cast<size_type>(str.size())));
    ar(binary_data(str.data(), str.size()));
}

inline void CEREAL_LOAD_FUNCTION_NAME(BinaryInputArchive &ar, std::string &str)
{
    size_type size;
    ar(make_size_tag(size));
    const std::size_t length = static_cast<std::uint32_t>(size);
    str.resize(length);
    ar(binary_data(&str[0], length));
}

// A map: an 8-byte entry count, then key and value per entry in key order.
// The count is taken whole: on the device the 32-bit loop counter wraps
// below a count beyond 32 bits, so such a map reads until the bytes run out.
template <class Value>
void CEREAL_SAVE_FUNCTION_NAME(BinaryOutputArchive &ar, const std::map<std::string, Value> &map)
{
    ar(make_size_tag(static_cast<size_type>(map.size())));
    for (const auto &entry : map)
        ar(entry.first, entry.second);
}

// Cleared once the count has arrived; each entry is inserted with a hint at
// the previous one, so a key that occurs twice keeps its first value.
template <class Value>
void CEREAL_LOAD_FUNCTION_NAME(BinaryInputArchive &ar, std::map<std::string, Value> &map)
{
    size_type count;
    ar(make_size_tag(count));
    map.clear();
    auto hint = map.begin();
    for (size_type i = 0; i < count; ++i) {
        std::string key;
        Value value{};
        ar(key, value);
        hint = map.emplace_hint(hint, std::move(key), std::move(value));
    }
}

} // namespace cereal

namespace hmisvc::records {

template <class Record>
std::string encode(Record &record)
{
    std::ostringstream out;
    cereal::BinaryOutputArchive ar(out);
    ar(record);
    return out.str();
}

// Fields are assigned as they are read; bytes after the last one are ignored.
template <class Record>
void decode(Record &record, const std::string &data)
{
    std::istringstream in(data);
    cereal::BinaryInputArchive ar(in);
    ar(record);
}

} // namespace hmisvc::records

// The members every record shares, defined after its serialize(): the two
// archive instantiations, toString() and fromString().
#define HMISVC_RECORD_ENCODING(Record)                                                       \
    template void Record::serialize<cereal::BinaryOutputArchive>(cereal::BinaryOutputArchive &); \
    template void Record::serialize<cereal::BinaryInputArchive>(cereal::BinaryInputArchive &);   \
    std::string Record::toString() { return ::hmisvc::records::encode(*this); }              \
    void Record::fromString(std::string data) { ::hmisvc::records::decode(*this, data); }

#endif
