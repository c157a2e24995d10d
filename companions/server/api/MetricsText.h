#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::server::api {

/// Writes figures in the text format 0.0.4 of Prometheus.
///
///     MetricsText text;
///     text.begin("kolvan_agents", MetricsText::Kind::Gauge, "Agents by their presence.");
///     text.sample(12, {{"presence", "connected"}});
class MetricsText {
public:
    enum class Kind {
        Gauge,    ///< goes up and down
        Counter,  ///< only rises while the server runs; its name ends in "_total"
    };

    using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    /// Begins a figure; its samples follow.
    /// @param help one line for people
    void begin(std::string_view name, Kind kind, std::string_view help);

    /// A value of the figure that was begun last. @param labels their values may be any text
    void sample(std::uint64_t value, Labels labels = {});

    const std::string& text() const noexcept { return content; }

private:
    std::string content;
    std::string figure;
};

}  // namespace kolvan::server::api
