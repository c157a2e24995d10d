#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::test {

/// One easy handle in its whole life.
struct CurlHandle {
    bool duplicate = false;
    std::size_t origin = 0;  ///< position of the handle it was made from
    /// Set on this very handle, in their order; pointers are empty.
    std::vector<std::pair<CURLoption, std::string>> options;
    std::size_t transfers = 0;
    bool released = false;
};

/// Keeps what this program asks of libcurl while the object lives. It works by the linker's
/// `--wrap`; the calls themselves reach libcurl as they are. One object at a time, which outlives
/// the calls that it holds; calls of any threads.
class CurlCalls {
public:
    CurlCalls();
    ~CurlCalls();

    CurlCalls(const CurlCalls&) = delete;
    CurlCalls& operator=(const CurlCalls&) = delete;

    /// The handles in the order in which they were made.
    std::vector<CurlHandle> handles() const;

    /// The most duplications that were running at one moment.
    std::size_t duplicationsAtOnce() const;

    /// Keeps every duplication from now on from ending until `releaseDuplications()`.
    void holdDuplications();
    void releaseDuplications();

    /// Blocks until a duplication is running.
    /// @throws std::runtime_error when the deadline passes
    void waitForDuplication() const;

    /// Calls of curl_global_init less those of curl_global_cleanup, and the flags of the last one.
    int globalBalance() const;
    long globalFlags() const;

    /// The most handles that had not been released when curl_global_cleanup was called.
    std::size_t handlesAtCleanup() const;

    /// Makes every duplication from now on fail.
    void failDuplications();

    /// Lets memory be missing for one of the next calls that make a handle, a header or a part of
    /// a form, fill one in or set an option.
    /// @param calls how many of them succeed before
    void failAfter(std::size_t calls);

    /// Lets every attempt to set `option` from now on end with CURLE_NOT_BUILT_IN.
    void refuse(CURLoption option);

    /// Whether the call without memory has been made.
    bool hasFailed() const;
};

}  // namespace kolvan::test
