// Writes the sample profile to the file that is its only argument, for readers in other languages.

#include "companions/profiler/output/Pprof.h"
#include "tests/profiler/output/SampleProfile.h"

#include <iostream>

int main(int argc, char** argv) {
    using namespace kolvan::profiler;
    if (argc != 2) {
        std::cerr << "usage: kolvan-write-sample-profile FILE\n";
        return 2;
    }
    writePprof(test::sampleProfile(), test::sampleCoverage(), argv[1]);
}
