#include "companions/server/cli/Options.h"
#include "companions/server/cli/Run.h"
#include "companions/server/cli/Serve.h"

#include <exception>
#include <iostream>
#include <stdexcept>
#include <variant>

namespace {

using namespace kolvan::server;

constexpr int kFailed = 1;
constexpr int kWrongUse = 2;

int run(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    if (const auto* const text = std::get_if<ShowText>(&options.command)) {
        std::cout << text->text;
    } else if (std::holds_alternative<Serve>(options.command)) {
        serve(options, argc, argv);
    } else {
        runCommand(options, std::cout, std::cerr);
    }
    if (!(std::cout << std::flush)) {
        throw std::runtime_error("Failed to write to standard output");
    }
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        return run(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::cerr << "kolvan-server: " << error.what() << "\nTry --help.\n";
        return kWrongUse;
    } catch (const std::exception& error) {
        std::cerr << "kolvan-server: " << error.what() << "\n";
        return kFailed;
    }
}
