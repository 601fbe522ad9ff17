// SPDX-License-Identifier: Apache-2.0
#include "manifest.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include <expat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "names.h"
#include "unique_fd.h"

namespace host {

namespace {

constexpr std::size_t LARGEST_MANIFEST = 1024 * 1024;

#if XML_MAJOR_VERSION > 2 || XML_MINOR_VERSION >= 9
constexpr auto lineOf = XML_GetCurrentLineNumber64, columnOf = XML_GetCurrentColumnNumber64;
#else
constexpr auto lineOf = XML_GetCurrentLineNumber, columnOf = XML_GetCurrentColumnNumber;
#endif

// Parses one manifest.
class ManifestParser {
public:
    ManifestParser() : _parser(XML_ParserCreate(nullptr), XML_ParserFree) {
        if (!_parser)
            throw std::bad_alloc();
        XML_SetUserData(_parser.get(), this);
        XML_SetElementHandler(_parser.get(), startElementCb, endElementCb);
        XML_SetStartDoctypeDeclHandler(_parser.get(), startDoctypeCb);
    }

    Manifest parse(std::string_view xml, const std::string &source) {
        if (xml.size() > LARGEST_MANIFEST)
            return {{}, source + ": it is larger than 1 MiB", true};
        const auto length = static_cast<int>(xml.size());
        if (XML_Parse(_parser.get(), xml.data(), length, XML_TRUE) != XML_STATUS_OK) {
            const XML_Error error = XML_GetErrorCode(_parser.get());
            if (_isOutOfMemory || error == XML_ERROR_NO_MEMORY)
                throw std::bad_alloc();
            return {{}, source + (_fault.empty() ? here() + XML_ErrorString(error) : _fault), true};
        }
        if (_applications.empty())
            return {{}, source + ": it has no <ui-application> or <service-application>"};
        return {std::move(_applications), ""};
    }

private:
    std::string here() const {
        return ", line " + std::to_string(lineOf(_parser.get())) + ", column " +
               std::to_string(columnOf(_parser.get()) + 1) + ": ";
    }

    void stop(const std::string &fault) {
        _fault = here() + fault; // taken now, since the parser goes on to the end of the tag
        XML_StopParser(_parser.get(), XML_FALSE);
    }

    void startElement(const std::string &name, const XML_Char **attributes) {
        ++_depth;
        if (_depth == 2)
            _isInApplication = name == "ui-application" || name == "service-application";
        if (_depth == 1 && name != "manifest")
            stop("the outermost element is not <manifest>");
        else if (_depth == 2 && _isInApplication)
            addApplication(name, attribute(attributes, "appid"));
        else if (_depth == 3 && _isInApplication && name == "metadata")
            addMetadata(attribute(attributes, "key"), attribute(attributes, "value"));
    }

    void addApplication(const std::string &element, const char *id) {
        if (!id)
            stop("<" + element + "> has no appid");
        else if (!isValidName(id))
            stop("appid \"" + std::string(id) + "\" cannot be used; " + VALID_NAME_HINT);
        else
            _applications.push_back({id, {}});
    }

    void addMetadata(const char *key, const char *value) {
        if (!key)
            stop("<metadata> has no key");
        else
            _applications.back().metadata.emplace_back(key, value ? value : "");
    }

    static const char *attribute(const XML_Char **attributes, const char *name) {
        while (*attributes && std::strcmp(*attributes, name) != 0)
            attributes += 2;
        return *attributes ? attributes[1] : nullptr;
    }

    // Exceptions must not pass through the parser's C code.
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
        --static_cast<ManifestParser *>(data)->_depth;
    }

    // Manifests need no entities, and expanding them is the one way a small file becomes large.
    static void startDoctypeCb(void *data, const XML_Char *, const XML_Char *, const XML_Char *,
                               int) {
        guarded(data, [](ManifestParser &self) { self.stop("a DOCTYPE is not allowed here"); });
    }

    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> _parser;
    std::vector<Application> _applications;
    int _depth = 0;
    bool _isInApplication = false; // at depth 2 and below
    bool _isOutOfMemory = false;
    std::string _fault; // position and reason if we stopped the parser, else empty
};

} // namespace

Manifest parseManifest(std::string_view xml, const std::string &source) {
    return ManifestParser().parse(xml, source);
}

Manifest readManifest(const std::string &path) {
    // O_NONBLOCK: the path may name a pipe that nobody writes to.
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0)
        return {{}, path + ": " + std::strerror(errno)};
    if (!S_ISREG(status.st_mode))
        return {{}, path + ": not a file"};
    std::string xml;
    char piece[4096];
    ssize_t size = 0;
    while (xml.size() <= LARGEST_MANIFEST && (size = read(file.get(), piece, sizeof piece)) > 0)
        xml.append(piece, static_cast<std::size_t>(size));
    if (size < 0)
        return {{}, path + ": " + std::strerror(errno), true};
    return parseManifest(xml, path);
}

} // namespace host
