// What an App does for page inspection (page.cpp) before its application starts.
#ifndef HMISVC_TESTING_INSPECT_H
#define HMISVC_TESTING_INSPECT_H

#include <string>
#include <vector>

namespace hmisvc::testing::detail {

// A listening socket (its fd) in a new directory of this user's only (DIR).
int inspect_listener(std::string &dir);
// This process's environment, asking Qt to load the inspection plugin and
// connect to the socket in DIR.
std::vector<std::string> inspect_environment(const std::string &dir);
// Closes the socket and removes the directory.
void inspect_close(int listener, const std::string &dir);

}  // namespace hmisvc::testing::detail

#endif
