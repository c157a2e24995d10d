#pragma once

#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/ProfileReader.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::profiles::test {

/// Makes files of pprof for tests, sample by sample.
class PprofFile {
public:
    /// Values of samples that follow, "samples" in "count" and "cpu" in "nanoseconds" if there is
    /// none.
    PprofFile& type(const std::string& name, const std::string& unit);

    /// Samples that follow are of this thread, and have no time.
    PprofFile& thread(std::int64_t process, std::int64_t id, const std::string& name = "",
                      const std::string& processName = "");

    /// Samples that follow were taken in this tenth of a second.
    PprofFile& at(std::int64_t milliseconds);

    /// Adds a sample. `stack` has names from the root on, with semicolons between: "main;f". A name
    /// may have a module, "main@/opt/app", and is in "/opt/app" otherwise.
    PprofFile& sample(const std::string& stack, const std::vector<std::int64_t>& values);

    /// The message.
    std::string message() const;

    /// The message as a gzip file.
    std::string file() const;

    /// The file, as it is read.
    Profile read() const;

private:
    struct Label {
        std::string key;
        std::string text;
        std::int64_t number = 0;
    };
    struct Sample {
        std::vector<std::uint64_t> locations;
        std::vector<std::int64_t> values;
        std::vector<Label> labels;
    };

    std::vector<std::pair<std::string, std::string>> types;
    std::vector<Label> threadLabels;
    std::vector<Label> timeLabels;
    std::vector<Sample> samples;
    std::map<std::pair<std::string, std::string>, std::uint64_t> locations;  // by name and module
};

/// The gzip of `bytes`.
std::string gzip(std::string_view bytes);

/// A source of `bytes`, which it keeps, in pieces of some size.
ByteSource pieces(std::string bytes, std::size_t size = 1000);

/// All that `write` hands to its sink.
std::string written(const std::function<void(const Sink&)>& write);

}  // namespace kolvan::server::profiles::test
