#include "server/HttpServer.h"

#include "server/CurlHandles.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include <sys/stat.h>

namespace cagnt1 {

namespace {

constexpr const char* kMessagePath = "/api/collection-agent/message";
constexpr const char* kPackagePath =
    "/api/collection-agent/target-package?targetPackageArchiveName=";
constexpr const char* kUploadPath = "/api/collection-agent/trace/upload";

using ErrorBuffer = std::array<char, CURL_ERROR_SIZE>;

std::size_t appendToText(const char* data, std::size_t size, std::size_t count,
                         std::string* text) noexcept {
    try {
        text->append(data, size * count);
        return size * count;
    } catch (const std::exception&) {
        // No memory: a count that differs from what was given ends the transfer with an error.
        return 0;
    }
}

// Keeps the stream locked, so that the line stays in one piece. It is written in three parts
// because the text can be large: joining them first would copy it.
void printExchange(std::string_view prefix, std::string_view text) {
    ::flockfile(stdout);
    (void)::fwrite_unlocked(prefix.data(), 1, prefix.size(), stdout);
    (void)::fwrite_unlocked(text.data(), 1, text.size(), stdout);
    (void)::fwrite_unlocked("\n", 1, 1, stdout);
    // Whoever follows the log through a pipe sees each exchange when it happens.
    (void)::fflush_unlocked(stdout);
    ::funlockfile(stdout);
}

[[noreturn]] void fail(const char* description) {
    std::cerr << description;
    throw std::runtime_error(description);
}

void checkResult(CURLcode code, const char* errorText) {
    if (code != CURLE_OK) {
        fail(errorText != nullptr && *errorText != '\0' ? errorText : curl_easy_strerror(code));
    }
}

void requireMemory(bool available) {
    if (!available) {
        throw std::bad_alloc();
    }
}

// Sets an option that the library has no reason to refuse. The library reads the value as a
// variable argument: it must be of exactly the type that the option asks for, a pointer or a long.
template <typename Value>
void setOption(CURL* handle, CURLoption option, Value value) {
    static_assert(std::is_pointer_v<Value> || std::is_same_v<Value, long>);
    const CURLcode result = curl_easy_setopt(handle, option, value);
    requireMemory(result != CURLE_OUT_OF_MEMORY);
    if (result != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(result));
    }
}

// An address that the library refuses is reported by the transfer, in words of its own.
void setAddress(CURL* handle, const std::string& address) {
    requireMemory(curl_easy_setopt(handle, CURLOPT_URL, address.c_str()) != CURLE_OUT_OF_MEMORY);
}

curl_mimepart* addPart(curl_mime* form, const char* name) {
    curl_mimepart* part = curl_mime_addpart(form);
    requireMemory(part != nullptr && curl_mime_name(part, name) == CURLE_OK);
    return part;
}

// Opening a named pipe blocks until somebody writes to it. Nobody does: the collection has ended.
bool isNamedPipe(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

CurlForm makeUploadForm(CURL* handle, const std::string& localFilePath,
                        const std::string& remoteDirectory) {
    CurlForm form(curl_mime_init(handle));
    requireMemory(form != nullptr);
    // A file that cannot be read is refused here. Left to the transfer, it would end as a success
    // where the server answers as soon as it has read the head of the request.
    const CURLcode found =
        curl_mime_filedata(addPart(form.get(), remoteDirectory.c_str()), localFilePath.c_str());
    requireMemory(found != CURLE_OUT_OF_MEMORY);
    checkResult(found, nullptr);
    requireMemory(curl_mime_data(addPart(form.get(), "submit"), "send", CURL_ZERO_TERMINATED) ==
                  CURLE_OK);
    return form;
}

CurlHeaderList makeUploadHeaders() {
    CurlHeaderList headers(curl_slist_append(nullptr, "Accept: */*"));
    // The library completes the content type with the boundary of the form.
    requireMemory(headers != nullptr &&
                  curl_slist_append(headers.get(), "Content-Type: multipart/form-data") != nullptr);
    return headers;
}

}  // namespace

// The handles that requests are duplicated from; no request runs on one of these.
struct HttpServer::Templates {
    // Returns an empty owner when there is no memory.
    CurlEasyHandle duplicate(const CurlEasyHandle& original) {
        const std::lock_guard lock(handleLock);
        return CurlEasyHandle(curl_easy_duphandle(original.get()));
    }

    void release() {
        const std::lock_guard lock(handleLock);
        message.reset();
        download.reset();
        upload.reset();
    }

    CurlLibrary library;    // first: the handles go before the library does
    std::mutex handleLock;  // guards the handles; no other lock is taken under it
    CurlEasyHandle message{curl_easy_init()};
    CurlEasyHandle download{curl_easy_init()};
    CurlEasyHandle upload{curl_easy_init()};
};

HttpServer::HttpServer(std::string serverEndpoint, const std::string& certificatePath)
    : endpoint(std::move(serverEndpoint)), templates(std::make_unique<Templates>()) {
    if (templates->library.result != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(templates->library.result));
    }
    requireMemory(templates->message != nullptr && templates->download != nullptr &&
                  templates->upload != nullptr);
    setAddress(templates->message.get(), endpoint + kMessagePath);
    setOption(templates->message.get(), CURLOPT_WRITEFUNCTION, &appendToText);
    setOption(templates->download.get(), CURLOPT_WRITEFUNCTION, &std::fwrite);
    setAddress(templates->upload.get(), endpoint + kUploadPath);
    // Deliberate: no write function for uploads. The library's default writer shows the server's
    // answer on standard output, where an operator looks for what became of a trace.
    if (certificatePath.empty()) {
        return;
    }
    for (CURL* handle :
         {templates->message.get(), templates->download.get(), templates->upload.get()}) {
        // Deliberate: a server with a certificate of its own is often reached by an address or a
        // name that the certificate does not contain. Verification would refuse it, so it is off.
        setOption(handle, CURLOPT_CAINFO, certificatePath.c_str());
        setOption(handle, CURLOPT_SSL_VERIFYHOST, 0L);
        setOption(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    }
}

HttpServer::~HttpServer() {
    templates->release();
}

std::string HttpServer::sendMessages(const std::string& requestJson) {
    std::string reply;
    ErrorBuffer errorText{};
    const CurlEasyHandle request = templates->duplicate(templates->message);
    printExchange("out: ", requestJson);
    if (request == nullptr) {
        // The library's words for a request on a handle that is missing.
        checkResult(CURLE_BAD_FUNCTION_ARGUMENT, nullptr);
    }
    setOption(request.get(), CURLOPT_POSTFIELDS, requestJson.c_str());
    setOption(request.get(), CURLOPT_ERRORBUFFER, errorText.data());
    setOption(request.get(), CURLOPT_WRITEDATA, &reply);
    checkResult(curl_easy_perform(request.get()), errorText.data());
    printExchange("in:  ", reply);
    return reply;
}

bool HttpServer::downloadTargetPackage(const std::string& archiveName,
                                       const std::string& destinationPath) {
    ErrorBuffer errorText{};
    // Declared before the request, because the request may write to it until it is released. Opened
    // close-on-exec ("e"), because another thread may start a child at any moment.
    FileHandle file;
    const CurlEasyHandle request = templates->duplicate(templates->download);
    std::cout << "Downloading target package\n";
    file.reset(request != nullptr ? std::fopen(destinationPath.c_str(), "wbe") : nullptr);
    if (file == nullptr) {
        return false;
    }
    setAddress(request.get(), endpoint + kPackagePath + archiveName);
    setOption(request.get(), CURLOPT_WRITEDATA, file.get());
    setOption(request.get(), CURLOPT_ERRORBUFFER, errorText.data());
    checkResult(curl_easy_perform(request.get()), errorText.data());
    if (std::fclose(file.release()) != 0) {
        // The end of the archive did not reach the disk: a write error like any other.
        checkResult(CURLE_WRITE_ERROR, nullptr);
    }
    return true;
}

bool HttpServer::uploadTraceFile(const std::string& localFilePath,
                                 const std::string& remoteDirectory) {
    const CurlEasyHandle request = templates->duplicate(templates->upload);
    std::cout << "Uploading trace file\n";
    if (request == nullptr) {
        return false;
    }
    if (isNamedPipe(localFilePath)) {
        checkResult(CURLE_READ_ERROR, nullptr);
    }
    const CurlHeaderList headers = makeUploadHeaders();
    const CurlForm form = makeUploadForm(request.get(), localFilePath, remoteDirectory);
    setOption(request.get(), CURLOPT_HTTPHEADER, headers.get());
    setOption(request.get(), CURLOPT_MIMEPOST, form.get());
    checkResult(curl_easy_perform(request.get()), nullptr);
    return true;
}

}  // namespace cagnt1
