// Broadcasts: the message they carry and the types that receive them.
#ifndef HMISVC_BROADCAST_H
#define HMISVC_BROADCAST_H

#include <map>
#include <string>

#include <hmisvc/export.h>

// An action plus integer and string extras. Travels as the byte string of
// toString(); fromString() replaces the whole content with a decoded one and
// throws cereal::Exception when the bytes end early.
class HMISVC_API Intent {
public:
    static std::string ACTION_KEYBOARD;
    static std::string ACTION_SHOW_SETTINGS;
    static std::string ACTION_UDISK;

    Intent();
    Intent(std::string action);

    void setAction(std::string action);
    std::string getAction();

    // Insert-if-absent: an extra once set keeps its first value.
    void putExtra(std::string key, int value);
    void putExtra(std::string key, std::string value);
    int getIntExtra(std::string key, int defaultValue);
    std::string getStringExtra(std::string key);

    void printExtras();

    template <class Archive>
    void serialize(Archive &ar);
    std::string toString();
    void fromString(std::string data);

private:
    std::string action;
    std::map<std::string, int> intExtras;
    std::map<std::string, std::string> stringExtras;
};

#endif
