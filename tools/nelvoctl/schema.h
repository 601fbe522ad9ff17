// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace nelvoctl {

// Something wrong in a JSON document.
struct Problem {
    std::string pointer; // JSON pointer to the place; empty: the document itself
    std::string text;    // what is wrong, and what is expected
};

// A JSON Schema. Copies share the compiled schema.
//
// The validator passes over keywords that it does not know, and follows references without end. So
// the schema must consist of the keywords that CATALOGUE_SCHEMA lists, and of references that
// findReferenceProblems() accepts.
class Schema {
public:
    // Throws std::exception if the validator refuses the schema.
    explicit Schema(nlohmann::json document);

    // Where the value violates the schema; empty if the value fits.
    std::vector<Problem> violations(const nlohmann::json &value) const;

private:
    struct Compiled;
    std::shared_ptr<const Compiled> _compiled;
};

// The schema of a catalogue of actions, and in it that of the schemas that may stand there.
extern const char *const CATALOGUE_SCHEMA;

// What no schema can tell of a schema: references that lead nowhere or in circles, and patterns that
// are no regular expressions. The pointers begin with the given one.
std::vector<Problem> findReferenceProblems(const nlohmann::json &schema,
                                           const std::string &pointer);

} // namespace nelvoctl
