#include <hmisvc/records.h>

#include <iostream>

#include "records/encoding.h"

template <class Archive>
void Date::serialize(Archive &ar)
{
    ar(subsecond, second, minute, hour, day, month, year, extra);
}
HMISVC_RECORD_ENCODING(Date)

void Date::PrintTime()
{
    // No separator before extra: it runs straight on from subsecond.
    std::cout << year << "-" << month << "-" << day << " " << hour << ":" << minute << ":" << second
              << ":" << subsecond << "" << extra << std::endl;
}

template <class Archive>
void NetInfo::serialize(Archive &ar)
{
    ar(text1, text2, text3, text4, text6, text5, kind);
}
HMISVC_RECORD_ENCODING(NetInfo)

template <class Archive>
void P4gInfo::serialize(Archive &ar)
{
    ar(text1, text2, text3, text4, text5, text6, kind, value);
}
HMISVC_RECORD_ENCODING(P4gInfo)

template <class Archive>
void WifiInfo::serialize(Archive &ar)
{
    ar(text1, text2, text3, text4, text5, text6, value);
}
HMISVC_RECORD_ENCODING(WifiInfo)

WifiList::~WifiList() = default;

template <class Archive>
void WifiList::serialize(Archive &ar)
{
    ar(text1, text2, text3, value, kind, text4);
}
HMISVC_RECORD_ENCODING(WifiList)
