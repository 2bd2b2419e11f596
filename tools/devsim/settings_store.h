// The settings service's store: string values addressed by section and key,
// kept in memory and written to an INI file on request.
#ifndef HMISVC_DEVSIM_SETTINGS_STORE_H
#define HMISVC_DEVSIM_SETTINGS_STORE_H

#include <cstdint>
#include <map>
#include <string>

namespace hmisvc::devsim {

class SettingsStore {
public:
    // Answers of the setters, Delete and SaveFile.
    enum Answer : int32_t {
        kDone = 0,
        kNoSuchSetting = 1,  // Delete of a setting that is not there
        kNotStorable = 2,    // the INI file could not give it back as it is
        kNoFile = 3,         // SaveFile without a settings file
        kWriteFailed = 4,
        kTooLarge = 5,  // the simulator's state would no longer fit a dump
    };

    // Without a file the store lives in memory only and SaveFile refuses.
    explicit SettingsStore(std::string file = {});

    // Loads the file if it exists. Returns "" on success (or when there is
    // no file yet), otherwise what went wrong.
    std::string load();

    std::string get(const std::string &section, const std::string &key,
                    const std::string &fallback) const;
    // The stored text as a 32-bit decimal number, or the fallback when the
    // setting is missing or is not such a number.
    int32_t get_long(const std::string &section, const std::string &key, int32_t fallback) const;

    int32_t set(const std::string &section, const std::string &key, const std::string &value);
    int32_t set_long(const std::string &section, const std::string &key, int32_t value);
    int32_t remove(const std::string &section, const std::string &key);
    int32_t save() const;

    // Whether the INI file reads the triple back unchanged (no line breaks,
    // no inline comment, no outer blanks in key or value, no separator in
    // the key, no ']' in the section, lines short enough for the parser).
    static bool storable(const std::string &section, const std::string &key,
                         const std::string &value);

    using Sections = std::map<std::string, std::map<std::string, std::string>>;
    const Sections &sections() const { return sections_; }
    // Every value replaced at once (the caller has checked storable()).
    void replace(Sections sections) { sections_ = std::move(sections); }
    const std::string &file() const { return file_; }

private:
    std::string file_;
    Sections sections_;
};

}  // namespace hmisvc::devsim

#endif
