// The record encoding: cereal's binary output archive over a string stream,
// a binary input archive over the bytes given, with the string and map
// conventions of the device spelled out here.
//
// Include this header instead of cereal/types/string.hpp and
// cereal/types/map.hpp: the overloads below take their place, and mixing the
// two in one library would give the same archive two meanings for a string.
#ifndef HMISVC_RECORDS_ENCODING_H
#define HMISVC_RECORDS_ENCODING_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
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

namespace hmisvc::records {

// cereal's binary input archive over bytes already in memory, which knows
// how many remain: a size field that claims more than that is refused
// before anything is allocated for it, as a short record. Reads, and their
// errors, are otherwise those of cereal::BinaryInputArchive.
class ViewInputArchive : public cereal::InputArchive<ViewInputArchive, cereal::AllowEmptyClassElision> {
public:
    ViewInputArchive(const char *data, std::size_t size)
        : cereal::InputArchive<ViewInputArchive, cereal::AllowEmptyClassElision>(this), at_(data), left_(size)
    {
    }

    // Copies what arrived of `size` bytes, then throws when that was short
    // (an int keeps the bytes that came in its low-order end).
    void loadBinary(void *data, std::size_t size)
    {
        const std::size_t got = size < left_ ? size : left_;
        if (got)
            std::memcpy(data, at_, got);
        at_ += got;
        left_ -= got;
        if (got != size)
            throw short_read(size, got);
    }
    std::size_t remaining() const { return left_; }

    static cereal::Exception short_read(std::size_t requested, std::size_t transferred)
    {
        return cereal::Exception("Failed to read " + std::to_string(requested) + " bytes from input stream! Read " +
                                 std::to_string(transferred));
    }

private:
    const char *at_;
    std::size_t left_;
};

} // namespace hmisvc::records

namespace cereal {

template <class T>
std::enable_if_t<std::is_arithmetic<T>::value> CEREAL_LOAD_FUNCTION_NAME(hmisvc::records::ViewInputArchive &ar, T &t)
{
    ar.loadBinary(std::addressof(t), sizeof(t));
}

template <class T>
void CEREAL_SERIALIZE_FUNCTION_NAME(hmisvc::records::ViewInputArchive &ar, NameValuePair<T> &t)
{
    ar(t.value);
}

template <class T>
void CEREAL_SERIALIZE_FUNCTION_NAME(hmisvc::records::ViewInputArchive &ar, SizeTag<T> &t)
{
    ar(t.size);
}

template <class T>
void CEREAL_LOAD_FUNCTION_NAME(hmisvc::records::ViewInputArchive &ar, BinaryData<T> &bd)
{
    ar.loadBinary(bd.data, static_cast<std::size_t>(bd.size));
}

namespace traits::detail {
template <> struct get_output_from_input<hmisvc::records::ViewInputArchive> {
    using type = BinaryOutputArchive;
};
} // namespace traits::detail

// Bytes an archive can still give: unknown for a stream.
inline std::size_t bytes_left(BinaryInputArchive &) { return SIZE_MAX; }
inline std::size_t bytes_left(hmisvc::records::ViewInputArchive &ar) { return ar.remaining(); }

template <class Archive>
using IfRecordInput = std::enable_if_t<std::is_same<Archive, BinaryInputArchive>::value ||
                                       std::is_same<Archive, hmisvc::records::ViewInputArchive>::value>;

// A string: an 8-byte size field, then the bytes. The device takes the size
// field through its 32-bit size_t, so only the lower half counts; every
// build does the same. A size beyond the bytes that remain is a short
// record, refused before the string changes; otherwise the string is
// resized, then filled.
inline void CEREAL_SAVE_FUNCTION_NAME(BinaryOutputArchive &ar, const std::string &str)
{
    ar(make_size_tag(static_cast<size_type>(str.size())));
    ar(binary_data(str.data(), str.size()));
}

template <class Archive, class = IfRecordInput<Archive>>
void CEREAL_LOAD_FUNCTION_NAME(Archive &ar, std::string &str)
{
    size_type size;
    ar(make_size_tag(size));
    const std::size_t length = static_cast<std::uint32_t>(size);
    if (length > bytes_left(ar))
        throw hmisvc::records::ViewInputArchive::short_read(length, bytes_left(ar));
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
// Nothing is reserved by the count: entries are made as their bytes arrive.
template <class Archive, class Value, class = IfRecordInput<Archive>>
void CEREAL_LOAD_FUNCTION_NAME(Archive &ar, std::map<std::string, Value> &map)
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

CEREAL_REGISTER_ARCHIVE(hmisvc::records::ViewInputArchive)

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
// Nothing is allocated beyond the bytes given.
template <class Record>
void decode(Record &record, const std::string &data)
{
    ViewInputArchive ar(data.data(), data.size());
    ar(record);
}

} // namespace hmisvc::records

// The members every record shares, defined after its serialize(): the two
// archive instantiations, toString() and fromString().
#define HMISVC_RECORD_ENCODING(Record)                                                       \
    template void Record::serialize<cereal::BinaryOutputArchive>(cereal::BinaryOutputArchive &); \
    template void Record::serialize<cereal::BinaryInputArchive>(cereal::BinaryInputArchive &);   \
    template void Record::serialize<::hmisvc::records::ViewInputArchive>(::hmisvc::records::ViewInputArchive &); \
    std::string Record::toString() { return ::hmisvc::records::encode(*this); }              \
    void Record::fromString(std::string data) { ::hmisvc::records::decode(*this, data); }

#endif
