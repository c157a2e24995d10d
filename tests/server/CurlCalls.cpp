// The declarations below are libcurl's functions, not its checking macros around them.
#define CURL_DISABLE_TYPECHECK

#include "tests/server/CurlCalls.h"

#include "tests/support/Gate.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>

#undef curl_easy_setopt

extern "C" {
CURLcode __real_curl_global_init(long flags);
void __real_curl_global_cleanup();
CURL* __real_curl_easy_init();
CURL* __real_curl_easy_duphandle(CURL* handle);
CURLcode __real_curl_easy_setopt(CURL* handle, CURLoption option, ...);
CURLcode __real_curl_easy_perform(CURL* handle);
void __real_curl_easy_cleanup(CURL* handle);
curl_mime* __real_curl_mime_init(CURL* handle);
curl_mimepart* __real_curl_mime_addpart(curl_mime* form);
CURLcode __real_curl_mime_name(curl_mimepart* part, const char* name);
CURLcode __real_curl_mime_filedata(curl_mimepart* part, const char* path);
CURLcode __real_curl_mime_data(curl_mimepart* part, const char* data, std::size_t size);
curl_slist* __real_curl_slist_append(curl_slist* list, const char* text);
}

namespace kolvan::test {

namespace {

struct CallRecord {
    bool active = false;
    std::vector<CurlHandle> handles;
    std::map<CURL*, std::size_t> living;  // positions in `handles`
    std::size_t duplicating = 0;
    std::size_t duplicatingMost = 0;
    bool failDuplications = false;
    bool holdDuplications = false;
    std::optional<std::size_t> callsUntilFailure;
    bool hasFailed = false;
    std::optional<CURLoption> refusedOption;
    std::size_t handlesAtCleanup = 0;
    int globalBalance = 0;
    long globalFlags = 0;
};

std::mutex recordMutex;  // guards record; not held during calls of libcurl
std::condition_variable recordChanged;
CallRecord record;

void add(CURL* handle, const CurlHandle& entry) {
    if (record.active && handle != nullptr) {
        record.living[handle] = record.handles.size();
        record.handles.push_back(entry);
    }
}

CurlHandle* find(CURL* handle) {
    const auto position = record.living.find(handle);
    return position != record.living.end() ? &record.handles[position->second] : nullptr;
}

// Counts a call that needs memory, and decides about it.
bool lacksMemory() {
    const std::lock_guard lock(recordMutex);
    if (!record.callsUntilFailure || record.hasFailed) {
        return false;
    }
    record.hasFailed = (*record.callsUntilFailure)-- == 0;
    return record.hasFailed;
}

bool isRefused(CURLoption option) {
    const std::lock_guard lock(recordMutex);
    return record.refusedOption == option;
}

bool isText(CURLoption option) {
    return option == CURLOPT_URL || option == CURLOPT_CAINFO || option == CURLOPT_POSTFIELDS;
}

void note(CURL* handle, CURLoption option, const std::string& value) {
    const std::lock_guard lock(recordMutex);
    if (CurlHandle* const entry = find(handle)) {
        entry->options.emplace_back(option, value);
    }
}

}  // namespace

CurlCalls::CurlCalls() {
    const std::lock_guard lock(recordMutex);
    record = {};
    record.active = true;
}

CurlCalls::~CurlCalls() {
    const std::lock_guard lock(recordMutex);
    record = {};
}

std::vector<CurlHandle> CurlCalls::handles() const {
    const std::lock_guard lock(recordMutex);
    return record.handles;
}

std::size_t CurlCalls::duplicationsAtOnce() const {
    const std::lock_guard lock(recordMutex);
    return record.duplicatingMost;
}

void CurlCalls::holdDuplications() {
    const std::lock_guard lock(recordMutex);
    record.holdDuplications = true;
}

void CurlCalls::releaseDuplications() {
    const std::lock_guard lock(recordMutex);
    record.holdDuplications = false;
    recordChanged.notify_all();
}

void CurlCalls::waitForDuplication() const {
    std::unique_lock lock(recordMutex);
    if (!recordChanged.wait_for(lock, kDeadline, [] { return record.duplicating != 0; })) {
        throw std::runtime_error("no handle is duplicated");
    }
}

std::size_t CurlCalls::handlesAtCleanup() const {
    const std::lock_guard lock(recordMutex);
    return record.handlesAtCleanup;
}

int CurlCalls::globalBalance() const {
    const std::lock_guard lock(recordMutex);
    return record.globalBalance;
}

long CurlCalls::globalFlags() const {
    const std::lock_guard lock(recordMutex);
    return record.globalFlags;
}

void CurlCalls::failDuplications() {
    const std::lock_guard lock(recordMutex);
    record.failDuplications = true;
}

void CurlCalls::failAfter(std::size_t calls) {
    const std::lock_guard lock(recordMutex);
    record.callsUntilFailure = calls;
    record.hasFailed = false;
}

void CurlCalls::refuse(CURLoption option) {
    const std::lock_guard lock(recordMutex);
    record.refusedOption = option;
}

bool CurlCalls::hasFailed() const {
    const std::lock_guard lock(recordMutex);
    return record.hasFailed;
}

}  // namespace kolvan::test

extern "C" {

using kolvan::test::lacksMemory;
using kolvan::test::record;
using kolvan::test::recordChanged;
using kolvan::test::recordMutex;

CURLcode __wrap_curl_global_init(long flags) {
    const std::lock_guard lock(recordMutex);
    ++record.globalBalance;
    record.globalFlags = flags;
    return __real_curl_global_init(flags);
}

void __wrap_curl_global_cleanup() {
    const std::lock_guard lock(recordMutex);
    --record.globalBalance;
    record.handlesAtCleanup = std::max(record.handlesAtCleanup, record.living.size());
    __real_curl_global_cleanup();
}

CURL* __wrap_curl_easy_init() {
    CURL* const handle = lacksMemory() ? nullptr : __real_curl_easy_init();
    const std::lock_guard lock(recordMutex);
    kolvan::test::add(handle, {});
    return handle;
}

CURL* __wrap_curl_easy_duphandle(CURL* handle) {
    {
        std::unique_lock lock(recordMutex);
        if (record.failDuplications) {
            return nullptr;
        }
        ++record.duplicating;
        record.duplicatingMost = std::max(record.duplicatingMost, record.duplicating);
        recordChanged.notify_all();
        recordChanged.wait(lock, [] { return !record.holdDuplications; });
    }
    CURL* const copy = __real_curl_easy_duphandle(handle);
    const std::lock_guard lock(recordMutex);
    --record.duplicating;
    kolvan::test::CurlHandle entry;
    entry.duplicate = true;
    const auto origin = record.living.find(handle);
    entry.origin = origin != record.living.end() ? origin->second : record.handles.size();
    kolvan::test::add(copy, entry);
    return copy;
}

// The option is taken as a number: va_start must not be given an enumerator.
CURLcode __wrap_curl_easy_setopt(CURL* handle, unsigned number, ...) {
    const auto option = static_cast<CURLoption>(number);
    if (lacksMemory()) {
        return CURLE_OUT_OF_MEMORY;
    }
    if (kolvan::test::isRefused(option)) {
        return CURLE_NOT_BUILT_IN;
    }
    va_list arguments;
    va_start(arguments, number);
    CURLcode result = CURLE_UNKNOWN_OPTION;
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        const long value = va_arg(arguments, long);
        kolvan::test::note(handle, option, std::to_string(value));
        result = __real_curl_easy_setopt(handle, option, value);
    } else if (option < CURLOPTTYPE_FUNCTIONPOINT || option >= CURLOPTTYPE_BLOB) {
        void* const value = va_arg(arguments, void*);
        const bool text = value != nullptr && kolvan::test::isText(option);
        kolvan::test::note(handle, option, text ? static_cast<const char*>(value) : "");
        result = __real_curl_easy_setopt(handle, option, value);
    } else if (option < CURLOPTTYPE_OFF_T) {
        using Function = void (*)();
        const Function value = va_arg(arguments, Function);
        kolvan::test::note(handle, option, "");
        result = __real_curl_easy_setopt(handle, option, value);
    } else {
        const curl_off_t value = va_arg(arguments, curl_off_t);
        kolvan::test::note(handle, option, std::to_string(value));
        result = __real_curl_easy_setopt(handle, option, value);
    }
    va_end(arguments);
    return result;
}

CURLcode __wrap_curl_easy_perform(CURL* handle) {
    {
        const std::lock_guard lock(recordMutex);
        if (kolvan::test::CurlHandle* const entry = kolvan::test::find(handle)) {
            ++entry->transfers;
        }
    }
    return __real_curl_easy_perform(handle);
}

void __wrap_curl_easy_cleanup(CURL* handle) {
    {
        const std::lock_guard lock(recordMutex);
        if (kolvan::test::CurlHandle* const entry = kolvan::test::find(handle)) {
            entry->released = true;
            record.living.erase(handle);
        }
    }
    __real_curl_easy_cleanup(handle);
}

curl_mime* __wrap_curl_mime_init(CURL* handle) {
    return lacksMemory() ? nullptr : __real_curl_mime_init(handle);
}

curl_mimepart* __wrap_curl_mime_addpart(curl_mime* form) {
    return lacksMemory() ? nullptr : __real_curl_mime_addpart(form);
}

CURLcode __wrap_curl_mime_name(curl_mimepart* part, const char* name) {
    return lacksMemory() ? CURLE_OUT_OF_MEMORY : __real_curl_mime_name(part, name);
}

CURLcode __wrap_curl_mime_data(curl_mimepart* part, const char* data, std::size_t size) {
    return lacksMemory() ? CURLE_OUT_OF_MEMORY : __real_curl_mime_data(part, data, size);
}

CURLcode __wrap_curl_mime_filedata(curl_mimepart* part, const char* path) {
    return lacksMemory() ? CURLE_OUT_OF_MEMORY : __real_curl_mime_filedata(part, path);
}

curl_slist* __wrap_curl_slist_append(curl_slist* list, const char* text) {
    return lacksMemory() ? nullptr : __real_curl_slist_append(list, text);
}

}  // extern "C"
