#include "tests/profiler/engine/ToldTree.h"

#include <sstream>
#include <stdexcept>
#include <string>

namespace kolvan::test {

ToldTree burnTree(profiler::Engine& engine, RecordedEvents& events, FixtureProcess& fixture) {
    ToldTree tree;
    fixture.say("go");
    for (;;) {
        if (!deliverUntil(engine, events, [&] { return fixture.hasLine(); })) {
            throw std::runtime_error("The fixture says nothing.");
        }
        std::istringstream line(fixture.readLine());
        std::string word;
        line >> word;
        if (word == "done") {
            return tree;
        }
        double used = 0;
        pid_t process = 0;
        if (word == "used") {
            line >> used >> process;
            tree.used[process] = used;
        } else {
            line >> process;
            tree.processes.push_back(process);
        }
    }
}

}  // namespace kolvan::test
