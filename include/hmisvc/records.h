// Records exchanged with the system services: dates, the Ethernet and 4G
// descriptions and the Wi-Fi state. Each travels as the byte string of its
// toString(); fromString() decodes such a string in place and throws
// cereal::Exception when the bytes end early.
//
// serialize() lists the fields in the order they travel. It is defined inside
// the library for cereal's binary archives only, so including this header
// does not pull cereal in.
#ifndef HMISVC_RECORDS_H
#define HMISVC_RECORDS_H

#include <cstdint>
#include <string>

#include <hmisvc/export.h>

class HMISVC_API Date {
public:
    // Smallest unit first: the date service reads and writes this order.
    int subsecond = 0;
    int second = 0;
    int minute = 0;
    int hour = 0;
    int day = 0;
    int month = 0;
    int year = 0;
    int extra = 0;

    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);

    // "year-month-day hour:minute:second:subsecond" with extra run straight on.
    void PrintTime();
};

class HMISVC_API NetInfo {
public:
    // The enumerators belong to the Ethernet service; the library carries
    // the value unchanged.
    enum Kind : std::int32_t {};

    std::string text1;
    std::string text2;
    std::string text3;
    std::string text4;
    std::string text5;
    std::string text6;
    Kind kind = Kind(0);

    // Sends text6 before text5: the Ethernet service expects that order.
    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);
};

class HMISVC_API P4gInfo {
public:
    enum Kind : std::int32_t {};

    std::string text1;
    std::string text2;
    std::string text3;
    std::string text4;
    std::string text5;
    std::string text6;
    Kind kind = Kind(0);
    int value = 0;

    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);
};

class HMISVC_API WifiInfo {
public:
    std::string text1;
    std::string text2;
    std::string text3;
    std::string text4;
    std::string text5;
    std::string text6;
    int value = 0;

    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);
};

// One network of the Wi-Fi scan list.
class HMISVC_API WifiList {
public:
    enum Kind : std::int32_t {};

    WifiList() = default;
    WifiList(const WifiList &) = default;
    WifiList(WifiList &&) = default;
    WifiList &operator=(const WifiList &) = default;
    WifiList &operator=(WifiList &&) = default;
    ~WifiList();

    std::string text1;
    std::string text2;
    std::string text3;
    int value = 0;
    std::string text4;
    Kind kind = Kind(0);
    // The application's own: never encoded, never touched by decoding.
    std::string localText;

    // Sends kind before text4, and leaves localText out.
    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);
};

#endif
