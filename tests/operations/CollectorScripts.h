#pragma once

#include "tests/support/ArchiveBuilder.h"

#include <string>

namespace cagnt1::operations {

/// A collector that reports a build and otherwise does what `body`, a shell script, says.
inline std::string collectorScript(const std::string& build, const std::string& body = "") {
    return "#!/bin/sh\nif [ \"$1\" = --version ]; then echo 'collector 1.0, build " + build +
           "'; exit 0; fi\n" + body;
}

/// A target package with this collector, two directories deep.
inline std::string packageWith(const std::string& script, mode_t permissions = 0755) {
    return kolvan::test::ArchiveBuilder()
        .directory("package/")
        .directory("package/bin/")
        .file("package/bin/kolvan-trcap", script, permissions)
        .bytes();
}

}  // namespace cagnt1::operations
