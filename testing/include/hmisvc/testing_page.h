// Page inspection for hmisvc::testing (included by hmisvc/testing.h): the
// item tree of a Qt Quick application an App started, with no code in the
// application. Every App asks Qt to load the plugin hmisvcinspect
// (QT_QPA_GENERIC_PLUGINS, QT_PLUGIN_PATH; $HMISVC_QT_PLUGIN_PATH names
// another plugin directory) and names a socket in a directory of this user's
// only (HMISVC_INSPECT); a Qt application connects there as it starts.
//
//   hmisvc::testing::Item slider = app.page().find("brightness");
//   slider.slide(10);
//   EXPECT_TRUE(app.page().find("brightnessLabel").wait("text", "Brightness 10 of 100"));
//
// Each request is bounded. A name that matches nothing, an application that
// ended or does not answer, a request the page refuses: a test failure with
// the reason (the nearest names on the page) and the application's output,
// and Refused is thrown, which ends the test. A wait that times out is a
// failure naming the value the property had, and false.
#ifndef HMISVC_TESTING_PAGE_H
#define HMISVC_TESTING_PAGE_H

#include <string>

namespace hmisvc::testing {

class App;
class Page;

// A value for Item::set() and Item::wait(): a string, a number or a boolean.
class Value {
public:
    Value(const char *text);
    Value(const std::string &text);
    Value(int number);
    Value(double number);
    Value(bool truth);
    // As JSON text.
    const std::string &json() const { return json_; }

private:
    std::string json_;
};

// One item on the page, found again by its name (or text) at each request.
class Item {
public:
    // The property's value: a string as it is, anything else as JSON text ("10", "true").
    std::string get(const std::string &prop);
    // Writes the property.
    void set(const std::string &prop, const Value &value);
    // Returns true once the property is VALUE (answered on its change
    // signal); at the timeout a test failure naming the value it had, and false.
    bool wait(const std::string &prop, const Value &value, double timeout_seconds = 5.0);
    // A left mouse press and release at the item's centre.
    void click();
    // Moves a slider to VALUE as a user's drag ends (the value, then moved()).
    void slide(double value);
    // Gives the item the focus and types TEXT, a key event each character.
    void type(const std::string &text);
    // Its class and how it was found, as failures name it.
    const std::string &description() const { return description_; }

private:
    friend class Page;
    Item(Page &page, std::string query, std::string description);
    std::string request(const std::string &op, const std::string &fields = "");

    Page *page_;
    std::string query_;  // "\"name\":..." or "\"text\":..."
    std::string description_;
};

class Page {
public:
    ~Page();
    Page(const Page &) = delete;
    Page &operator=(const Page &) = delete;

    // The item of this objectName; FIND_TEXT: the item showing this text.
    Item find(const std::string &object_name);
    Item findText(const std::string &text);
    // Saves the page's window as a PNG image at PATH.
    void screenshot(const std::string &path);
    // The item tree as text, an item a line.
    std::string tree();

    // Sends REQUEST (a JSON object's text); the answer's text, within BOUND
    // seconds and a margin. A failed answer is a test failure (Refused)
    // unless it is a time-out and TIMEOUT_OK.
    std::string request(const std::string &request, double bound = 0, bool timeout_ok = false);

private:
    friend class App;
    Page(App &app, int listener);
    [[noreturn]] void fail(const std::string &what);
    std::string ended();

    App &app_;
    int socket_ = -1;
    std::string buffer_;
};

}  // namespace hmisvc::testing

#endif
