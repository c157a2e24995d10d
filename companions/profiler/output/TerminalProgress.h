#pragma once

#include <string>

namespace kolvan::profiler {

/// One line on the terminal that standard error is, written over and over while a collection runs,
/// and gone when it has ended. Without a terminal nothing is written: whoever reads standard error
/// from a pipe has the feedback for that.
class TerminalProgress {
public:
    TerminalProgress();
    TerminalProgress(const TerminalProgress&) = delete;
    TerminalProgress& operator=(const TerminalProgress&) = delete;
    ~TerminalProgress();

    /// Shows `text` in place of what stood there, cut to the terminal's width. Nothing in it can
    /// control the terminal.
    void show(const std::string& text);

    /// Removes the line.
    void clear();

private:
    const bool active;
    bool shown = false;
};

}  // namespace kolvan::profiler
