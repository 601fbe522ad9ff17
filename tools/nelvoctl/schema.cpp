// SPDX-License-Identifier: Apache-2.0
#include "schema.h"

#include <map>
#include <regex>
#include <set>
#include <utility>

#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validator.hpp>

namespace nelvoctl {

namespace {

using nlohmann::json;
using Pointer = json::json_pointer;

// The validator's regular expressions take stack for each character.
constexpr std::size_t LONGEST_MATCHED_TEXT = 4096;
constexpr std::size_t LONGEST_EXPECTATION = 300;

// Whether the validator matches texts with regular expressions.
bool hasPatterns(const json &schema) {
    if (!schema.is_structured())
        return false;
    for (const auto &[key, part] : schema.items())
        if (key == "pattern" || key == "patternProperties" || key == "format" || hasPatterns(part))
            return true;
    return false;
}

bool hasLongText(const json &value) {
    if (value.is_string())
        return value.get_ref<const std::string &>().size() > LONGEST_MATCHED_TEXT;
    if (!value.is_structured())
        return false;
    for (const auto &[key, part] : value.items())
        if (key.size() > LONGEST_MATCHED_TEXT || hasLongText(part))
            return true;
    return false;
}

// From the validator's path, such as "<root>", "[\"volume\"]", "[0]".
Pointer toPointer(const std::vector<std::string> &context) {
    Pointer pointer;
    for (const std::string &step : context) {
        const bool isKey = step.compare(0, 2, "[\"") == 0;
        if (step[0] == '[')
            pointer /= isKey ? step.substr(2, step.size() - 4) : step.substr(1, step.size() - 2);
    }
    return pointer;
}

// What the schema says of the value at that place, as far as references, names and items lead there.
std::string expectationAt(const json &document, Pointer place) {
    std::vector<std::string> steps;
    for (; !place.empty(); place.pop_back())
        steps.insert(steps.begin(), place.back());
    const json *schema = &document;
    for (const std::string &step : steps) {
        const char *const group = schema->contains("properties") ? "properties" : "items";
        if (!schema->contains(group))
            return "";
        schema = &schema->at(group);
        if (std::string(group) == "properties") {
            if (!schema->contains(step))
                return "";
            schema = &schema->at(step);
        }
        while (schema->contains("$ref"))
            schema = &document.at(Pointer(schema->at("$ref").get<std::string>().substr(1)));
    }
    const std::string text = steps.empty() ? "" : schema->dump();
    return text.size() > LONGEST_EXPECTATION ? "" : text;
}

bool isRegex(const std::string &pattern) {
    try {
        const std::regex compiled(pattern);
        return true;
    } catch (const std::regex_error &) {
        return false;
    }
}

// Walks through a schema that fits CATALOGUE_SCHEMA.
class ReferenceChecker {
public:
    ReferenceChecker(const json &document, const std::string &start)
        : _document(document), _start(start) {}

    std::vector<Problem> check() {
        walk(Pointer());
        for (const auto &[from, to] : _references)
            if (_here.count(to) == 0)
                report(from, "leads to no schema in this document; from others nothing is fetched. "
                             "Write \"#/$defs/NAME\"");
        std::set<std::string> done, path;
        for (const auto &[place, next] : _here)
            findCircle(place, done, path);
        return std::move(_problems);
    }

private:
    void report(const Pointer &place, const std::string &text) {
        _problems.push_back({_start + place.to_string(), text});
    }

    void walk(const Pointer &place) {
        static const std::set<std::string> PARTS = {"items", "contains", "additionalProperties",
                                                    "propertyNames"};
        static const std::set<std::string> HERE = {"not", "if", "then", "else"};
        static const std::set<std::string> LISTS = {"allOf", "anyOf", "oneOf"};
        static const std::set<std::string> MAPS = {"properties", "patternProperties", "$defs",
                                                   "definitions"};
        std::set<std::string> &here = _here[place.to_string()];
        for (const auto &[keyword, value] : _document.at(place).items()) {
            const Pointer below = place / keyword;
            if (HERE.count(keyword) != 0)
                here.insert(below.to_string());
            if (PARTS.count(keyword) != 0 || HERE.count(keyword) != 0)
                walk(below);
            if (keyword == "$ref")
                checkReference(place, value);
            if (keyword == "pattern" && !isRegex(value))
                report(below,
                       "is no regular expression of ECMAScript, without look-behind and \\p");
            if (LISTS.count(keyword) == 0 && MAPS.count(keyword) == 0)
                continue;
            for (const auto &[key, part] : value.items()) {
                const Pointer each = value.is_array() ? below / std::stoul(key) : below / key;
                if (value.is_array())
                    here.insert(each.to_string());
                if (keyword == "patternProperties" && !isRegex(key))
                    report(each, "is named by no regular expression of ECMAScript");
                if (part.is_object())
                    walk(each);
                else
                    _here[each.to_string()];
            }
        }
    }

    void checkReference(const Pointer &place, const std::string &reference) {
        const std::string target = reference.substr(0, 1) == "#" ? reference.substr(1) : reference;
        _references.emplace_back(place / "$ref", target);
        _here[place.to_string()].insert(target);
        for (const auto &[keyword, value] : _document.at(place).items())
            if (keyword != "$ref" && keyword != "description" && keyword != "title")
                report(place / keyword, "is not checked beside $ref; put both into an allOf");
    }

    // Reports a schema that leads back to itself for one and the same value.
    void findCircle(const std::string &place, std::set<std::string> &done,
                    std::set<std::string> &path) {
        if (path.count(place) != 0)
            return report(Pointer(place), "refers to itself for the same value, without end");
        if (!done.insert(place).second || _here.count(place) == 0)
            return;
        path.insert(place);
        for (const std::string &next : _here.at(place))
            findCircle(next, done, path);
        path.erase(place);
    }

    const json &_document;
    const std::string &_start;
    std::vector<Problem> _problems;
    std::vector<std::pair<Pointer, std::string>> _references;
    // Every schema, with those that the validator applies to the same value.
    std::map<std::string, std::set<std::string>> _here;
};

} // namespace

struct Schema::Compiled {
    explicit Compiled(json given)
        : document(std::move(given)), hasPatterns(nelvoctl::hasPatterns(document)) {
        valijson::SchemaParser(valijson::SchemaParser::kDraft7)
            .populateSchema(valijson::adapters::NlohmannJsonAdapter(document), schema);
    }

    const json document;
    const bool hasPatterns;
    valijson::Schema schema;
};

Schema::Schema(json document) : _compiled(std::make_shared<Compiled>(std::move(document))) {}

std::vector<Problem> Schema::violations(const json &value) const {
    if (_compiled->hasPatterns && hasLongText(value))
        return {{"", "has a string of more than 4096 bytes, too long for the patterns here"}};
    valijson::ValidationResults results;
    std::vector<Problem> found;
    try {
        if (valijson::Validator().validate(
                _compiled->schema, valijson::adapters::NlohmannJsonAdapter(value), &results))
            return {};
        for (const auto &error : results)
            found.push_back({toPointer(error.context).to_string(), error.description});
    } catch (const std::exception &e) {
        found.push_back({"", e.what()});
    }
    // The deepest places tell most; those above only repeat that something below is wrong.
    std::vector<Problem> deepest;
    for (Problem &problem : found) {
        bool isAbove = false;
        for (const Problem &other : found)
            isAbove = isAbove || other.pointer.compare(0, problem.pointer.size() + 1,
                                                       problem.pointer + "/") == 0;
        if (isAbove)
            continue;
        const std::string expected = expectationAt(_compiled->document, Pointer(problem.pointer));
        deepest.push_back(
            {problem.pointer, problem.text + (expected.empty() ? "" : " Expected is " + expected)});
    }
    return deepest;
}

std::vector<Problem> findReferenceProblems(const json &schema, const std::string &pointer) {
    return ReferenceChecker(schema, pointer).check();
}

// Beside "tools" and "state", what a server's answer to tools/list may hold; it means nothing here.
// Of the dialect draft-07 that, which reads the same in 2020-12 and is checked by the validator.
const char *const CATALOGUE_SCHEMA = R"({
"type": "object",
"required": ["tools"],
"additionalProperties": false,
"properties": {
    "tools": {"type": "array", "items": {"$ref": "#/$defs/tool"}},
    "state": {
        "type": "object",
        "additionalProperties": false,
        "properties": {
            "title": {"type": "string"},
            "description": {"type": "string"},
            "schema": {"$ref": "#/$defs/schema"}
        }
    },
    "$comment": {"type": "string"},
    "_meta": {"type": "object"},
    "nextCursor": {"type": "string"},
    "resultType": {"type": "string"},
    "ttlMs": {"type": "integer"},
    "cacheScope": {"type": "string"}
},
"$defs": {
    "tool": {
        "type": "object",
        "required": ["name", "inputSchema"],
        "additionalProperties": false,
        "properties": {
            "name": {"type": "string", "minLength": 1, "not": {"const": "getAppContext"}},
            "title": {"type": "string"},
            "description": {"type": "string"},
            "inputSchema": {"$ref": "#/$defs/objectSchema"},
            "outputSchema": {"$ref": "#/$defs/objectSchema"},
            "annotations": {
                "type": "object",
                "additionalProperties": false,
                "properties": {
                    "title": {"type": "string"},
                    "readOnlyHint": {"type": "boolean"},
                    "destructiveHint": {"type": "boolean"},
                    "idempotentHint": {"type": "boolean"},
                    "openWorldHint": {"type": "boolean"}
                }
            },
            "icons": {"type": "array"},
            "execution": {"type": "object"},
            "_meta": {"type": "object"}
        }
    },
    "objectSchema": {
        "required": ["type"],
        "allOf": [{"properties": {"type": {"const": "object"}}}, {"$ref": "#/$defs/schema"}]
    },
    "schemas": {"type": "object", "additionalProperties": {"$ref": "#/$defs/schema"}},
    "schemaList": {"type": "array", "minItems": 1, "items": {"$ref": "#/$defs/schema"}},
    "count": {"type": "integer", "minimum": 0},
    "typeName": {"enum": ["null", "boolean", "integer", "number", "string", "array", "object"]},
    "schema": {
        "type": ["object", "boolean"],
        "additionalProperties": false,
        "properties": {
            "$schema": {
                "enum": [
                    "https://json-schema.org/draft/2020-12/schema",
                    "http://json-schema.org/draft-07/schema#",
                    "http://json-schema.org/draft-07/schema"
                ]
            },
            "$ref": {"type": "string"},
            "$defs": {"$ref": "#/$defs/schemas"},
            "definitions": {"$ref": "#/$defs/schemas"},
            "$comment": {"type": "string"},
            "title": {"type": "string"},
            "description": {"type": "string"},
            "default": true,
            "examples": {"type": "array"},
            "deprecated": {"type": "boolean"},
            "readOnly": {"type": "boolean"},
            "writeOnly": {"type": "boolean"},
            "type": {
                "anyOf": [
                    {"$ref": "#/$defs/typeName"},
                    {"type": "array", "minItems": 1, "items": {"$ref": "#/$defs/typeName"}}
                ]
            },
            "enum": {"type": "array", "minItems": 1},
            "const": true,
            "format": {"enum": ["date", "time", "date-time"]},
            "pattern": {"type": "string"},
            "minLength": {"$ref": "#/$defs/count"},
            "maxLength": {"$ref": "#/$defs/count"},
            "minimum": {"type": "number"},
            "maximum": {"type": "number"},
            "exclusiveMinimum": {"type": "number"},
            "exclusiveMaximum": {"type": "number"},
            "multipleOf": {"type": "number", "exclusiveMinimum": 0},
            "items": {"$ref": "#/$defs/schema"},
            "contains": {"$ref": "#/$defs/schema"},
            "minItems": {"$ref": "#/$defs/count"},
            "maxItems": {"$ref": "#/$defs/count"},
            "uniqueItems": {"type": "boolean"},
            "properties": {"$ref": "#/$defs/schemas"},
            "patternProperties": {"$ref": "#/$defs/schemas"},
            "additionalProperties": {"$ref": "#/$defs/schema"},
            "propertyNames": {"$ref": "#/$defs/schema"},
            "required": {"type": "array", "items": {"type": "string"}},
            "minProperties": {"$ref": "#/$defs/count"},
            "maxProperties": {"$ref": "#/$defs/count"},
            "allOf": {"$ref": "#/$defs/schemaList"},
            "anyOf": {"$ref": "#/$defs/schemaList"},
            "oneOf": {"$ref": "#/$defs/schemaList"},
            "not": {"$ref": "#/$defs/schema"},
            "if": {"$ref": "#/$defs/schema"},
            "then": {"$ref": "#/$defs/schema"},
            "else": {"$ref": "#/$defs/schema"}
        }
    }
}
})";

} // namespace nelvoctl
