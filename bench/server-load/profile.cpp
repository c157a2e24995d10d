// Writes the profile of a program that was never run.
//
// usage: kolvan-bench-profile SAMPLES FILE

#include "bench/pieces/MadeProfile.h"

#include <exception>
#include <iostream>
#include <string>

int main(int argc, char* argv[]) {
    if (argc != 3) {
        return 2;
    }
    try {
        kolvan::bench::writeMadeProfile(std::stoul(argv[1]), argv[2]);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kolvan-bench-profile: " << error.what() << '\n';
        return 1;
    }
}
