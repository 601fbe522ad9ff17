// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace nelvoctl {

// Something wrong in a JSON document, and what to do about it.
struct Problem {
    std::string pointer; // JSON pointer to the place; empty: the document itself
    std::string text;
};

// A JSON Schema of the dialects 2020-12 and draft-07. Copies share the compiled schema.
//
// The validator passes over every keyword that it does not know. So a schema is accepted only if it
// consists of keywords that the validator checks and of annotations; schemas that would send the
// validator round in circles are refused as well.
class Schema {
public:
    // Appends to problems, whose pointers begin with the given one; the schema must not be used if
    // there are any.
    Schema(nlohmann::json document, const std::string &pointer, std::vector<Problem> &problems);

    // Where the value violates the schema, and what was expected there; empty if the value fits.
    std::vector<Problem> violations(const nlohmann::json &value) const;

private:
    struct Compiled;
    std::shared_ptr<const Compiled> _compiled; // null if there were problems
};

} // namespace nelvoctl
