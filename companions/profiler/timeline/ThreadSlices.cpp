#include "companions/profiler/timeline/ThreadSlices.h"

#include <algorithm>

namespace kolvan::profiler {

void ThreadSlices::change(pid_t thread, std::string_view state, std::int64_t time) {
    const auto [place, isNew] = tracks.try_emplace(thread, Track{state, time});
    Track& track = place->second;
    if (isNew || track.state == state) {
        return;
    }
    if (time - track.since >= shortest) {
        draw(thread, track, time);
        track.since = time;
    }
    track.state = state;
}

void ThreadSlices::draw(pid_t thread, const Track& track, std::int64_t time) {
    constexpr std::int64_t kFirstShortest = 100;
    trace.slice(thread, track.state, track.since, time - track.since);
    if (++drawn == many) {
        many *= 2;
        shortest = std::max(kFirstShortest, shortest * 2);
    }
}

void ThreadSlices::end(pid_t thread, std::int64_t time) {
    const auto place = tracks.find(thread);
    if (place != tracks.end()) {
        draw(thread, place->second, time);
        tracks.erase(place);
    }
}

void ThreadSlices::finish(std::int64_t time) {
    for (const auto& [thread, track] : tracks) {
        draw(thread, track, time);
    }
    tracks.clear();
}

}  // namespace kolvan::profiler
