// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace host {

struct Application {
    std::string id;
    std::vector<std::pair<std::string, std::string>> metadata; // key and value, in file order
};

struct Manifest {
    std::vector<Application> applications;
    std::string problem;   // why there are no applications
    bool isBroken = false; // the manifest exists but cannot be used
};

// Parses a manifest. The first error makes the whole manifest unusable: with half of it understood
// the application would run with half of its settings. Source is what messages call the manifest.
// Throws std::bad_alloc.
Manifest parseManifest(std::string_view xml, const std::string &source);

// The same for a file. Throws std::bad_alloc.
Manifest readManifest(const std::string &path);

} // namespace host
