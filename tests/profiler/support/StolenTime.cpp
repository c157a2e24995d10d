#include "tests/profiler/support/StolenTime.h"

#include <fstream>
#include <string>

#include <unistd.h>

namespace kolvan::test {

namespace {

double nanosecondsOfTick() {
    return 1e9 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double stolenSinceTheStart() {
    // proc_stat(5): cpu user nice system idle iowait irq softirq steal
    std::ifstream file("/proc/stat");
    std::string word;
    for (int skipped = 0; skipped < 6; ++skipped) {
        file >> word;
    }
    double interrupts = 0;
    double softInterrupts = 0;
    double stolen = 0;
    file >> interrupts >> softInterrupts >> stolen;
    return (interrupts + softInterrupts + stolen) * nanosecondsOfTick();
}

}  // namespace

StolenTime::StolenTime() : before(stolenSinceTheStart()) {}

double StolenTime::nanoseconds() const {
    return stolenSinceTheStart() - before + nanosecondsOfTick();
}

}  // namespace kolvan::test
