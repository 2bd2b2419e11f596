#include <hmisvc/broadcast.h>

#include <iostream>
#include <utility>

#include "records/encoding.h"

std::string Intent::ACTION_KEYBOARD = "sys.input.keyboard";
std::string Intent::ACTION_SHOW_SETTINGS = "hmi.action.show.settings";
std::string Intent::ACTION_UDISK = "action.sys.udisk";

namespace {

template <class Value>
void printEntries(const std::map<std::string, Value> &extras)
{
    for (const auto &entry : extras)
        std::cout << "           " << entry.first << ":" << entry.second << std::endl;
}

} // namespace

Intent::Intent() = default;

Intent::Intent(std::string action) : action(std::move(action)) {}

void Intent::setAction(std::string action) { this->action = std::move(action); }

std::string Intent::getAction() { return action; }

// emplace is the map's unique insert: a key already present keeps its value.
void Intent::putExtra(std::string key, int value) { intExtras.emplace(std::move(key), value); }

void Intent::putExtra(std::string key, std::string value)
{
    stringExtras.emplace(std::move(key), std::move(value));
}

int Intent::getIntExtra(std::string key, int defaultValue)
{
    auto found = intExtras.find(key);
    return found == intExtras.end() ? defaultValue : found->second;
}

std::string Intent::getStringExtra(std::string key)
{
    auto found = stringExtras.find(key);
    return found == stringExtras.end() ? std::string() : found->second;
}

void Intent::printExtras()
{
    std::cout << "Intent:    " << action << std::endl;
    std::cout << "int: " << std::endl;
    printEntries(intExtras);
    std::cout << "string: " << std::endl;
    printEntries(stringExtras);
}

template <class Archive>
void Intent::serialize(Archive &ar)
{
    ar(action, intExtras, stringExtras);
}
HMISVC_RECORD_ENCODING(Intent)
