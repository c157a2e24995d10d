#include "companions/client/Commands.h"
#include "companions/client/Failure.h"
#include "companions/client/Options.h"
#include "companions/client/Printable.h"

#include <curl/curl.h>

#include <exception>
#include <iostream>

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

int run(int argc, char** argv) {
    using namespace kolvan::client;
    try {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            throw Failure("libcurl cannot be set up.");
        }
        const int code = carryOut(readOptions(argc, argv));
        std::cout.flush();
        if (!std::cout) {
            throw Failure("Standard output cannot be written to.");
        }
        return code;
    } catch (const UsageError& error) {
        std::cerr << "kolvan: " << printable(error.what()) << "\nTry --help.\n";
        return kWrongUsage;
    } catch (const std::exception& error) {
        std::cerr << "kolvan: " << printable(error.what()) << "\n";
        return kFailed;
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    const int code = run(argc, argv);
    curl_global_cleanup();
    return code;
}
