// Writes a view of a profile to standard output, for readers in other languages.
//
// usage: kolvan-show-profile collapsed|speedscope FILE

#include "companions/server/profiles/Collapsed.h"
#include "companions/server/profiles/ProfileReader.h"
#include "companions/server/profiles/Speedscope.h"

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    using namespace kolvan::server::profiles;
    const std::string view = argc == 3 ? argv[1] : "";
    const Sink sink = [](std::string_view piece) { std::cout << piece; };
    if (view == "collapsed") {
        writeCollapsed(readProfileFile(argv[2]), {}, sink);
    } else if (view == "speedscope") {
        writeSpeedscope(readProfileFile(argv[2]), {}, "profile", sink);
    } else {
        std::cerr << "usage: kolvan-show-profile collapsed|speedscope FILE\n";
        return 2;
    }
}
