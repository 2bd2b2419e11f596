/**
 * @file
 * Records exchanged with the system services: dates, the Ethernet and 4G
 * descriptions and the Wi-Fi state. Each travels as the byte string of its
 * toString(); fromString() decodes such a string in place and throws
 * cereal::Exception when the bytes end early.
 *
 * serialize() lists the fields in the order they travel. It is defined inside
 * the library for cereal's binary archives only, so including this header
 * does not pull cereal in.
 *
 * The services define what the numbered text fields and the numbers mean;
 * each field says what the simulator (hmisvc-devsim) puts there. Records are
 * plain values without locks: don't decode into one another thread reads.
 */
#ifndef HMISVC_RECORDS_H
#define HMISVC_RECORDS_H

#include <cstdint>
#include <string>

#include <hmisvc/export.h>

/// A date and time as the date service gives and takes it (DateManager). The
/// fields travel smallest unit first, eight 32-bit integers.
class HMISVC_API Date {
public:
    // Smallest unit first: the date service reads and writes this order.
    int subsecond = 0; ///< below the second; the service's unit (simulator: milliseconds)
    int second = 0;    ///< 0-59
    int minute = 0;    ///< 0-59
    int hour = 0;      ///< 0-23
    int day = 0;       ///< day of the month, 1-31
    int month = 0;     ///< the service's numbering (simulator: 1-12)
    int year = 0;      ///< the service's numbering (simulator: the full year, e.g. 2026)
    int extra = 0;     ///< the service defines it (simulator: weekday 0-6, 0 = Sunday; ignored by SetTime)

    /// Fills @p ar with the fields in wire order (cereal binary archives only;
    /// defined inside the library).
    template <class Archive>
    void serialize(Archive &ar);
    /// The record's encoding: the bytes the services exchange (binary, with
    /// zero bytes: pass it on by pointer and length).
    std::string toString();
    /// Replaces the fields with those decoded from @p data; bytes after the
    /// last field are ignored. Throws cereal::Exception ("Failed to read ...")
    /// when @p data ends early, leaving the fields read so far changed.
    void fromString(std::string data);

    /// Prints "year-month-day hour:minute:second:subsecond" with extra run
    /// straight on, and a newline, to standard output.
    void PrintTime();
};

/// The wired Ethernet settings (EthInfoManager).
class HMISVC_API NetInfo {
public:
    /// How the address is obtained. The enumerators belong to the Ethernet
    /// service; the library carries the value unchanged (simulator: 0 static,
    /// 1 DHCP).
    enum Kind : std::int32_t {};

    std::string text1; ///< the service defines it (simulator: the address)
    std::string text2; ///< the service defines it (simulator: the netmask)
    std::string text3; ///< the service defines it (simulator: the gateway)
    std::string text4; ///< the service defines it (simulator: the first DNS server)
    std::string text5; ///< the service defines it (simulator: the second DNS server); travels after text6
    std::string text6; ///< the service defines it (simulator: the interface name)
    Kind kind = Kind(0); ///< see Kind

    // Sends text6 before text5: the Ethernet service expects that order.
    /// Fills @p ar with the fields in wire order (cereal binary archives only;
    /// defined inside the library).
    template <class Archive>
    void serialize(Archive &ar);
    /// The record's encoding: the bytes the services exchange (binary, with
    /// zero bytes: pass it on by pointer and length).
    std::string toString();
    /// Replaces the fields with those decoded from @p data; bytes after the
    /// last field are ignored. Throws cereal::Exception ("Failed to read ...")
    /// when @p data ends early, leaving the fields read so far changed.
    void fromString(std::string data);
};

/// The 4G modem's state (P4gManager).
class HMISVC_API P4gInfo {
public:
    /// The modem's registration; the 4G service defines the values
    /// (simulator: 1 registered).
    enum Kind : std::int32_t {};

    std::string text1; ///< the service defines it (simulator: the operator)
    std::string text2; ///< the service defines it (simulator: the IMEI)
    std::string text3; ///< the service defines it (simulator: the address)
    std::string text4; ///< the service defines it (simulator: the APN)
    std::string text5; ///< the service defines it (simulator: the mode)
    std::string text6; ///< the service defines it (simulator: the state)
    Kind kind = Kind(0); ///< see Kind
    int value = 0;       ///< the service defines it (simulator: signal level 0-5)

    /// Fills @p ar with the fields in wire order (cereal binary archives only;
    /// defined inside the library).
    template <class Archive>
    void serialize(Archive &ar);
    /// The record's encoding: the bytes the services exchange (binary, with
    /// zero bytes: pass it on by pointer and length).
    std::string toString();
    /// Replaces the fields with those decoded from @p data; bytes after the
    /// last field are ignored. Throws cereal::Exception ("Failed to read ...")
    /// when @p data ends early, leaving the fields read so far changed.
    void fromString(std::string data);
};

/// The current Wi-Fi connection (WifiManager::GetWifiinfo).
class HMISVC_API WifiInfo {
public:
    std::string text1; ///< the service defines it (simulator: the SSID)
    std::string text2; ///< the service defines it (simulator: the address)
    std::string text3; ///< the service defines it (simulator: the netmask)
    std::string text4; ///< the service defines it (simulator: the gateway)
    std::string text5; ///< the service defines it (simulator: the BSSID)
    std::string text6; ///< the service defines it (simulator: "connected" or "disconnected")
    int value = 0;     ///< the service defines it (simulator: signal in dBm, 0 when disconnected)

    /// Fills @p ar with the fields in wire order (cereal binary archives only;
    /// defined inside the library).
    template <class Archive>
    void serialize(Archive &ar);
    /// The record's encoding: the bytes the services exchange (binary, with
    /// zero bytes: pass it on by pointer and length).
    std::string toString();
    /// Replaces the fields with those decoded from @p data; bytes after the
    /// last field are ignored. Throws cereal::Exception ("Failed to read ...")
    /// when @p data ends early, leaving the fields read so far changed.
    void fromString(std::string data);
};

/// One network of the Wi-Fi scan list (WifiManager::GetWifilist).
class HMISVC_API WifiList {
public:
    /// The network's security; the Wi-Fi service defines the values
    /// (simulator: 0 open, 1 WEP, 2 WPA, 3 WPA2).
    enum Kind : std::int32_t {};

    WifiList() = default;                            ///< Empty fields.
    WifiList(const WifiList &) = default;            ///< Copies every field, localText included.
    WifiList(WifiList &&) = default;                 ///< Moves every field.
    WifiList &operator=(const WifiList &) = default; ///< Copies every field.
    WifiList &operator=(WifiList &&) = default;      ///< Moves every field.
    ~WifiList();                                     ///< Destroys the fields.

    std::string text1; ///< the service defines it (simulator: the SSID)
    std::string text2; ///< the service defines it (simulator: the BSSID)
    std::string text3; ///< the service defines it (simulator: the security as text)
    int value = 0;     ///< the service defines it (simulator: signal in dBm)
    std::string text4; ///< the service defines it (simulator: frequency in MHz); travels after kind
    Kind kind = Kind(0); ///< see Kind
    /// The application's own: never encoded, never touched by decoding.
    std::string localText;

    // Sends kind before text4, and leaves localText out.
    /// Fills @p ar with the fields in wire order (cereal binary archives only;
    /// defined inside the library).
    template <class Archive>
    void serialize(Archive &ar);
    /// The record's encoding: the bytes the services exchange (binary, with
    /// zero bytes: pass it on by pointer and length).
    std::string toString();
    /// Replaces the fields with those decoded from @p data; bytes after the
    /// last field are ignored. Throws cereal::Exception ("Failed to read ...")
    /// when @p data ends early, leaving the fields read so far changed.
    void fromString(std::string data);
};

#endif
