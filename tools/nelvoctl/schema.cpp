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

// What the value of a keyword must be.
enum class Kind {
    ANY,
    TEXT,
    FLAG,
    NUMBER,
    POSITIVE,
    COUNT,
    LIST, // not empty
    TEXTS,
    TYPES,
    FORMAT,
    PATTERN,
    DIALECT,
    REFERENCE,
    SCHEMA,         // for a part of the value that the schema describes
    SCHEMA_HERE,    // for that value itself
    SCHEMAS_HERE,   // a list of them
    SCHEMA_MAP,     // by the names of properties, or of definitions
    SCHEMA_REGEXES, // by patterns for the names of properties
    ITEMS,
    ITEMS_DRAFT_07,
    DEPENDENCIES,
};

const std::map<std::string, Kind> KEYWORDS = {
    {"$schema", Kind::DIALECT},
    {"$ref", Kind::REFERENCE},
    {"$comment", Kind::TEXT},
    {"$defs", Kind::SCHEMA_MAP},
    {"definitions", Kind::SCHEMA_MAP},
    {"title", Kind::TEXT},
    {"description", Kind::TEXT},
    {"default", Kind::ANY},
    {"examples", Kind::LIST},
    {"deprecated", Kind::FLAG},
    {"readOnly", Kind::FLAG},
    {"writeOnly", Kind::FLAG},
    {"type", Kind::TYPES},
    {"enum", Kind::LIST},
    {"const", Kind::ANY},
    {"format", Kind::FORMAT},
    {"pattern", Kind::PATTERN},
    {"minLength", Kind::COUNT},
    {"maxLength", Kind::COUNT},
    {"minimum", Kind::NUMBER},
    {"maximum", Kind::NUMBER},
    {"exclusiveMinimum", Kind::NUMBER},
    {"exclusiveMaximum", Kind::NUMBER},
    {"multipleOf", Kind::POSITIVE},
    {"items", Kind::ITEMS},
    {"additionalItems", Kind::ITEMS_DRAFT_07},
    {"contains", Kind::SCHEMA},
    {"minItems", Kind::COUNT},
    {"maxItems", Kind::COUNT},
    {"uniqueItems", Kind::FLAG},
    {"properties", Kind::SCHEMA_MAP},
    {"patternProperties", Kind::SCHEMA_REGEXES},
    {"additionalProperties", Kind::SCHEMA},
    {"propertyNames", Kind::SCHEMA},
    {"required", Kind::TEXTS},
    {"minProperties", Kind::COUNT},
    {"maxProperties", Kind::COUNT},
    {"dependencies", Kind::DEPENDENCIES},
    {"allOf", Kind::SCHEMAS_HERE},
    {"anyOf", Kind::SCHEMAS_HERE},
    {"oneOf", Kind::SCHEMAS_HERE},
    {"not", Kind::SCHEMA_HERE},
    {"if", Kind::SCHEMA_HERE},
    {"then", Kind::SCHEMA_HERE},
    {"else", Kind::SCHEMA_HERE},
};

// May stand beside $ref; the validator looks at nothing else there.
const std::set<std::string> BESIDE_REFERENCE = {"$schema", "$comment",    "$defs",  "definitions",
                                                "title",   "description", "default"};

const std::set<std::string> TYPES = {"null",   "boolean", "integer", "number",
                                     "string", "array",   "object"};
const std::set<std::string> FORMATS = {"date", "time", "date-time"};

// The validator's regular expressions take a stack frame per character.
constexpr std::size_t LONGEST_MATCHED_TEXT = 4096;

bool isTexts(const json &value) {
    if (!value.is_array())
        return false;
    for (const json &text : value)
        if (!text.is_string())
            return false;
    return true;
}

bool isTypes(const json &value) {
    if (value.is_string())
        return TYPES.count(value) != 0;
    if (!isTexts(value) || value.empty())
        return false;
    for (const json &type : value)
        if (TYPES.count(type) == 0)
            return false;
    return true;
}

bool isRegex(const std::string &pattern) {
    try {
        const std::regex compiled(pattern);
        return true;
    } catch (const std::regex_error &) {
        return false;
    }
}

// Finds everything in a schema that the validator does not check or cannot follow.
class Checker {
public:
    Checker(const json &document, const std::string &start, std::vector<Problem> &problems)
        : _document(document), _start(start), _problems(problems),
          _isDraft07(document.is_object() && document.contains("$schema") &&
                     document["$schema"].is_string() &&
                     isDraft07(document["$schema"].get<std::string>())) {}

    void check() {
        checkSchema(Pointer());
        for (const auto &[from, to] : _references)
            if (_here.count(to) == 0)
                report(from, "leads to no schema in this document; write \"#/$defs/NAME\"");
        std::set<std::string> done, path;
        for (const auto &[place, next] : _here)
            findCircle(place, done, path);
    }

    bool hasPatterns() const { return _hasPatterns; }

private:
    static bool isDraft07(const std::string &dialect) {
        return dialect.find("draft-07") != std::string::npos;
    }

    void report(const Pointer &place, const std::string &text) {
        _problems.push_back({_start + place.to_string(), text});
    }

    void checkSchema(const Pointer &place) {
        const json &schema = _document.at(place);
        _here[place.to_string()]; // exists
        if (schema.is_boolean())
            return;
        if (!schema.is_object())
            return report(place, "is no schema; write an object, or true or false");
        for (const auto &[keyword, value] : schema.items()) {
            const auto known = KEYWORDS.find(keyword);
            if (known == KEYWORDS.end())
                report(place / keyword, "is a keyword that is not checked here; leave it out, or "
                                        "say it with keywords that are");
            else if (schema.contains("$ref") && keyword != "$ref" &&
                     BESIDE_REFERENCE.count(keyword) == 0)
                report(place / keyword, "is not checked beside $ref; put both into an allOf");
            else
                checkKeyword(known->second, place, keyword, value);
        }
    }

    void checkKeyword(Kind kind, const Pointer &owner, const std::string &keyword,
                      const json &value) {
        const Pointer place = owner / keyword;
        switch (kind) {
        case Kind::ANY:
            return;
        case Kind::TEXT:
            return require(value.is_string(), place, "must be a string");
        case Kind::FLAG:
            return require(value.is_boolean(), place, "must be true or false");
        case Kind::NUMBER:
            return require(value.is_number(), place, "must be a number");
        case Kind::POSITIVE:
            return require(value.is_number() && value.get<double>() > 0, place,
                           "must be a number above 0");
        case Kind::COUNT:
            return require(value.is_number_unsigned(), place,
                           "must be a whole number of 0 or more");
        case Kind::LIST:
            return require(value.is_array() && !value.empty(), place,
                           "must be an array with something in it");
        case Kind::TEXTS:
            return require(isTexts(value), place, "must be an array of strings");
        case Kind::TYPES:
            return require(isTypes(value), place,
                           "must be one of null, boolean, integer, number, string, array, object, "
                           "or an array of them");
        case Kind::FORMAT:
            _hasPatterns = true;
            return require(value.is_string() && FORMATS.count(value) != 0 &&
                               _document.at(owner).value("type", json()) == "string",
                           place,
                           "is not checked; only date, time and date-time are, beside \"type\": "
                           "\"string\"; leave it out and say it in the description");
        case Kind::PATTERN:
            _hasPatterns = true;
            return require(value.is_string() && isRegex(value), place,
                           "must be a regular expression of ECMAScript, without look-behind and "
                           "\\p");
        case Kind::DIALECT:
            return checkDialect(place, value);
        case Kind::REFERENCE:
            return checkReference(owner, place, value);
        case Kind::SCHEMA:
            return checkSchema(place);
        case Kind::SCHEMA_HERE:
            _here[owner.to_string()].insert(place.to_string());
            return checkSchema(place);
        case Kind::SCHEMAS_HERE:
            return checkList(owner, place, value);
        case Kind::SCHEMA_MAP:
        case Kind::SCHEMA_REGEXES:
            return checkMap(place, value, kind == Kind::SCHEMA_REGEXES);
        case Kind::ITEMS:
            if (!value.is_array())
                return checkSchema(place);
            return checkDraft07(place, [&] { checkList(place, place, value); });
        case Kind::ITEMS_DRAFT_07:
            return checkDraft07(place, [&] { checkSchema(place); });
        case Kind::DEPENDENCIES:
            return checkDraft07(place, [&] { checkDependencies(owner, place, value); });
        }
    }

    void require(bool isGood, const Pointer &place, const char *expected) {
        if (!isGood)
            report(place, expected);
    }

    template <typename Check>
    void checkDraft07(const Pointer &place, Check check) {
        if (_isDraft07)
            check();
        else
            report(place, "is not a keyword, or not of this form, in the dialect 2020-12; name "
                          "draft-07 in $schema, or say it otherwise");
    }

    void checkDialect(const Pointer &place, const json &value) {
        static const std::regex known("https?://json-schema\\.org/"
                                      "(draft-07|draft/2020-12)/schema#?");
        require(place == Pointer("/$schema") && value.is_string() &&
                    std::regex_match(value.get<std::string>(), known),
                place,
                "must name the dialect 2020-12 or draft-07, at the top of the schema: "
                "https://json-schema.org/draft/2020-12/schema");
    }

    void checkReference(const Pointer &owner, const Pointer &place, const json &value) {
        if (!value.is_string() || value.get<std::string>().substr(0, 1) != "#")
            return report(place, "leads out of this document, from which nothing is fetched; copy "
                                 "the schema into $defs");
        const std::string target = value.get<std::string>().substr(1);
        _references.emplace_back(place, target);
        _here[owner.to_string()].insert(target);
    }

    void checkList(const Pointer &owner, const Pointer &place, const json &value) {
        if (!value.is_array() || value.empty())
            return report(place, "must be an array of schemas");
        for (std::size_t i = 0; i < value.size(); ++i) {
            if (owner != place)
                _here[owner.to_string()].insert((place / i).to_string());
            checkSchema(place / i);
        }
    }

    void checkMap(const Pointer &place, const json &value, bool isByRegex) {
        if (!value.is_object())
            return report(place, "must be an object that holds schemas");
        for (const auto &[name, schema] : value.items()) {
            _hasPatterns = _hasPatterns || isByRegex;
            if (isByRegex && !isRegex(name))
                report(place / name, "is no regular expression of ECMAScript");
            checkSchema(place / name);
        }
    }

    void checkDependencies(const Pointer &owner, const Pointer &place, const json &value) {
        if (!value.is_object())
            return report(place, "must be an object");
        for (const auto &[name, dependency] : value.items()) {
            if (isTexts(dependency))
                continue;
            _here[owner.to_string()].insert((place / name).to_string());
            checkSchema(place / name);
        }
    }

    // Reports a schema that is reached again from itself for one and the same value.
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
    std::vector<Problem> &_problems;
    const bool _isDraft07;
    bool _hasPatterns = false;
    std::vector<std::pair<Pointer, std::string>> _references;
    // Every schema, with the schemas that the validator applies to the same value.
    std::map<std::string, std::set<std::string>> _here;
};

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

// The schema for the value at that place, as far as it is found by names and items alone; else null.
json schemaFor(const json &document, Pointer place) {
    std::vector<std::string> steps;
    for (; !place.empty(); place.pop_back())
        steps.insert(steps.begin(), place.back());
    json schema = document;
    for (const std::string &step : steps) {
        const json properties = schema.value("properties", json::object());
        schema = properties.contains(step) ? properties[step] : schema.value("items", json());
        if (!schema.is_object())
            return nullptr;
    }
    return schema;
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

} // namespace

struct Schema::Compiled {
    json document;
    bool hasPatterns = false;
    valijson::Schema schema;
};

Schema::Schema(json document, const std::string &pointer, std::vector<Problem> &problems) {
    const std::size_t before = problems.size();
    Checker checker(document, pointer, problems);
    checker.check();
    if (problems.size() > before)
        return;
    const auto compiled = std::make_shared<Compiled>();
    compiled->document = std::move(document);
    compiled->hasPatterns = checker.hasPatterns();
    try {
        valijson::SchemaParser(valijson::SchemaParser::kDraft7)
            .populateSchema(valijson::adapters::NlohmannJsonAdapter(compiled->document),
                            compiled->schema);
        _compiled = compiled;
    } catch (const std::exception &e) {
        problems.push_back({pointer, std::string("is no schema: ") + e.what()});
    }
}

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
    for (const Problem &problem : found) {
        bool isAbove = false;
        for (const Problem &other : found)
            isAbove = isAbove || other.pointer.compare(0, problem.pointer.size() + 1,
                                                       problem.pointer + "/") == 0;
        if (isAbove)
            continue;
        const json expected = schemaFor(_compiled->document, Pointer(problem.pointer));
        deepest.push_back(problem);
        if (!problem.pointer.empty() && expected.is_object())
            deepest.back().text += " Expected " + expected.dump();
    }
    return deepest;
}

} // namespace nelvoctl
