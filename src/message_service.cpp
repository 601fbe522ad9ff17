// SPDX-License-Identifier: Apache-2.0
#include "message_service.h"

#include <cstdio>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "nelvo_impl.h"

namespace nelvo {
namespace {

constexpr const char *NELVO_PROXY_ALLOW_APPID_LIST_PATH = "/usr/share/nelvo/";
constexpr const char *NELVO_PROXY_ALLOW_APPID_LIST_FILE_NAME = "allow_list.dat";

using Lines = std::unordered_set<std::string>;

struct FileCloser {
    void operator()(std::FILE *file) const { static_cast<void>(std::fclose(file)); }
};

// All lines of the file, or those before the first read error. Read by the C library, not by
// std::ifstream, whose locales alone take more memory than the rest of this library.
Lines readLines(std::FILE *file) {
    Lines lines;
    std::string line;
    int byte;
    while ((byte = std::getc(file)) != EOF) {
        if (byte == '\n')
            lines.insert(std::exchange(line, {}));
        else
            line.push_back(static_cast<char>(byte));
    }
    if (!line.empty() && !std::ferror(file))
        lines.insert(std::move(line));
    return lines;
}

// Nothing if the file cannot be opened. What is no regular file has no lines: the main loop must not
// wait for whoever writes to a pipe.
std::optional<Lines> readLinesOf(const char *path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1)
        return std::nullopt;
    struct stat status {}; // of no kind if fstat() fails
    fstat(fd, &status);
    const std::unique_ptr<std::FILE, FileCloser> file(fdopen(fd, "r"));
    if (!file) {
        close(fd);
        return std::nullopt;
    }
    return S_ISREG(status.st_mode) ? readLines(file.get()) : Lines();
}

} // namespace

std::unique_ptr<messageService::ServiceBase>
messageService::Factory::CreateService(std::string sender, std::string instance) {
    NELVO_LOGI("Call stub CreateService Sender:%s", sender.c_str());
    return std::make_unique<messageService>(std::move(sender), std::move(instance));
}

messageService::messageService(std::string sender, std::string instance)
    : ServiceBase(std::move(sender), std::move(instance)) {}

void messageService::OnCreate() {
    NELVO_LOGI("Call stub OnCreate");
}

void messageService::OnTerminate() {
    NELVO_LOGI("Call stub OnTerminate");
}

int messageService::SetCB(std::unique_ptr<ResponseCB> callback) {
    try {
        NELVO_LOGI("Call stub SetCB");
        if (!isPermittedSender())
            return -1;
        NelvoImpl *nelvo = NelvoImpl::getInstance();
        if (!nelvo) {
            NELVO_LOGE("NelvoImpl instance is null");
            return -1;
        }
        nelvo->_responseCallbacks.insert_or_assign(GetSender(), std::move(callback));
        return 0;
    } catch (...) {
        logException(__func__);
        return -1;
    }
}

int messageService::UnsetCB() {
    try {
        NELVO_LOGI("Call stub UnsetCB");
        if (!isPermittedSender())
            return -1;
        NelvoImpl *nelvo = NelvoImpl::getInstance();
        if (!nelvo) {
            NELVO_LOGE("NelvoImpl instance is null");
            return -1;
        }
        nelvo->_responseCallbacks.erase(GetSender());
        return 0;
    } catch (...) {
        logException(__func__);
        return -1;
    }
}

void messageService::Send(rpc_port::message::Bundle request) {
    try {
        NELVO_LOGI("Call stub Send");
        if (!isPermittedSender()) {
            NELVO_LOGE("source app is not allowed to send app sdk requests");
            return;
        }
        NELVO_LOGI("Call stub Sender %s", GetSender().c_str());
        NelvoImpl *nelvo = NelvoImpl::getInstance();
        if (!nelvo) {
            NELVO_LOGE("NelvoImpl instance is null");
            return;
        }
        nelvo->executeRequest(GetSender().c_str(), request.GetHandle());
    } catch (...) {
        logException(__func__);
    }
}

bool messageService::isPermittedSender() {
    if (_allowedAppIds.empty()) {
        const std::string path =
            std::string(NELVO_PROXY_ALLOW_APPID_LIST_PATH) + NELVO_PROXY_ALLOW_APPID_LIST_FILE_NAME;
        NELVO_LOGI("res_path : %s", path.c_str());
        std::optional<Lines> lines = readLinesOf(path.c_str());
        if (!lines) {
            NELVO_LOGD("allow_list.dat file not present, allowing all apps");
            return true;
        }
        _allowedAppIds = std::move(*lines);
    }
    if (_allowedAppIds.count(GetSender()) != 0)
        return true;
    NELVO_LOGE("%s is not permitted app id", GetSender().c_str());
    return false;
}

} // namespace nelvo
