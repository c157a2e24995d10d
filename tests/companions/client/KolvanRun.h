#pragma once

#include "basekit2/UniqueFd.h"
#include "tests/support/TemporaryDirectory.h"

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::client::test {

/// What a run has come to. @see KolvanRun::wait()
struct Outcome {
    int code = 0;
    std::string output;
    std::string errors;
};

/// One run of the program `kolvan`, in an environment with nothing but what is given and a home of
/// its own. The destructor kills one that still runs.
class KolvanRun {
public:
    using Environment = std::map<std::string, std::string>;

    /// Starts it. @param input standard input; null device where it is none
    KolvanRun(const kolvan::test::TemporaryDirectory& home,
              const std::vector<std::string>& arguments, Environment environment = {},
              const basekit2::UniqueFd& input = basekit2::UniqueFd());
    KolvanRun(const KolvanRun&) = delete;
    KolvanRun& operator=(const KolvanRun&) = delete;
    ~KolvanRun();

    /// Sends it a signal; it must not have been waited for.
    void signal(int number) const;

    /// Waits for its end. @return exit status, 128 + n for a signal
    int wait();

    /// The same, and what it has written.
    Outcome outcome();

    /// What it has written so far.
    std::string output() const;
    std::string errors() const;

private:
    kolvan::test::TemporaryDirectory directory;
    pid_t child = -1;
};

}  // namespace kolvan::client::test
