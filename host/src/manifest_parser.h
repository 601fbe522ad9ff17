// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <expat.h>

#include "names.h"

namespace host {

constexpr std::size_t LARGEST_MANIFEST = 1024 * 1024;

struct Application {
    std::string id;
    std::vector<std::pair<std::string, std::string>> metadata;
};

// Never changed once it is in use.
struct Manifest {
    std::vector<Application> applications;
    std::string problem;   // why there are no applications
    bool isBroken = false; // it is there, but of no use
};

// Fills a manifest from XML that comes in pieces. The first fault ends the parse: a manifest that
// is half understood would run the application under half its settings.
class ManifestParser {
public:
    ManifestParser(Manifest &manifest, std::string source)
        : _manifest(manifest), _source(std::move(source)), _parser(XML_ParserCreate(nullptr)) {
        if (_parser == nullptr)
            throw std::bad_alloc();
        XML_SetUserData(_parser.get(), this);
        XML_SetElementHandler(_parser.get(), startElementCb, endElementCb);
        XML_SetStartDoctypeDeclHandler(_parser.get(), startDoctypeCb);
    }

    // False: broken; the manifest says why. Throws std::bad_alloc.
    bool feed(std::string_view piece, bool isLast) {
        _size += piece.size();
        if (_size > LARGEST_MANIFEST)
            return fail(": it is larger than 1 MiB");
        const auto length = static_cast<int>(piece.size());
        if (XML_Parse(_parser.get(), piece.data(), length, isLast) != XML_STATUS_OK)
            return failParse();
        if (isLast && _manifest.applications.empty())
            _manifest.problem = _source + ": it has no <ui-application> or <service-application>";
        return true;
    }

    bool fail(const std::string &fault) {
        _manifest.applications.clear();
        _manifest.isBroken = true;
        _manifest.problem = _source + fault;
        return false;
    }

private:
    bool failParse() {
        const XML_Error error = XML_GetErrorCode(_parser.get());
        if (_isOutOfMemory || error == XML_ERROR_NO_MEMORY)
            throw std::bad_alloc();
        if (_fault.empty())
            _fault = here() + XML_ErrorString(error);
        return fail(_fault);
    }

    std::string here() const {
        return ", line " + std::to_string(XML_GetCurrentLineNumber(_parser.get())) + ", column " +
               std::to_string(XML_GetCurrentColumnNumber(_parser.get()) + 1) + ": ";
    }

    void startElement(std::string_view name, const XML_Char **attributes) {
        _depth++;
        if (_depth == 1 && name != "manifest")
            stop("the outermost element is not <manifest>");
        else if (_depth == 2)
            startApplication(name, attributes);
        else if (_depth == 3 && _isInApplication && name == "metadata")
            addMetadata(attributes);
    }

    void startApplication(std::string_view name, const XML_Char **attributes) {
        _isInApplication = name == "ui-application" || name == "service-application";
        if (!_isInApplication)
            return;
        const char *id = attribute(attributes, "appid");
        if (id == nullptr)
            stop("<" + std::string(name) + "> has no appid");
        else if (!host::isValidName(id))
            stop("appid \"" + std::string(id) + "\" cannot be used; " + VALID_NAME_HINT);
        else
            _manifest.applications.push_back({id, {}});
    }

    void addMetadata(const XML_Char **attributes) {
        const char *key = attribute(attributes, "key");
        const char *value = attribute(attributes, "value");
        if (key == nullptr)
            stop("<metadata> has no key");
        else
            _manifest.applications.back().metadata.emplace_back(key, value ? value : "");
    }

    static const char *attribute(const XML_Char **attributes, const char *name) {
        for (; *attributes != nullptr; attributes += 2) {
            if (std::strcmp(attributes[0], name) == 0)
                return attributes[1];
        }
        return nullptr;
    }

    void stop(const std::string &fault) {
        _fault = here() + fault; // now: the parser still moves to the end of the tag
        XML_StopParser(_parser.get(), XML_FALSE);
    }

    // Nothing thrown may cross the parser's C code.
    template <typename Work>
    static void guarded(void *data, Work work) {
        auto self = static_cast<ManifestParser *>(data);
        try {
            work(*self);
        } catch (...) {
            self->_isOutOfMemory = true;
            XML_StopParser(self->_parser.get(), XML_FALSE);
        }
    }

    static void startElementCb(void *data, const XML_Char *name, const XML_Char **attributes) {
        guarded(data, [=](ManifestParser &self) { self.startElement(name, attributes); });
    }

    static void endElementCb(void *data, const XML_Char *) {
        static_cast<ManifestParser *>(data)->_depth--;
    }

    // Entities are not needed, and their expansion is the one way a small file gets large.
    static void startDoctypeCb(void *data, const XML_Char *, const XML_Char *, const XML_Char *,
                               int) {
        guarded(data, [](ManifestParser &self) { self.stop("a DOCTYPE is not allowed here"); });
    }

    struct Free {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };

    Manifest &_manifest;
    const std::string _source;
    std::unique_ptr<XML_ParserStruct, Free> _parser;
    std::size_t _size = 0;
    int _depth = 0;
    bool _isInApplication = false; // at depth 2 and below
    bool _isOutOfMemory = false;
    std::string _fault; // where and why we stopped the parser; empty: we did not
};

} // namespace host
