// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

namespace nelvo::testkit::soak {

// A table of figures, printed line by line; remembers whether each was as it must be.
class Report {
public:
    explicit Report(const std::string &heading) { std::printf("%s\n", heading.c_str()); }

    void line(const char *what, const std::string &figure, bool holds = true) {
        std::printf("  %-44s %10s%s\n", what, figure.c_str(), holds ? "" : "  WRONG");
        _holds = _holds && holds;
    }
    void line(const char *what, unsigned long long figure, bool holds = true) {
        line(what, std::to_string(figure), holds);
    }
    bool holds() const { return _holds; }

private:
    bool _holds = true;
};

} // namespace nelvo::testkit::soak
